// Runs the server as a service: start-up, the service manager's notifications, the
// control signals, and the orderly shutdown.
#pragma once

#include "host/server.h"

namespace kalvo {

// Builds the server, loads it and serves until a stop signal: SIGTERM or SIGINT stop,
// SIGUSR1 pauses, SIGUSR2 continues, SIGHUP is the control event 6 (parameters changed).
// Tells systemd READY=1 once listening, STOPPING=1 on stop, and the connection count as
// STATUS=. Gives the process exit code: 0 after a stop, 1 when loading was stopped.
int RunService(const ServerOptions& options);

// Raises the process's soft limit of open file descriptors to its hard limit, so that every
// connection the unit's LimitNOFILE allows can be held, and gives the log line that states the
// limit now in force (and the reason when it could not be raised).
std::string RaiseDescriptorLimit();

}  // namespace kalvo
