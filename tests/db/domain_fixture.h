// A database with the server's tables and the default group "Jeder", on each engine, and a
// clock the test sets.
#pragma once

#include <ctime>
#include <string>
#include <string_view>

#include "db/schema.h"
#include "db_fixture.h"
#include "infra/dates.h"

namespace kalvo::testing {

inline constexpr const char* kJeder = "2C39BFC3-7130-4937-B329-6C0863EC8375";

class DomainDbTest : public DbTest {
 protected:
  void SetUp() override {
    DbTest::SetUp();
    if (IsSkipped() || HasFatalFailure()) return;
    db().set_settings(Settings());
    SetClock("2027-03-01-09-05-03");
    DbConnection c(db());
    ASSERT_TRUE(DBConnect(c));
    ASSERT_EQ(DBCreateAllTables(c, Settings(),
                                [](std::string_view, std::string_view key) {
                                  return std::string(key == "GROUP_EVERYONE" ? "Jeder" : "Alle");
                                }),
              0);
    ClearLog();
  }

  // Sets the database's clock to `timestamp` ("yyyy-mm-dd-hh-mm-ss").
  void SetClock(std::string_view timestamp) {
    std::optional<std::tm> t = ParseDateText(timestamp);
    ASSERT_TRUE(t.has_value()) << timestamp;
    db().set_clock([t = *t] { return t; });
  }

  // The log written since the last ClearLog holds `part`.
  bool Logged(std::string_view part) const { return LogText().find(part) != std::string::npos; }
};

}  // namespace kalvo::testing
