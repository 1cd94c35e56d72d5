// The desktop's default application for a type of document, found the way the freedesktop.org
// specifications lay it down: mimeapps.list files name the default per MIME type, desktop
// entries under the applications directories say how to start each application.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "core/exec_line.h"

namespace kalvo::tray {

// The base directories of the XDG base-directory specification, most important first.
struct XdgDirs {
  std::string config_home;               // $XDG_CONFIG_HOME, else $HOME/.config
  std::vector<std::string> config_dirs;  // $XDG_CONFIG_DIRS, else /etc/xdg
  std::string data_home;                 // $XDG_DATA_HOME, else $HOME/.local/share
  std::vector<std::string> data_dirs;    // $XDG_DATA_DIRS, else /usr/local/share, /usr/share
  std::vector<std::string> desktops;     // $XDG_CURRENT_DESKTOP split at ":", lower case

  // The directories from the environment that `lookup` gives, with the defaults above.
  static XdgDirs FromEnvironment(const EnvironmentLookup& lookup);
};

// An installed application as its desktop entry describes it.
struct DesktopApplication {
  std::string id;    // desktop file id ("org.gnome.Evince.desktop")
  std::string path;  // the desktop entry file
  std::string exec;  // its Exec value, string escapes not yet resolved
};

// The application that opens documents of `mime_type` ("application/pdf"):
// 1. the first installed entry listed under [Default Applications] in the mimeapps.list
//    files, read in their order of precedence (desktop-specific ones first);
// 2. else the first installed entry under [Added Associations], then in the mimeinfo.cache
//    files of the applications directories, skipping any that a more important
//    mimeapps.list names under [Removed Associations].
// An entry counts as installed when its desktop file is found under an applications
// directory, is of Type Application, is not Hidden and has an Exec value. Nothing when no
// application is found. Unreadable files count as missing.
std::optional<DesktopApplication> FindDefaultApplication(const XdgDirs& dirs,
                                                         std::string_view mime_type);

// What opening a document comes to.
enum class DocumentLaunchResult {
  kReady,            // `args` start the application with the document
  kNoDocument,       // the document does not exist
  kNoApplication,    // no application is associated with PDF documents
  kUnusableCommand,  // the association's Exec value could not be made into a command
};

struct DocumentLaunch {
  DocumentLaunchResult result = DocumentLaunchResult::kNoDocument;
  std::string application;  // desktop file of the application, when one was found
  std::vector<std::string> args;
};

// How to open `document`: it must exist (any kind of entry); the application is the
// default one for PDF documents whatever the document's name says, since the only document
// opened is the PDF help; its Exec value becomes the command by BuildDocumentCommand.
DocumentLaunch PrepareOpenDocument(const std::string& document, const XdgDirs& dirs,
                                   const EnvironmentLookup& lookup);

}  // namespace kalvo::tray
