#include "requests/certificates.h"

#include <memory>
#include <utility>
#include <vector>

#include "infra/arrays.h"
#include "infra/runtime_error.h"
#include "infra/text_encoding.h"

namespace kalvo {
namespace {

const std::string_view kFieldSeparator("\0", 1);

// Hands a text the library allocated back to it while an error is on its way out; a library
// that cannot take it back then changes nothing about the error being reported.
struct LibraryFree {
  CertificateLibrary* library;
  void operator()(char* text) const noexcept {
    try {
      library->Free(text);
    } catch (...) {
    }
  }
};

}  // namespace

int32_t CertificateLibrary::Generate(const Fields& fields, char** certificate, int32_t* length) {
  if (generate_ == nullptr) Load();
  return generate_(fields[0], fields[1], fields[2], fields[3], fields[4], fields[5], fields[6],
                   certificate, length);
}

void CertificateLibrary::Free(char* certificate) {
  if (free_ == nullptr) {
    std::string error;
    free_ = library_.Function<FreeFunction>("free_SBS_Cert", error);
    if (free_ == nullptr) {
      throw RuntimeError(kErrDllEntryPoint, "Can't find DLL entry point in " + path_ + " (" +
                                                Utf8ToCp1252(error) + ")");
    }
  }
  free_(certificate);
}

void CertificateLibrary::Load() {
  // The file system holds UTF-8 names. A name without "/" would make dlopen search the
  // system's library directories, and an empty one would give the program itself, while the
  // setting names a file relative to the working directory.
  std::string file = Cp1252ToUtf8(path_);
  if (file.find('/') == std::string::npos) file = "./" + file;

  std::string error;
  SharedLibrary library = SharedLibrary::Open(file, error);
  if (!library) {
    throw RuntimeError(kErrDllLoad,
                       "Error in loading DLL " + path_ + " (" + Utf8ToCp1252(error) + ")");
  }
  // free_SBS_Cert is looked up when a text goes back (Free), so a library without it still
  // generates.
  auto* generate = library.Function<GenerateFunction>("generate_SBS_Cert", error);
  if (generate == nullptr) {
    // `library` closes again: the next use loads afresh, perhaps a corrected file.
    throw RuntimeError(kErrDllEntryPoint,
                       "Can't find DLL entry point in " + path_ + " (" + Utf8ToCp1252(error) + ")");
  }
  library_ = std::move(library);
  generate_ = generate;
  free_ = nullptr;
}

bool CreateCertificate(CertificateLibrary& library, Log& log, std::string_view request_data,
                       std::string& certificate) {
  const std::vector<std::string> fields = Split(request_data, kFieldSeparator);
  if (ArrayCount(fields) != CertificateLibrary::kFieldCount) {
    log.WriteLog("CertificateData not valid");
    return false;
  }
  log.WriteLog("CertificateData valid -> Creating certificate");

  CertificateLibrary::Fields texts;
  for (size_t i = 0; i < texts.size(); ++i) texts[i] = fields[i].c_str();
  char* pointer = nullptr;
  int32_t length = 0;
  const int32_t result = library.Generate(texts, &pointer, &length);
  // From here a successful result's text belongs to us, and goes back to the library even
  // when building a log line below runs out of memory. A failed result's pointer is not
  // the library's to take back.
  std::unique_ptr<char, LibraryFree> owned(result == 0 ? pointer : nullptr, LibraryFree{&library});
  log.WriteLog("Creating certificate returned localResult (" + std::to_string(result) +
               "): " + (pointer != nullptr ? "pointer set" : "pointer null") + ", length " +
               std::to_string(length));
  if (result != 0) {
    log.WriteLog("localResult != 0 -> returning false");
    return false;
  }

  log.WriteLog("localResult = 0 -> getting CertificateString");
  if (pointer == nullptr) {
    log.WriteLog("PointerToCertificateString is not valid -> returning false");
    return false;
  }
  log.WriteLog("PointerToCertificateString is valid");
  std::string text(pointer);
  log.WriteLog("Certificate String 1 is: " + text);
  // The length only ever shortens the text up to its terminator; 0 or less keeps it whole.
  if (length > 0 && static_cast<size_t>(length) < text.size()) text.resize(length);
  log.WriteLog("Certificate String 2 is: " + text);

  library.Free(owned.release());
  log.WriteLog("Freeing CertificatePointer done -> returning true");
  certificate = std::move(text);
  return true;
}

std::string CertificateRecord(std::string_view request_data, std::string_view timestamp,
                              std::string_view peer_address, std::string_view certificate) {
  const std::vector<std::string> fields = Split(request_data, kFieldSeparator);
  std::string record;
  for (int i : {6, 0, 1, 2, 3, 4}) {
    record += fields.at(i);
    record += kFieldSeparator;
  }
  for (std::string_view part : {timestamp, peer_address}) {
    record += part;
    record += kFieldSeparator;
  }
  record += certificate;
  return record;
}

}  // namespace kalvo
