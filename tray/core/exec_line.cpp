#include "core/exec_line.h"

#include <cctype>
#include <cstdlib>

namespace kalvo::tray {
namespace {

char Lower(char c) { return static_cast<char>(std::tolower(static_cast<unsigned char>(c))); }

// Position of `needle` in `text` from `from`, compared without regard to case.
size_t FindNoCase(std::string_view text, std::string_view needle, size_t from = 0) {
  if (needle.empty() || text.size() < needle.size()) return std::string_view::npos;
  for (size_t i = from; i + needle.size() <= text.size(); ++i) {
    bool same = true;
    for (size_t k = 0; k < needle.size() && same; ++k)
      same = Lower(text[i + k]) == Lower(needle[k]);
    if (same) return i;
  }
  return std::string_view::npos;
}

bool IsVariableNameChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '_' || c == '(' || c == ')';
}

// The desktop-entry string escapes, resolved before the Exec quoting is read.
std::string ResolveStringEscapes(std::string_view value) {
  std::string out;
  for (size_t i = 0; i < value.size(); ++i) {
    if (value[i] != '\\' || i + 1 == value.size()) {
      out += value[i];
      continue;
    }
    switch (value[++i]) {
      case 's':
        out += ' ';
        break;
      case 'n':
        out += '\n';
        break;
      case 't':
        out += '\t';
        break;
      case 'r':
        out += '\r';
        break;
      case '\\':
        out += '\\';
        break;
      default:  // not a string escape: kept for the Exec quoting
        out += '\\';
        out += value[i];
        break;
    }
  }
  return out;
}

// One argument with its field codes handled; nothing when it consisted only of removed
// codes.
std::optional<std::string> ExpandArgument(const std::string& arg, std::string_view placeholder,
                                          std::string_view document) {
  std::string out;
  bool removed = false;
  for (size_t i = 0; i < arg.size(); ++i) {
    if (arg[i] != '%' || i + 1 == arg.size()) {
      out += arg[i];
      continue;
    }
    const std::string_view code(arg.data() + i, 2);
    if (!placeholder.empty() && FindNoCase(code, placeholder) == 0) {
      out += document;
    } else if (code == "%%") {
      out += '%';
    } else if (code == "%*" ||
               std::string_view("icknNdDvm").find(code[1]) != std::string_view::npos) {
      removed = true;
    } else {
      out += code;  // another placeholder, left alone
    }
    ++i;
  }
  if (out.empty() && removed) return std::nullopt;
  return out;
}

}  // namespace

std::optional<std::string> ProcessEnvironment(std::string_view name) {
  const char* value = std::getenv(std::string(name).c_str());
  if (value == nullptr) return std::nullopt;
  return std::string(value);
}

std::string ExpandEnvironmentText(std::string_view text, const EnvironmentLookup& lookup) {
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    const size_t end = text[i] == '%' ? text.find('%', i + 1) : std::string_view::npos;
    if (end != std::string_view::npos && end > i + 1) {
      const std::string_view name = text.substr(i + 1, end - i - 1);
      bool valid = true;
      for (char c : name) valid = valid && IsVariableNameChar(c);
      if (valid) {
        if (std::optional<std::string> value = lookup(name)) {
          out += *value;
          i = end + 1;
          continue;
        }
      }
    }
    out += text[i++];
  }
  return out;
}

std::string_view FindDocumentPlaceholder(std::string_view command) {
  for (std::string_view placeholder : kDocumentPlaceholders) {
    if (FindNoCase(command, placeholder) != std::string_view::npos) return placeholder;
  }
  return {};
}

std::optional<std::vector<std::string>> SplitExecLine(std::string_view exec) {
  const std::string line = ResolveStringEscapes(exec);
  std::vector<std::string> args;
  std::string current;
  bool in_arg = false, quoted = false;
  for (size_t i = 0; i < line.size(); ++i) {
    const char c = line[i];
    if (quoted) {
      if (c == '"') {
        quoted = false;
      } else if (c == '\\' && i + 1 < line.size() &&
                 std::string_view("\"`$\\").find(line[i + 1]) != std::string_view::npos) {
        current += line[++i];
      } else {
        current += c;
      }
    } else if (c == ' ' || c == '\t' || c == '\n') {
      if (in_arg) args.push_back(std::move(current));
      current.clear();
      in_arg = false;
    } else if (c == '"') {
      quoted = true;
      in_arg = true;
    } else {
      current += c;
      in_arg = true;
    }
  }
  if (quoted) return std::nullopt;
  if (in_arg) args.push_back(std::move(current));
  return args;
}

std::optional<std::vector<std::string>> BuildDocumentCommand(std::string_view command,
                                                             std::string_view document,
                                                             const EnvironmentLookup& lookup) {
  const std::string expanded = ExpandEnvironmentText(command, lookup);
  const std::string_view placeholder = FindDocumentPlaceholder(expanded);
  std::optional<std::vector<std::string>> split = SplitExecLine(expanded);
  if (!split) return std::nullopt;
  std::vector<std::string> args;
  for (const std::string& arg : *split) {
    if (std::optional<std::string> done = ExpandArgument(arg, placeholder, document)) {
      args.push_back(std::move(*done));
    }
  }
  if (args.empty() || args.front().empty()) return std::nullopt;
  return args;
}

}  // namespace kalvo::tray
