#include "security/cfb8.h"

#include <new>
#include <stdexcept>

#include "infra/log.h"
#include "infra/runtime_error.h"

namespace kalvo {
namespace {

// Shared by both directions: `encrypt` decides whether the input or the output byte is the
// cipher byte, and `feedback` which of the two enters the register.
std::string RunPass(std::string_view input, std::string_view subkey, clsDES& des, bool encrypt,
                    CfbFeedback feedback) {
  std::string out;
  out.reserve(input.size());
  std::string reg(8, '\0');
  for (const char c : input) {
    const char k = des.EncryptString(reg, subkey).back();
    const char o = static_cast<char>(k ^ c);
    out.push_back(o);
    const char cipher = encrypt ? o : c;
    const char plain = encrypt ? c : o;
    reg.erase(0, 1);
    reg.push_back(feedback == CfbFeedback::kCipher ? cipher : plain);
  }
  return out;
}

void LogPassError(Log* log, std::string_view procedure) {
  if (log == nullptr) return;
  const ErrorInfo error = CurrentErrorInfo();
  try {
    log->WriteLog("Error in " + std::string(procedure) + " (" + std::to_string(error.number) +
                  " - " + error.description + ")");
  } catch (...) {
    // Losing the line is all that can happen here.
  }
}

}  // namespace

std::string DESEncrypt(std::string_view input, std::string_view subkey, clsDES& des, Log* log,
                       CfbFeedback feedback) {
  try {
    return RunPass(input, subkey, des, true, feedback);
  } catch (...) {
    LogPassError(log, "DESEncrypt");
    return "";
  }
}

std::string DESDecrypt(std::string_view input, std::string_view subkey, clsDES& des, Log* log,
                       CfbFeedback feedback) {
  try {
    return RunPass(input, subkey, des, false, feedback);
  } catch (...) {
    LogPassError(log, "DESDecrypt");
    return "";
  }
}

}  // namespace kalvo
