#include "app/captions.h"

#include <QLocale>

#include "infra/text_encoding.h"

namespace kalvo::tray {

QString FromCp1252(std::string_view text) {
  const std::string utf8 = Cp1252ToUtf8(text);
  return QString::fromUtf8(utf8.data(), static_cast<qsizetype>(utf8.size()));
}

char SystemDecimalSeparator() {
  return QLocale::system().decimalPoint() == QStringLiteral(",") ? ',' : '.';
}

QString Captions::Text(std::string_view section, std::string_view key) const {
  return FromCp1252(Raw(section, key));
}

QString Captions::WindowTitle(std::string_view section) const {
  return Text(section, "TITLE") + QStringLiteral(" (") + FromCp1252(program_name_) +
         QStringLiteral(")");
}

StatusCaptions Captions::ForStatus() const {
  StatusCaptions c;
  c.state_active = Raw("DLG_STATE_SERVER", "STATE_ACTIVE");
  c.state_inactive = Raw("DLG_STATE_SERVER", "STATE_INACTIVE");
  c.format_time = Raw("GENERAL", "FORMAT_TIME");
  c.format_date = Raw("GENERAL", "FORMAT_DATE");
  c.days.day = Raw("DLG_STATE_SERVER", "TIME_DAY");
  c.days.days = Raw("DLG_STATE_SERVER", "TIME_DAYS");
  return c;
}

}  // namespace kalvo::tray
