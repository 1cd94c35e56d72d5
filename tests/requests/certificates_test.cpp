#include "requests/certificates.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>

#include "../net/log_capture.h"
#include "infra/runtime_error.h"
#include "infra/text_encoding.h"

namespace kalvo {
namespace {

namespace fs = std::filesystem;
using Lines = std::vector<std::string>;

// Request data of the given fields, separated by NUL characters.
std::string Request(const std::vector<std::string>& fields) {
  std::string data;
  for (size_t i = 0; i < fields.size(); ++i) {
    if (i > 0) data += '\0';
    data += fields[i];
  }
  return data;
}

std::string Request(const std::string& field0) {
  return Request({field0, "f1", "f2", "f3", "f4", "f5", "f6"});
}

// The counters the stand-in at `path` keeps (the same object the code under test loads).
class StandIn {
 public:
  explicit StandIn(const std::string& path) {
    std::string error;
    library_ = SharedLibrary::Open(path, error);
    EXPECT_TRUE(library_) << error;
    frees_ = library_.Function<int32_t()>("stand_in_frees", error);
    foreign_frees_ = library_.Function<int32_t()>("stand_in_foreign_frees", error);
    live_ = library_.Function<int32_t()>("stand_in_live", error);
    EXPECT_TRUE(frees_ && foreign_frees_ && live_) << error;
  }
  int32_t frees() const { return frees_(); }
  int32_t foreign_frees() const { return foreign_frees_(); }
  int32_t live() const { return live_(); }

 private:
  SharedLibrary library_;
  int32_t (*frees_)() = nullptr;
  int32_t (*foreign_frees_)() = nullptr;
  int32_t (*live_)() = nullptr;
};

class CertificateTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(capture_.Works()); }

  testing::LogCapture capture_;
  CertificateLibrary library_{KALVO_STAND_IN_CERT_LIB};
  StandIn stand_in_{KALVO_STAND_IN_CERT_LIB};
};

TEST_F(CertificateTest, DataWithoutExactlySevenFieldsIsRejectedBeforeTheLibraryIsLoaded) {
  const struct {
    std::string data;
    const char* why;
  } cases[] = {
      {"", "no data at all"},
      {"f0", "one field, no separator"},
      {Request({"f0", "f1", "f2", "f3", "f4", "f5"}), "a field short"},
      {Request({"f0", "f1", "f2", "f3", "f4", "f5", "f6", "f7"}), "a field too many"},
      {Request("f0") + '\0', "a trailing separator makes an eighth, empty field"},
  };
  for (const auto& c : cases) {
    testing::LogCapture capture;
    CertificateLibrary missing("/nonexistent/libcertificate.so");
    std::string certificate = "before";
    EXPECT_FALSE(CreateCertificate(missing, capture.log(), c.data, certificate)) << c.why;
    EXPECT_EQ(certificate, "before") << c.why;
    EXPECT_EQ(capture.Lines(), Lines{"CertificateData not valid"}) << c.why;
  }
}

TEST_F(CertificateTest, SuccessLogsEveryStepAndHandsTheTextBackOnce) {
  std::string certificate;
  ASSERT_TRUE(CreateCertificate(library_, capture_.log(), Request("f0"), certificate));
  EXPECT_EQ(certificate, "CERT:f0,f1,f2,f3,f4,f5,f6");
  EXPECT_EQ(capture_.Lines(),
            (Lines{
                "CertificateData valid -> Creating certificate",
                "Creating certificate returned localResult (0): pointer set, length 25",
                "localResult = 0 -> getting CertificateString",
                "PointerToCertificateString is valid",
                "Certificate String 1 is: CERT:f0,f1,f2,f3,f4,f5,f6",
                "Certificate String 2 is: CERT:f0,f1,f2,f3,f4,f5,f6",
                "Freeing CertificatePointer done -> returning true",
            }));
  // Every text handed out went back through free_SBS_Cert, and nothing else did.
  ASSERT_TRUE(CreateCertificate(library_, capture_.log(), Request("again"), certificate));
  EXPECT_EQ(stand_in_.live(), 0);
  EXPECT_EQ(stand_in_.foreign_frees(), 0);
}

TEST_F(CertificateTest, ReportedLengthCutsTheTextOnlyWhenPositiveAndShorter) {
  const struct {
    const char* field0;
    const char* expected;
    const char* why;
  } cases[] = {
      {"short", "CERT", "length 4 of a 10-character text"},
      {"zero", "CERT-ZERO", "length 0 keeps the whole text"},
      {"negative", "CERT-NEGATIVE", "a negative length keeps the whole text"},
      {"beyond", "AB", "a length past the terminator reads nothing beyond it"},
  };
  for (const auto& c : cases) {
    const int32_t frees = stand_in_.frees();
    std::string certificate;
    ASSERT_TRUE(CreateCertificate(library_, capture_.log(), Request(c.field0), certificate))
        << c.why;
    EXPECT_EQ(certificate, c.expected) << c.why;
    EXPECT_EQ(capture_.Count(std::string("Certificate String 2 is: ") + c.expected), 1) << c.why;
    EXPECT_EQ(stand_in_.frees(), frees + 1) << c.why;
  }
  EXPECT_EQ(stand_in_.live(), 0);
}

TEST_F(CertificateTest, FailedResultOrMissingTextGivesFalseAndFreesNothing) {
  const struct {
    const char* field0;
    Lines lines;
  } cases[] = {
      {"fail",
       {"CertificateData valid -> Creating certificate",
        "Creating certificate returned localResult (7): pointer set, length 9",
        "localResult != 0 -> returning false"}},
      {"null",
       {"CertificateData valid -> Creating certificate",
        "Creating certificate returned localResult (0): pointer null, length 0",
        "localResult = 0 -> getting CertificateString",
        "PointerToCertificateString is not valid -> returning false"}},
  };
  for (const auto& c : cases) {
    testing::LogCapture capture;
    const int32_t frees = stand_in_.frees();
    std::string certificate = "before";
    EXPECT_FALSE(CreateCertificate(library_, capture.log(), Request(c.field0), certificate))
        << c.field0;
    EXPECT_EQ(certificate, "before") << c.field0;
    EXPECT_EQ(capture.Lines(), c.lines) << c.field0;
    EXPECT_EQ(stand_in_.frees(), frees) << c.field0;
  }
  EXPECT_EQ(stand_in_.foreign_frees(), 0);
}

TEST(CertificateRecord, StoresFieldsSixAndZeroToFourThenTimestampPeerAndCertificate) {
  const std::string data = Request({"f0", "f1", "f2", "f3", "f4", "f5", "f6"});
  EXPECT_EQ(
      CertificateRecord(data, "2024-02-29-13-05-09", "10.0.0.7", "CERT"),
      Request({"f6", "f0", "f1", "f2", "f3", "f4", "2024-02-29-13-05-09", "10.0.0.7", "CERT"}));
}

// A directory of its own as the working directory, restored and removed at the end.
class LibraryDirectory : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (fs::temp_directory_path() / "kalvo-cert-XXXXXX").string();
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    previous_ = fs::current_path();
    fs::current_path(dir_);
  }
  void TearDown() override {
    fs::current_path(previous_);
    fs::remove_all(dir_);
  }

  // Puts a copy of `original` at `name` (UTF-8) in the directory, replacing what was there
  // by a new file, as an installation would.
  void Install(const char* original, const fs::path& name) {
    fs::remove(dir_ / name);
    fs::copy_file(original, dir_ / name);
  }

  // Runs one creation and gives the number of the RuntimeError it raised (0 for none).
  int32_t ErrorOf(CertificateLibrary& library, std::string* description = nullptr) {
    std::string certificate;
    try {
      EXPECT_TRUE(CreateCertificate(library, capture_.log(), Request("f0"), certificate));
      EXPECT_EQ(certificate, "CERT:f0,f1,f2,f3,f4,f5,f6");
      return 0;
    } catch (const RuntimeError& e) {
      if (description != nullptr) *description = e.what();
      return e.number();
    }
  }

  testing::LogCapture capture_;
  fs::path dir_;
  fs::path previous_;
};

TEST_F(LibraryDirectory, MissingLibraryRaisesLoadErrorAndIsLoadedOnceInstalled) {
  CertificateLibrary library("../" + dir_.filename().string() + "/libcert.so");
  std::string description;
  EXPECT_EQ(ErrorOf(library, &description), kErrDllLoad);
  EXPECT_THAT(description, ::testing::HasSubstr("libcert.so"));
  EXPECT_EQ(capture_.Lines(), Lines{"CertificateData valid -> Creating certificate"});

  Install(KALVO_STAND_IN_CERT_LIB, "libcert.so");
  EXPECT_EQ(ErrorOf(library), 0);
}

TEST_F(LibraryDirectory, ALibraryWithoutFreeGeneratesAndFailsOnlyWhenTheTextGoesBack) {
  Install(KALVO_STAND_IN_CERT_LIB_WITHOUT_FREE, "libcert.so");
  CertificateLibrary library("./libcert.so");
  // Results that need nothing handed back are answered as usual.
  for (const char* field0 : {"fail", "null"}) {
    std::string certificate;
    EXPECT_FALSE(CreateCertificate(library, capture_.log(), Request(field0), certificate))
        << field0;
  }
  // A certificate is made; handing its text back is where the missing entry point shows.
  std::string description;
  EXPECT_EQ(ErrorOf(library, &description), kErrDllEntryPoint);
  EXPECT_THAT(description, ::testing::HasSubstr("free_SBS_Cert"));
  EXPECT_THAT(capture_.Lines(),
              ::testing::Contains("Certificate String 2 is: CERT:f0,f1,f2,f3,f4,f5,f6"));
  EXPECT_THAT(
      capture_.Lines(),
      ::testing::Not(::testing::Contains("Freeing CertificatePointer done -> returning true")));
}

TEST_F(LibraryDirectory, PathNamesAFileInTheWorkingDirectoryEvenWithoutSlash) {
  Install(KALVO_STAND_IN_CERT_LIB, "libcert.so");
  Install(KALVO_STAND_IN_CERT_LIB, Cp1252ToUtf8("zertifikat-\xE4.so"));
  const struct {
    std::string path;  // as the settings hold it: Windows-1252
    int32_t error;
    const char* why;
  } cases[] = {
      {"libcert.so", 0, "a bare name is not searched in the system's library directories"},
      {"zertifikat-\xE4.so", 0, "the setting's Windows-1252 name is the file's UTF-8 name"},
      {"", kErrDllLoad, "an empty setting does not open the program itself"},
  };
  for (const auto& c : cases) {
    CertificateLibrary library(c.path);
    EXPECT_EQ(ErrorOf(library), c.error) << c.why;
  }
}

}  // namespace
}  // namespace kalvo
