// The certificate library (a shared object loaded on first use), the creation of a token's
// certificate through it from the fields of a request, and the record stored with the token.
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

#include "infra/log.h"
#include "infra/shared_library.h"

namespace kalvo {

// Run-time error numbers of a certificate library that cannot be used.
inline constexpr int32_t kErrDllLoad = 48;         // "Error in loading DLL"
inline constexpr int32_t kErrDllEntryPoint = 453;  // "Can't find DLL entry point"

// The certificate library and its two entry points (C linkage):
//   int32_t generate_SBS_Cert(const char* x 7, char** cert, int32_t* length)
//   void free_SBS_Cert(char* cert)
// Nothing is loaded until the first Generate. Once loaded, the library stays loaded until
// this object is destroyed; a load that failed is tried again by the next Generate, so that
// a library installed while the server runs is found without a restart. Not thread-safe:
// only 601 uses it, which runs alone (see RequestScheduler).
class CertificateLibrary {
 public:
  static constexpr int kFieldCount = 7;
  // The seven zero-terminated fields, in the order the entry point takes them.
  using Fields = std::array<const char*, kFieldCount>;

  // `path` is the setting `CertificateLibrary` (under "KDX") as the settings hold it
  // (Windows-1252 text): a file, relative to the working directory unless it starts with
  // "/", also when it has no "/" at all.
  explicit CertificateLibrary(std::string path) : path_(std::move(path)) {}

  // Loads the library unless it is loaded, then calls generate_SBS_Cert with `fields`,
  // `certificate` and `length` and gives its result (0 for success). Throws RuntimeError
  // kErrDllLoad when the library cannot be loaded and kErrDllEntryPoint when
  // generate_SBS_Cert is missing (the description names the path or entry point and the
  // loader's reason); the library is then left unloaded. free_SBS_Cert is not looked for here.
  int32_t Generate(const Fields& fields, char** certificate, int32_t* length);

  // Hands `certificate`, as set by a Generate that did not throw, back to free_SBS_Cert,
  // looking the entry point up on its first use. Throws RuntimeError kErrDllEntryPoint when
  // the loaded library lacks it (the text then stays with the library).
  void Free(char* certificate);

 private:
  using GenerateFunction = int32_t(const char*, const char*, const char*, const char*, const char*,
                                   const char*, const char*, char**, int32_t*);
  using FreeFunction = void(char*);

  // Loads the library and resolves generate_SBS_Cert, or throws and changes nothing.
  void Load();

  std::string path_;
  SharedLibrary library_;
  // Set together with library_, or null.
  GenerateFunction* generate_ = nullptr;
  // Null until the first Free of the loaded library.
  FreeFunction* free_ = nullptr;
};

// Creates the certificate for a request whose data are seven fields separated by NUL
// characters, logging each step. Gives false, leaving `certificate` unchanged, when the data
// do not hold exactly seven fields (the library is then not even loaded), when the library
// reports a result other than 0 (nothing is freed then), or when it reports 0 without a
// certificate. Otherwise sets `certificate` to the library's text, cut to the length the
// library reported when that is above 0 and shorter than the text, hands the library's
// text back to it and gives true.
// A library that cannot be loaded, or lacks generate_SBS_Cert, escapes as the RuntimeError of
// CertificateLibrary::Generate; one that lacks free_SBS_Cert escapes as the RuntimeError of
// CertificateLibrary::Free once a certificate was made, after "Certificate String 2 is: ".
// The request handler's error trap logs it and no reply is sent. Nothing is kept after the
// call.
bool CreateCertificate(CertificateLibrary& library, Log& log, std::string_view request_data,
                       std::string& certificate);

// The record stored with the token for a request whose certificate was created: the request
// fields 6, 0, 1, 2, 3 and 4 (field 5 is not stored), `timestamp` ("yyyy-mm-dd-hh-mm-ss"),
// `peer_address` and `certificate`, joined with NUL characters. `request_data` must hold the
// seven fields CreateCertificate accepted; with fewer, std::out_of_range is thrown.
std::string CertificateRecord(std::string_view request_data, std::string_view timestamp,
                              std::string_view peer_address, std::string_view certificate);

}  // namespace kalvo
