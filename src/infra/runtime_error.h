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

// Must be called inside a catch block: logs the exception being handled through
// `log.LogError` with a number that fits it (a RuntimeError's own, 7 for bad_alloc,
// 9 for out_of_range, 5 for any other exception) and the procedure name. Never throws.
void LogCurrentException(Log& log, std::string_view procedure, std::string_view extra = "");

}  // namespace kalvo
