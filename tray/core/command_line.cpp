#include "core/command_line.h"

#include <string_view>

namespace kalvo::tray {

std::string UsageLine() {
  return "usage: kalvotray [--status-url URL] [--registry FILE] "
         "[--show status|about|notify TEXT [--screenshot FILE.png]] [--help] [--version]";
}

std::string HelpText() {
  return UsageLine() +
         "\n\n"
         "The desktop companion of the Vaultara server component (kalvosrv): a tray icon\n"
         "whose menu opens the status window, the help document (Kalvo.pdf next to the\n"
         "program, opened with the desktop's default PDF application) and the about window,\n"
         "and notifications when the server stops answering and when it answers again.\n"
         "Figures come from the server's status endpoint, read once a second.\n"
         "\n"
         "  --status-url URL    status endpoint to read; default http://127.0.0.1:PORT/status\n"
         "                      with PORT from the registry value StatusPort (default 15244)\n"
         "  --registry FILE     registry file for StatusPort and Taskbaricon (\"0\": no tray\n"
         "                      icon); default $KALVOSRV_REGISTRY or\n"
         "                      /etc/opt/zentara/registry.reg; unreadable means defaults\n"
         "  --show status       open only the status window; exit when it is closed\n"
         "  --show about        open only the about window; exit when it is closed\n"
         "  --show notify TEXT  show TEXT as a notification; exit when it has faded out\n"
         "  --screenshot FILE   with --show: once the window shows its content (status:\n"
         "                      the first reading of the endpoint; notify: fully faded\n"
         "                      in), write it as a PNG image to FILE, print its labels\n"
         "                      (\"lbStateValue: Active\") and exit\n"
         "  --help              print this text and exit\n"
         "  --version           print the version and exit\n"
         "\n"
         "Texts come from the language file kalvo.4XX next to the program, chosen by LC_ALL,\n"
         "LC_MESSAGES or LANG (English when there is none for the language).\n"
         "Without --show the program stays in the tray until the session ends (SIGTERM,\n"
         "SIGINT or SIGHUP remove the icon and end it). Use -- before a TEXT that begins\n"
         "with --.\n"
         "Exit status: 0 success, 1 no display or the screenshot could not be written,\n"
         "2 bad arguments.\n";
}

std::optional<CommandLine> ParseCommandLine(const std::vector<std::string>& args,
                                            std::string* error) {
  CommandLine line;
  std::vector<std::string> positional;
  bool show_given = false;
  auto fail = [&](std::string message) -> std::optional<CommandLine> {
    if (error != nullptr) *error = std::move(message);
    return std::nullopt;
  };
  bool options_done = false;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string name = args[i];
    std::optional<std::string> inline_value;
    if (name == "--" && !options_done) {
      options_done = true;  // everything after it is TEXT, even when it begins with "--"
      continue;
    }
    if (!options_done && name.rfind("--", 0) == 0) {
      if (const size_t eq = name.find('='); eq != std::string::npos) {
        inline_value = name.substr(eq + 1);
        name.resize(eq);
      }
    } else {
      positional.push_back(name);
      continue;
    }
    auto value = [&]() -> std::optional<std::string> {
      if (inline_value) return inline_value;
      if (i + 1 < args.size()) return args[++i];
      return std::nullopt;
    };
    if (name == "--help" || name == "--version") {
      if (inline_value) return fail(name + " takes no value");
      (name == "--help" ? line.help : line.version) = true;
      continue;
    }
    std::string* target = nullptr;
    if (name == "--status-url") target = &line.status_url;
    if (name == "--registry") target = &line.registry;
    if (name == "--screenshot") target = &line.screenshot;
    if (target == nullptr && name != "--show") return fail("unknown option " + name);
    const std::optional<std::string> v = value();
    if (!v || v->empty()) return fail(name + " needs a value");
    if (target != nullptr) {
      *target = *v;
      continue;
    }
    if (*v == "status") {
      line.show = CommandLine::Show::kStatus;
    } else if (*v == "about") {
      line.show = CommandLine::Show::kAbout;
    } else if (*v == "notify") {
      line.show = CommandLine::Show::kNotify;
    } else {
      return fail("--show takes status, about or notify, not " + *v);
    }
    show_given = true;
  }
  if (line.help || line.version) return line;
  if (line.show == CommandLine::Show::kNotify) {
    if (positional.size() != 1) return fail("--show notify needs exactly one TEXT");
    line.notify_text = positional.front();
  } else if (!positional.empty()) {
    return fail("unexpected argument " + positional.front());
  }
  if (!line.screenshot.empty() && !show_given) return fail("--screenshot needs --show");
  return line;
}

}  // namespace kalvo::tray
