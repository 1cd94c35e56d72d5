// Opening the help document.
#pragma once

#include <QString>
#include <string>

class QWidget;

namespace kalvo::tray {

// Opens `document` (Kalvo.pdf in the program directory) with the desktop's default PDF
// application, started as the present user; its process id on success. When the document
// is missing, no application is associated or it cannot be started, shows a message box
// titled `title` (parented to `parent`, may be null), writes the reason to standard error
// and gives -1.
qint64 OpenHelpDocument(const std::string& document, const QString& title, QWidget* parent);

}  // namespace kalvo::tray
