// The command that opens a document with the application associated with its type: the
// association's command line with environment variables expanded, the document put in for
// its placeholder, and split into arguments by the desktop-entry quoting rules.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace kalvo::tray {

// Looks up one environment variable; nothing when it is not set.
using EnvironmentLookup = std::function<std::optional<std::string>(std::string_view name)>;

// The process environment.
std::optional<std::string> ProcessEnvironment(std::string_view name);

// Every "%NAME%" whose NAME is a set variable replaced by its value; any other text,
// including "%NAME%" of an unset variable and a lone "%", stays as it is.
std::string ExpandEnvironmentText(std::string_view text, const EnvironmentLookup& lookup);

// The document placeholders in the order they are looked for: the first of them found in a
// command (compared without regard to case, so "%L" also finds "%l") is the one replaced;
// the others stay. "%1", "%L" and "%l" are those of hand-written associations; "%f" and
// "%u" (also "%F", "%U") those of desktop entries.
inline constexpr std::string_view kDocumentPlaceholders[] = {"%1", "%L", "%l", "%f", "%u"};

// The placeholder that BuildDocumentCommand replaces in `command`, or "" when it has none
// (the application is then started without the document).
std::string_view FindDocumentPlaceholder(std::string_view command);

// Splits a desktop entry's Exec value (after its string escapes \s \n \t \r \\ are
// resolved, which this function does) into arguments: blanks separate them; double quotes
// group, and inside them a backslash makes the next '"', '`', '$' or '\' literal. Gives
// nothing for an unterminated quote.
std::optional<std::vector<std::string>> SplitExecLine(std::string_view exec);

// The arguments that open `document` with `command`: environment variables expanded (see
// ExpandEnvironmentText), the line split (see SplitExecLine), then in every argument the
// placeholder of FindDocumentPlaceholder replaced by `document` (without regard to case),
// "%*" removed, the other desktop-entry field codes (%i %c %k and the obsolete %d %D %n %N
// %v %m) removed and "%%" turned into "%". An argument that consisted only of removed
// codes is dropped. Gives nothing when the line cannot be split or names no program.
std::optional<std::vector<std::string>> BuildDocumentCommand(std::string_view command,
                                                             std::string_view document,
                                                             const EnvironmentLookup& lookup);

}  // namespace kalvo::tray
