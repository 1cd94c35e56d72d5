// kalvosrv: the token server.
#include <cstdio>
#include <cstring>

#include "infra/text_encoding.h"
#include "infra/version.h"

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    if (std::strcmp(argv[i], "--version") == 0) {
      std::printf("kalvosrv %s\n%s\n", kalvo::GetVersionText("FileVersion").c_str(),
                  kalvo::Cp1252ToUtf8(kalvo::GetVersionText("LegalCopyright")).c_str());
      return 0;
    }
  }
  std::fprintf(stderr, "usage: kalvosrv --version\n");
  return 2;
}
