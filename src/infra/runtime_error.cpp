#include "infra/runtime_error.h"

#include <new>

#include "infra/log.h"

namespace kalvo {

void LogCurrentException(Log& log, std::string_view procedure, std::string_view extra) {
  try {
    throw;
  } catch (const RuntimeError& e) {
    log.LogError(e.number(), e.what(), procedure, extra);
  } catch (const std::bad_alloc&) {
    log.LogError(kErrOutOfMemory, "Out of memory", procedure, extra);
  } catch (const std::out_of_range& e) {
    log.LogError(kErrSubscript, e.what(), procedure, extra);
  } catch (const std::exception& e) {
    log.LogError(kErrInvalidCall, e.what(), procedure, extra);
  } catch (...) {
    log.LogError(kErrInvalidCall, "Unknown error", procedure, extra);
  }
}

}  // namespace kalvo
