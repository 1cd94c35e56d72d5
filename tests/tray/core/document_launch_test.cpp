// Opening the help document: the command-line rules of the association and the search for
// the desktop's default PDF application.
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <map>

#include "core/desktop_association.h"
#include "core/exec_line.h"

namespace kalvo::tray {
namespace {

namespace fs = std::filesystem;
using Args = std::vector<std::string>;

EnvironmentLookup FakeEnvironment(std::map<std::string, std::string> values) {
  return [values = std::move(values)](std::string_view name) -> std::optional<std::string> {
    const auto it = values.find(std::string(name));
    if (it == values.end()) return std::nullopt;
    return it->second;
  };
}

const EnvironmentLookup kEnv =
    FakeEnvironment({{"SystemRoot", "C:\\Windows"}, {"VIEWERS", "/opt/viewers"}, {"EMPTY", ""}});
// A blank in the path: the document must stay one argument.
const std::string kDoc = "/opt/zentara/my kdx/Kalvo.pdf";

TEST(BuildDocumentCommand, PutsTheDocumentInForTheFirstPlaceholder) {
  const struct {
    const char* command;
    Args expected;
    const char* why;
  } cases[] = {
      {"%SystemRoot%\\viewer.exe \"%1\"",
       {"C:\\Windows\\viewer.exe", kDoc},
       "expanded viewer path, the document in quotes"},
      {"viewer %1 %L", {"viewer", kDoc, "%L"}, "with %1 and %L only %1 is replaced"},
      {"viewer %l --lang=%1", {"viewer", "%l", "--lang=" + kDoc}, "%1 comes first in the list"},
      {"viewer %l %L", {"viewer", kDoc, kDoc}, "%L finds %l: case does not matter"},
      {"evince %U", {"evince", kDoc}, "a desktop entry's URL list"},
      {"okular %f %i %c %k", {"okular", kDoc}, "other field codes go"},
      {"viewer %* %1", {"viewer", kDoc}, "%* is removed"},
      {"%VIEWERS%/v %ZZZ% 100%", {"/opt/viewers/v", "%ZZZ%", "100%"}, "unset variables stay"},
      {"viewer --page=%% %f", {"viewer", "--page=%", kDoc}, "%% is a percent sign"},
      {"\"/opt/My Viewer/bin/view\" --title \"a \\\"b\\\" \\\\c\" %f",
       {"/opt/My Viewer/bin/view", "--title", "a \"b\" \\c", kDoc},
       "quoting and escapes inside quotes"},
      {"viewer\\s--single %f", {"viewer", "--single", kDoc}, "string escape \\s is a blank"},
      {"viewer", {"viewer"}, "no placeholder: started without the document"},
      {"  viewer   %f  ", {"viewer", kDoc}, "surplus blanks"},
  };
  for (const auto& c : cases) {
    const std::optional<Args> args = BuildDocumentCommand(c.command, kDoc, kEnv);
    ASSERT_TRUE(args.has_value()) << c.why;
    EXPECT_EQ(*args, c.expected) << c.why;
  }
}

TEST(BuildDocumentCommand, UnusableLinesGiveNothing) {
  const struct {
    const char *command, *why;
  } cases[] = {
      {"\"viewer %f", "unterminated quote"},
      {"", "empty"},
      {"%i %*", "only removed codes"},
  };
  for (const auto& c : cases) {
    EXPECT_FALSE(BuildDocumentCommand(c.command, kDoc, kEnv).has_value()) << c.why;
  }
}

// XDG directories in a temporary tree.
class DefaultApplicationTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kalvotray_xdg_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    root_ = pattern;
    dirs_.config_home = root_ / "config";
    dirs_.config_dirs = {(root_ / "etc-xdg").string()};
    dirs_.data_home = root_ / "data";
    dirs_.data_dirs = {(root_ / "share").string()};
    dirs_.desktops = {"xfce"};
    document_ = root_ / "Kalvo.pdf";
  }
  void TearDown() override { fs::remove_all(root_); }

  void Write(const fs::path& path, const std::string& text) {
    fs::create_directories(path.parent_path());
    std::ofstream(path, std::ios::binary) << text;
  }
  // An installed application under the system data directory.
  void Install(const std::string& relative, const std::string& exec,
               const std::string& extra = "") {
    Write(root_ / "share/applications" / relative,
          "[Desktop Entry]\nType=Application\nName=Viewer\nExec=" + exec + "\n" + extra);
  }
  std::string DefaultExec() {
    const std::optional<DesktopApplication> app = FindDefaultApplication(dirs_, "application/pdf");
    return app ? app->exec : "(none)";
  }

  fs::path root_;
  fs::path document_;
  XdgDirs dirs_;
};

TEST_F(DefaultApplicationTest, DefaultsAreReadInTheirOrderOfPrecedence) {
  Install("evince.desktop", "evince %U");
  Install("okular.desktop", "okular %f");
  Install("vendor/xpdf.desktop", "xpdf %f");
  Write(root_ / "share/applications/mimeapps.list",
        "[Default Applications]\napplication/pdf=evince.desktop\n");
  EXPECT_EQ(DefaultExec(), "evince %U") << "the system default";

  Write(root_ / "config/mimeapps.list",
        "[Default Applications]\napplication/pdf=missing.desktop;vendor-xpdf.desktop;\n");
  EXPECT_EQ(DefaultExec(), "xpdf %f")
      << "the user's default wins; an uninstalled one is passed over; '-' names a subfolder";

  Write(root_ / "config/xfce-mimeapps.list",
        "[Default Applications]\napplication/pdf=okular.desktop\n");
  EXPECT_EQ(DefaultExec(), "okular %f") << "the desktop's own list comes first";
}

TEST_F(DefaultApplicationTest, WithoutDefaultTheAssociationsAndTheCacheAreUsed) {
  Install("hidden.desktop", "hidden %f", "Hidden=true\n");
  Install("removed.desktop", "removed %f");
  Install("cached.desktop", "cached %f");
  Write(root_ / "share/applications/mimeinfo.cache",
        "[MIME Cache]\napplication/pdf=hidden.desktop;removed.desktop;cached.desktop;\n");
  Write(root_ / "config/mimeapps.list",
        "[Removed Associations]\napplication/pdf=removed.desktop;\n");
  EXPECT_EQ(DefaultExec(), "cached %f") << "hidden and removed entries are skipped";
}

TEST_F(DefaultApplicationTest, PrepareOpenDocumentSaysWhatIsMissing) {
  EXPECT_EQ(PrepareOpenDocument(document_.string(), dirs_, kEnv).result,
            DocumentLaunchResult::kNoDocument);
  Write(document_, "%PDF-1.4\n");
  EXPECT_EQ(PrepareOpenDocument(document_.string(), dirs_, kEnv).result,
            DocumentLaunchResult::kNoApplication);

  Install("broken.desktop", "\"broken %f");
  Write(root_ / "config/mimeapps.list", "[Default Applications]\napplication/pdf=broken.desktop\n");
  EXPECT_EQ(PrepareOpenDocument(document_.string(), dirs_, kEnv).result,
            DocumentLaunchResult::kUnusableCommand);

  Install("view.desktop", "%VIEWERS%/view --fit %u");
  Write(root_ / "config/mimeapps.list", "[Default Applications]\napplication/pdf=view.desktop\n");
  const DocumentLaunch launch = PrepareOpenDocument(document_.string(), dirs_, kEnv);
  EXPECT_EQ(launch.result, DocumentLaunchResult::kReady);
  EXPECT_EQ(launch.args, (Args{"/opt/viewers/view", "--fit", document_.string()}));
  EXPECT_EQ(launch.application, (root_ / "share/applications/view.desktop").string());
}

}  // namespace
}  // namespace kalvo::tray
