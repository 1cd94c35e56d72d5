// The SQL view of kalvoctl: reading the server's answer to a statement (result set,
// acknowledgement, driver error) and the table and JSON shown.
#include "kalvoctl/sql_views.h"

#include <gtest/gtest.h>

namespace kalvo::ctl {
namespace {

using Rows = std::vector<std::vector<std::string>>;

TEST(SqlViews, AResultSetKeepsEmptyValuesAndRows) {
  SqlResult r = ParseSqlResult("Data:id|name|note$1|M\xFCller|$2||x");
  EXPECT_EQ(r.kind, SqlResult::Kind::kData);
  EXPECT_EQ(r.columns, (std::vector<std::string>{"id", "name", "note"}));
  EXPECT_EQ(r.rows, (Rows{{"1", "M\xFCller", ""}, {"2", "", "x"}}));
  EXPECT_EQ(r.misshapen_rows, 0u);

  r = ParseSqlResult("Data:id|name");
  EXPECT_EQ(r.columns.size(), 2u);
  EXPECT_TRUE(r.rows.empty()) << "no \"$\": no rows";

  // One column: a row whose only value is empty is still a row.
  r = ParseSqlResult("Data:note$$a$");
  EXPECT_EQ(r.rows, (Rows{{""}, {"a"}, {""}}));
  EXPECT_EQ(r.misshapen_rows, 0u);

  r = ParseSqlResult("Data:a|b$1|2|3$4");
  EXPECT_EQ(r.misshapen_rows, 2u) << "a value held \"|\": the counts tell";
  EXPECT_EQ(r.rows[0].size(), 3u) << "values are kept as split, none dropped";
}

TEST(SqlViews, AcknowledgementsErrorsAndOtherAnswers) {
  const struct {
    std::string data;
    SqlResult::Kind kind;
    std::string number, text;
    const char* reason;
  } cases[] = {
      {"OK:Der Befehl wurde korrekt abgearbeitet.", SqlResult::Kind::kOk, "",
       "Der Befehl wurde korrekt abgearbeitet.", "no result set"},
      {"Error:-2147217900|[Driver] syntax error near |", SqlResult::Kind::kError, "-2147217900",
       "[Driver] syntax error near |", "the message keeps its own \"|\""},
      {"Error:5", SqlResult::Kind::kError, "5", "", "a number without message"},
      {"", SqlResult::Kind::kError, "", "the server gave no result (see its log)",
       "the database call failed on the server"},
      {"data:x", SqlResult::Kind::kError, "", "not a result: data:x", "prefixes are exact"},
  };
  for (const auto& c : cases) {
    const SqlResult r = ParseSqlResult(c.data);
    EXPECT_EQ(r.kind, c.kind) << c.reason;
    EXPECT_EQ(r.number, c.number) << c.reason;
    EXPECT_EQ(r.text, c.text) << c.reason;
    EXPECT_TRUE(r.columns.empty() && r.rows.empty()) << c.reason;
  }
}

TEST(SqlViews, PeopleReadATableOrOneLine) {
  EXPECT_EQ(FormatSqlText(ParseSqlResult("Data:id|name$1|M\xFCller$22|a\r\nb")),
            "id  name\n"
            "1   M\xC3\xBCller\n"
            "22  a\\r\\nb\n");
  EXPECT_EQ(FormatSqlText(ParseSqlResult("Data:id|name")), "id  name\n(no rows)\n");
  EXPECT_EQ(FormatSqlText(ParseSqlResult("OK:Fertig.")), "OK: Fertig.\n");
  EXPECT_EQ(FormatSqlText(ParseSqlResult("Error:3|Tabelle fehlt")), "error 3: Tabelle fehlt\n");
  EXPECT_EQ(FormatSqlText(ParseSqlResult("")), "the server gave no result (see its log)\n");
}

TEST(SqlViews, JsonKeepsEveryByteAsAString) {
  EXPECT_EQ(FormatSqlJson(ParseSqlResult(std::string("Data:b|\"q\"$\x01\xFF\0|", 15))),
            "{\"columns\":[\"b\",\"\\\"q\\\"\"],\"rows\":[[\"\\u0001\xC3\xBF\\u0000\",\"\"]]}\n");
  EXPECT_EQ(FormatSqlJson(ParseSqlResult("Data:a")), "{\"columns\":[\"a\"],\"rows\":[]}\n");
  EXPECT_EQ(FormatSqlJson(ParseSqlResult("OK:Fertig.")), "{\"ok\":\"Fertig.\"}\n");
  EXPECT_EQ(FormatSqlJson(ParseSqlResult("Error:-1|kaputt")),
            "{\"error\":{\"number\":-1,\"message\":\"kaputt\"}}\n");
  EXPECT_EQ(FormatSqlJson(ParseSqlResult("")),
            "{\"error\":{\"number\":null,\"message\":\"the server gave no result (see its "
            "log)\"}}\n");
}

}  // namespace
}  // namespace kalvo::ctl
