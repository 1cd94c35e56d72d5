#include "infra/version.h"

#include "infra/version_info.h"

namespace kalvo {

std::string GetVersionText(std::string_view key) {
  if (key == "FileVersion") return version_info::kFileVersion;
  if (key == "LegalCopyright") return version_info::kLegalCopyright;
  if (key == "ProductName") return version_info::kProductName;
  return "";
}

}  // namespace kalvo
