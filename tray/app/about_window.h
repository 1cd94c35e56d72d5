// The about window: the product picture, the program's file version and the copyright line.
#pragma once

#include <QDialog>

namespace kalvo::tray {

class Captions;

class AboutWindow : public QDialog {
  Q_OBJECT

 public:
  // Fills the window from the language file's "DLG_INFO" section and the compiled-in file
  // version. Escape and the frame close it; it deletes itself when closed. `captions` is
  // used only here.
  explicit AboutWindow(const Captions& captions, QWidget* parent = nullptr);
};

}  // namespace kalvo::tray
