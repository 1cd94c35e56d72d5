#include "core/desktop_association.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <sstream>

namespace kalvo::tray {
namespace {

namespace fs = std::filesystem;

// Section -> key -> value of a desktop-entry style file (first definition of a key wins).
using KeyFile = std::map<std::string, std::map<std::string, std::string>>;

std::string Trim(std::string_view text) {
  const size_t begin = text.find_first_not_of(" \t\r");
  if (begin == std::string_view::npos) return {};
  const size_t end = text.find_last_not_of(" \t\r");
  return std::string(text.substr(begin, end - begin + 1));
}

std::optional<KeyFile> ReadKeyFile(const fs::path& path) {
  std::error_code ec;
  if (!fs::is_regular_file(path, ec)) return std::nullopt;
  std::ifstream in(path, std::ios::binary);
  if (!in) return std::nullopt;
  KeyFile file;
  std::string section, line;
  while (std::getline(in, line)) {
    const std::string text = Trim(line);
    if (text.empty() || text[0] == '#') continue;
    if (text.front() == '[' && text.back() == ']') {
      section = text.substr(1, text.size() - 2);
      continue;
    }
    const size_t eq = text.find('=');
    if (eq == std::string::npos || section.empty()) continue;
    file[section].try_emplace(Trim(text.substr(0, eq)), Trim(text.substr(eq + 1)));
  }
  return file;
}

std::vector<std::string> SplitList(std::string_view text, char separator) {
  std::vector<std::string> items;
  std::string item;
  std::stringstream stream{std::string(text)};
  while (std::getline(stream, item, separator)) {
    if (std::string trimmed = Trim(item); !trimmed.empty()) items.push_back(std::move(trimmed));
  }
  return items;
}

std::vector<std::string> ListValue(const KeyFile& file, const std::string& section,
                                   std::string_view key) {
  const auto s = file.find(section);
  if (s == file.end()) return {};
  const auto k = s->second.find(std::string(key));
  return k == s->second.end() ? std::vector<std::string>{} : SplitList(k->second, ';');
}

// The mimeapps.list files in their order of precedence.
std::vector<fs::path> MimeAppsLists(const XdgDirs& dirs) {
  std::vector<fs::path> lists;
  auto add_dir = [&](const fs::path& dir) {
    for (const std::string& desktop : dirs.desktops)
      lists.push_back(dir / (desktop + "-mimeapps.list"));
    lists.push_back(dir / "mimeapps.list");
  };
  add_dir(dirs.config_home);
  for (const std::string& dir : dirs.config_dirs) add_dir(dir);
  add_dir(fs::path(dirs.data_home) / "applications");
  for (const std::string& dir : dirs.data_dirs) add_dir(fs::path(dir) / "applications");
  return lists;
}

std::vector<fs::path> ApplicationDirs(const XdgDirs& dirs) {
  std::vector<fs::path> out{fs::path(dirs.data_home) / "applications"};
  for (const std::string& dir : dirs.data_dirs) out.push_back(fs::path(dir) / "applications");
  return out;
}

// The desktop file of `id` in the first applications directory that has one: the id is the
// path below that directory with "/" written as "-".
std::optional<fs::path> FindDesktopFile(const XdgDirs& dirs, const std::string& id) {
  for (const fs::path& dir : ApplicationDirs(dirs)) {
    std::error_code ec;
    if (fs::is_regular_file(dir / id, ec)) return dir / id;
    if (!fs::is_directory(dir, ec)) continue;
    for (auto it = fs::recursive_directory_iterator(dir, ec);
         !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
      if (!it->is_regular_file(ec)) continue;
      std::string relative = fs::relative(it->path(), dir, ec).string();
      std::replace(relative.begin(), relative.end(), '/', '-');
      if (relative == id) return it->path();
    }
  }
  return std::nullopt;
}

std::optional<DesktopApplication> LoadApplication(const XdgDirs& dirs, const std::string& id) {
  const std::optional<fs::path> path = FindDesktopFile(dirs, id);
  if (!path) return std::nullopt;
  const std::optional<KeyFile> file = ReadKeyFile(*path);
  if (!file) return std::nullopt;
  const auto entry = file->find("Desktop Entry");
  if (entry == file->end()) return std::nullopt;
  auto value = [&](const char* key) {
    const auto it = entry->second.find(key);
    return it == entry->second.end() ? std::string() : it->second;
  };
  if (value("Type") != "Application" || value("Hidden") == "true" || value("Exec").empty()) {
    return std::nullopt;
  }
  return DesktopApplication{id, path->string(), value("Exec")};
}

}  // namespace

XdgDirs XdgDirs::FromEnvironment(const EnvironmentLookup& lookup) {
  auto get = [&](const char* name) {
    std::optional<std::string> value = lookup(name);
    return value ? *value : std::string();
  };
  const std::string home = get("HOME");
  XdgDirs dirs;
  dirs.config_home = get("XDG_CONFIG_HOME");
  if (dirs.config_home.empty()) dirs.config_home = home + "/.config";
  dirs.config_dirs = SplitList(get("XDG_CONFIG_DIRS"), ':');
  if (dirs.config_dirs.empty()) dirs.config_dirs = {"/etc/xdg"};
  dirs.data_home = get("XDG_DATA_HOME");
  if (dirs.data_home.empty()) dirs.data_home = home + "/.local/share";
  dirs.data_dirs = SplitList(get("XDG_DATA_DIRS"), ':');
  if (dirs.data_dirs.empty()) dirs.data_dirs = {"/usr/local/share", "/usr/share"};
  for (std::string desktop : SplitList(get("XDG_CURRENT_DESKTOP"), ':')) {
    for (char& c : desktop) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    dirs.desktops.push_back(std::move(desktop));
  }
  return dirs;
}

std::optional<DesktopApplication> FindDefaultApplication(const XdgDirs& dirs,
                                                         std::string_view mime_type) {
  std::vector<KeyFile> lists;
  for (const fs::path& path : MimeAppsLists(dirs)) {
    if (std::optional<KeyFile> file = ReadKeyFile(path)) lists.push_back(std::move(*file));
  }
  for (const KeyFile& list : lists) {
    for (const std::string& id : ListValue(list, "Default Applications", mime_type)) {
      if (std::optional<DesktopApplication> app = LoadApplication(dirs, id)) return app;
    }
  }
  // No usable default: the associations, of which a more important file may have removed
  // some.
  std::set<std::string> removed;
  for (const KeyFile& list : lists) {
    for (const std::string& id : ListValue(list, "Added Associations", mime_type)) {
      if (removed.count(id) != 0) continue;
      if (std::optional<DesktopApplication> app = LoadApplication(dirs, id)) return app;
    }
    for (std::string& id : ListValue(list, "Removed Associations", mime_type)) {
      removed.insert(std::move(id));
    }
  }
  for (const fs::path& dir : ApplicationDirs(dirs)) {
    const std::optional<KeyFile> cache = ReadKeyFile(dir / "mimeinfo.cache");
    if (!cache) continue;
    for (const std::string& id : ListValue(*cache, "MIME Cache", mime_type)) {
      if (removed.count(id) != 0) continue;
      if (std::optional<DesktopApplication> app = LoadApplication(dirs, id)) return app;
    }
  }
  return std::nullopt;
}

DocumentLaunch PrepareOpenDocument(const std::string& document, const XdgDirs& dirs,
                                   const EnvironmentLookup& lookup) {
  DocumentLaunch launch;
  std::error_code ec;
  if (!fs::exists(fs::symlink_status(document, ec))) return launch;
  const std::optional<DesktopApplication> app = FindDefaultApplication(dirs, "application/pdf");
  if (!app) {
    launch.result = DocumentLaunchResult::kNoApplication;
    return launch;
  }
  launch.application = app->path;
  std::optional<std::vector<std::string>> args = BuildDocumentCommand(app->exec, document, lookup);
  if (!args) {
    launch.result = DocumentLaunchResult::kUnusableCommand;
    return launch;
  }
  launch.result = DocumentLaunchResult::kReady;
  launch.args = std::move(*args);
  return launch;
}

}  // namespace kalvo::tray
