// The command line of kalvotray.
#pragma once

#include <optional>
#include <string>
#include <vector>

namespace kalvo::tray {

struct CommandLine {
  enum class Show { kTray, kStatus, kAbout, kNotify };
  Show show = Show::kTray;
  std::string notify_text;  // --show notify TEXT
  std::string status_url;   // --status-url; "" means the registry's StatusPort on 127.0.0.1
  std::string registry;     // --registry; "" means $KALVOSRV_REGISTRY or the default file
  std::string screenshot;   // --screenshot; only with --show
  bool help = false;
  bool version = false;
};

// The one-line synopsis, without a trailing line break.
std::string UsageLine();

// The full --help text, ending in a line break.
std::string HelpText();

// Reads the arguments after the program name. Options take their value as the next
// argument or after "=". Gives nothing and sets `error` (one line) for an unknown option, a
// missing or bad value, a missing or surplus TEXT, or --screenshot without --show.
std::optional<CommandLine> ParseCommandLine(const std::vector<std::string>& args,
                                            std::string* error);

}  // namespace kalvo::tray
