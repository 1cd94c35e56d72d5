// The administrator's command-line helpers: checking the configuration and enciphering the
// database credentials for the registry file.
#pragma once

#include <iosfwd>
#include <string>

#include "host/server.h"

namespace kalvo {

// Reads every setting as start-up does, runs the start-up checks, prints the effective
// settings (the database password masked) and the first failed check to `out`. Gives 0 when
// every check passes, 1 otherwise.
int CheckConfig(const ServerOptions& options, std::ostream& out);

// Reads one line of UTF-8 text from `in` and prints its cipher text for LoginUser/LoginPass.
int EncryptCredential(std::istream& in, std::ostream& out);
// Reads one cipher text from `in` and prints the plain text (UTF-8).
int DecryptCredential(std::istream& in, std::ostream& out);

}  // namespace kalvo
