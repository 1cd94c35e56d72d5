// The one error type that carries a run-time error number and description to the handler
// that logs it, and the helper every event handler uses to log whatever it caught.
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace kalvo {

class Log;

// Run-time error numbers that our code raises on purpose.
inline constexpr int32_t kErrInvalidCall = 5;
inline constexpr int32_t kErrOverflow = 6;
inline constexpr int32_t kErrOutOfMemory = 7;
inline constexpr int32_t kErrSubscript = 9;
inline constexpr int32_t kErrDivisionByZero = 11;
inline constexpr int32_t kErrTypeMismatch = 13;

// A numbered run-time error. `what()` is the description.
class RuntimeError : public std::runtime_error {
 public:
  RuntimeError(int32_t number, const std::string& description)
      : std::runtime_error(description), number_(number) {}
  int32_t number() const { return number_; }

 private:
  int32_t number_;
};

// The run-time error number and description of an exception.
struct ErrorInfo {
  int32_t number = kErrInvalidCall;
  std::string description;
};

// Must be called inside a catch block: the number that fits the exception being handled (a
// RuntimeError's own, 7 for bad_alloc, 9 for out_of_range, 5 for any other exception) and
// its description. Never throws.
ErrorInfo CurrentErrorInfo();

// Must be called inside a catch block: logs the exception being handled (CurrentErrorInfo)
// through `log.LogError` with the procedure name. Never throws.
void LogCurrentException(Log& log, std::string_view procedure, std::string_view extra = "");

}  // namespace kalvo
