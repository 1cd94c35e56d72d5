#include "db/statement.h"

#include "infra/numbers.h"

namespace kalvo {

Statement& Statement::Sql(std::string_view fixed) {
  text_ += fixed;
  return *this;
}

Statement& Statement::Value(std::string_view value) {
  if (value.find('\'') != std::string_view::npos) has_apostrophe_ = true;
  if (value.find('\\') != std::string_view::npos) has_backslash_ = true;
  text_ += value;
  return *this;
}

Statement& Statement::Number(std::string_view text) {
  try {
    text_ += std::to_string(NumericTextToInt32(text));
  } catch (...) {
    // The text stands in the logged statement as it came, so the log shows what was refused.
    text_ += text;
    if (!number_problem_) number_problem_ = "value is not a number: \"" + std::string(text) + "\"";
  }
  return *this;
}

Statement& Statement::Number(int64_t value) {
  text_ += std::to_string(value);
  return *this;
}

Statement& Statement::Append(const Statement& other) {
  text_ += other.text_;
  bound_.insert(bound_.end(), other.bound_.begin(), other.bound_.end());
  has_apostrophe_ = has_apostrophe_ || other.has_apostrophe_;
  has_backslash_ = has_backslash_ || other.has_backslash_;
  if (!number_problem_) number_problem_ = other.number_problem_;
  return *this;
}

Statement& Statement::BindBinary(std::string_view bytes) {
  bound_.push_back({BoundValue::Kind::kBinary, std::string(bytes), 0});
  return *this;
}

Statement& Statement::BindText(std::string_view text) {
  bound_.push_back({BoundValue::Kind::kText, std::string(text), 0});
  return *this;
}

Statement& Statement::BindNumber(int32_t value) {
  bound_.push_back({BoundValue::Kind::kNumber, std::string(), value});
  return *this;
}

std::optional<std::string> Statement::Problem(Dialect dialect) const {
  if (has_apostrophe_) return "value holds a quote character";
  if (has_backslash_ && dialect == Dialect::kMySql) {
    return "value holds a backslash, which escapes a quote on this database";
  }
  return number_problem_;
}

}  // namespace kalvo
