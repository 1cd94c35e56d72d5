#include "infra/runtime_error.h"

#include <new>

#include "infra/log.h"

namespace kalvo {

ErrorInfo CurrentErrorInfo() {
  try {
    try {
      throw;
    } catch (const RuntimeError& e) {
      return {e.number(), e.what()};
    } catch (const std::bad_alloc&) {
      return {kErrOutOfMemory, "Out of memory"};
    } catch (const std::out_of_range& e) {
      return {kErrSubscript, e.what()};
    } catch (const std::exception& e) {
      return {kErrInvalidCall, e.what()};
    } catch (...) {
      return {kErrInvalidCall, "Unknown error"};
    }
  } catch (...) {
    // Copying the description ran out of memory.
    return {kErrOutOfMemory, {}};
  }
}

void LogCurrentException(Log& log, std::string_view procedure, std::string_view extra) {
  const ErrorInfo error = CurrentErrorInfo();
  log.LogError(error.number, error.description, procedure, extra);
}

}  // namespace kalvo
