// A stand-in for the certificate library, built as a shared object for the tests. Field 0
// chooses what generate_SBS_Cert does:
//   "fail"      result 7, the pointer set to a text that is not the caller's to free
//   "null"      result 0 without a pointer
//   "short"     "CERT-SHORT" with length 4
//   "zero"      "CERT-ZERO" with length 0
//   "negative"  "CERT-NEGATIVE" with length -1
//   "beyond"    "AB", a terminator, "CD", with length 5 (past the terminator)
//   otherwise   "CERT:" and the seven fields joined with ",", with its exact length
// Built with KALVO_STAND_IN_WITHOUT_FREE it lacks free_SBS_Cert.
//
// Plain C-style code on purpose: nothing here may make the loader keep the object loaded
// after its last dlclose, so that a test can replace the file and load it again.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#define STAND_IN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

// The texts handed out and not yet freed.
constexpr int kMaxLive = 64;
char* live[kMaxLive];
int32_t frees = 0;
int32_t foreign_frees = 0;

char fail_text[] = "not yours";

char* HandOut(const char* bytes, size_t size) {
#ifdef KALVO_STAND_IN_WITHOUT_FREE
  // Nothing can give a text back to this library: it hands out texts it owns itself.
  static std::string owned[kMaxLive];
  static int next = 0;
  std::string& kept = owned[next++ % kMaxLive];
  kept.assign(bytes, size);
  return kept.data();
#endif
  char* text = static_cast<char*>(std::malloc(size + 1));
  std::memcpy(text, bytes, size);
  text[size] = '\0';
  for (char*& slot : live) {
    if (slot == nullptr) {
      slot = text;
      break;
    }
  }
  return text;
}

}  // namespace

STAND_IN_EXPORT int32_t generate_SBS_Cert(const char* f0, const char* f1, const char* f2,
                                          const char* f3, const char* f4, const char* f5,
                                          const char* f6, char** cert, int32_t* length) {
  const struct {
    const char* field0;
    const char* bytes;
    size_t size;
    int32_t length;
  } fixed[] = {
      {"short", "CERT-SHORT", 10, 4},
      {"zero", "CERT-ZERO", 9, 0},
      {"negative", "CERT-NEGATIVE", 13, -1},
      {"beyond", "AB\0CD", 5, 5},
  };
  if (std::strcmp(f0, "fail") == 0) {
    *cert = fail_text;
    *length = 9;
    return 7;
  }
  if (std::strcmp(f0, "null") == 0) return 0;
  for (const auto& f : fixed) {
    if (std::strcmp(f0, f.field0) == 0) {
      *cert = HandOut(f.bytes, f.size);
      *length = f.length;
      return 0;
    }
  }
  char text[1024] = "CERT:";
  const char* fields[] = {f0, f1, f2, f3, f4, f5, f6};
  for (int i = 0; i < 7; ++i) {
    if (i > 0) std::strncat(text, ",", sizeof text - std::strlen(text) - 1);
    std::strncat(text, fields[i], sizeof text - std::strlen(text) - 1);
  }
  *cert = HandOut(text, std::strlen(text));
  *length = static_cast<int32_t>(std::strlen(text));
  return 0;
}

#ifndef KALVO_STAND_IN_WITHOUT_FREE
STAND_IN_EXPORT void free_SBS_Cert(char* cert) {
  for (char*& slot : live) {
    if (slot != nullptr && slot == cert) {
      slot = nullptr;
      std::free(cert);
      ++frees;
      return;
    }
  }
  ++foreign_frees;
}
#endif

// How many texts this library handed out were freed through free_SBS_Cert.
STAND_IN_EXPORT int32_t stand_in_frees() { return frees; }
// How many calls of free_SBS_Cert passed anything else.
STAND_IN_EXPORT int32_t stand_in_foreign_frees() { return foreign_frees; }
// How many texts handed out are not freed yet.
STAND_IN_EXPORT int32_t stand_in_live() {
  int32_t n = 0;
  for (const char* slot : live) n += slot != nullptr ? 1 : 0;
  return n;
}
