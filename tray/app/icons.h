// The companion's pictures, drawn rather than loaded so that the program needs no image
// files: a smart card whose colour tells the state.
#pragma once

#include <QIcon>
#include <QPixmap>

namespace kalvo::tray {

enum class TrayPicture {
  kInitial,      // the icon has just been added: grey
  kReady,        // the server answers: green
  kUnreachable,  // the server does not answer: red, crossed out
};

// The picture at the usual tray sizes.
QIcon TrayIconPicture(TrayPicture picture);

// One size of it (also the product picture of the about window).
QPixmap DrawTrayPicture(TrayPicture picture, int size);

}  // namespace kalvo::tray
