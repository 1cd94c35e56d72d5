// The one way a statement is built: fixed SQL text written by the program, with the values
// that come from peers, settings or the database kept apart until the statement runs.
//
// The server's statements paste values between single quotes without doubling apostrophes, so
// a value holding a quote would end the literal early and change what the statement means.
// Here such a value never reaches the database: the statement reports a problem and the
// execution fails before anything is sent, with the result the operation gives for any failed
// statement. Values that the statement appends as numbers are converted to 32-bit integers
// first; a text that is no number is refused the same way. For every other value the text
// that is logged and executed is exactly the fixed text with the values pasted in.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "db/dialect.h"

namespace kalvo {

// The run-time error number of a statement refused before it was sent: the number a database
// provider reports for a statement it cannot parse, which is what a quote inside a value
// would have caused.
inline constexpr int32_t kErrStatementRefused = -2147217900;

// A parameter bound to a "?" marker of the fixed text, in marker order. Bound values are
// never part of the text, so they may hold anything.
struct BoundValue {
  enum class Kind { kBinary, kText, kNumber };
  Kind kind = Kind::kText;
  std::string bytes;   // kBinary and kText
  int32_t number = 0;  // kNumber
};

class Statement {
 public:
  Statement() = default;
  // A statement that is fixed text only.
  explicit Statement(std::string_view fixed) { Sql(fixed); }

  // Appends fixed text, written by the program itself.
  Statement& Sql(std::string_view fixed);
  // Appends a value that stands between single quotes of the fixed text around it
  // ("... WHERE token_guid = '" + value + "'"). The statement is refused when the value
  // holds an apostrophe, and on MySQL/MariaDB also a backslash (which escapes a quote there).
  Statement& Value(std::string_view value);
  // Appends a number given as text (a count or index that arrived in a packet): converted to
  // a 32-bit integer (rounded half to even), then written in decimal. A text that
  // is no number, or one out of range, makes the statement refused.
  Statement& Number(std::string_view text);
  // Appends a number in decimal.
  Statement& Number(int64_t value);
  // Appends `other` (its text, its values and their checks, its bound values).
  Statement& Append(const Statement& other);
  // Binds the next "?" marker of the fixed text.
  Statement& BindBinary(std::string_view bytes);
  Statement& BindText(std::string_view text);
  Statement& BindNumber(int32_t value);

  // The statement text as it is logged and (after the dialect adaptation) executed.
  const std::string& text() const { return text_; }
  const std::vector<BoundValue>& bound() const { return bound_; }
  // Why the statement must not be sent to an engine of `dialect`, or nothing when it may.
  std::optional<std::string> Problem(Dialect dialect) const;

 private:
  std::string text_;
  std::vector<BoundValue> bound_;
  bool has_apostrophe_ = false;
  bool has_backslash_ = false;
  std::optional<std::string> number_problem_;
};

}  // namespace kalvo
