// The statement builder: texts as written, values that must not reach a database refused.
#include "db/statement.h"

#include <gtest/gtest.h>

namespace kalvo {
namespace {

TEST(Statement, TextIsTheFixedPartsWithTheValuesPastedIn) {
  Statement s("SELECT * FROM t WHERE a = '");
  s.Value("x y").Sql("' AND n = ").Number("03").Sql(" AND m = ").Number(int64_t{-7});
  EXPECT_EQ(s.text(), "SELECT * FROM t WHERE a = 'x y' AND n = 3 AND m = -7");
  EXPECT_EQ(s.Problem(Dialect::kSqlite), std::nullopt);
  // Every byte but the quote passes, "|", NUL and Windows-1252 letters included.
  Statement bytes;
  bytes.Value(std::string("a|b\0c\xFC", 6));
  EXPECT_EQ(bytes.text(), std::string("a|b\0c\xFC", 6));
  EXPECT_EQ(bytes.Problem(Dialect::kPostgreSql), std::nullopt);
}

TEST(Statement, RefusesWhatWouldChangeTheStatementsMeaning) {
  struct Case {
    Statement statement;
    Dialect dialect;
    bool refused;
    const char* why;
  };
  const Case cases[] = {
      {Statement("a = '").Value("O'Brien").Sql("'"), Dialect::kSqlite, true, "apostrophe"},
      {Statement("a = '").Value("'").Sql("'"), Dialect::kSqlServer, true, "apostrophe alone"},
      {Statement("a = '").Value("C:\\x").Sql("'"), Dialect::kPostgreSql, false,
       "backslash is plain text here"},
      {Statement("a = '").Value("C:\\x").Sql("'"), Dialect::kMySql, true,
       "backslash escapes the closing quote on MySQL/MariaDB"},
      {Statement("n = ").Number("abc"), Dialect::kSqlite, true, "not a number"},
      {Statement("n = ").Number(""), Dialect::kSqlite, true, "empty is no number"},
      {Statement("n = ").Number("99999999999"), Dialect::kSqlite, true, "beyond 32 bits"},
      {Statement("n = ").Number(" 2.5 "), Dialect::kSqlite, false, "rounded half to even"},
      {Statement("x").Append(Statement("a = '").Value("'")), Dialect::kSqlite, true,
       "an appended part keeps its problem"},
      {Statement("SELECT '''' FROM t"), Dialect::kSqlite, false, "fixed text is trusted"},
  };
  for (const Case& c : cases) {
    EXPECT_EQ(c.statement.Problem(c.dialect).has_value(), c.refused) << c.why;
  }
  EXPECT_EQ(Statement("n = ").Number(" 2.5 ").text(), "n = 2");
  EXPECT_EQ(Statement("n = ").Number("abc").text(), "n = abc") << "the log shows what came";
}

TEST(Statement, BoundValuesAreKeptOutOfTheText) {
  Statement s("UPDATE t SET a = ?, b = ?, c = ? WHERE k = '");
  s.Value("k").Sql("'").BindText("O'Brien").BindBinary(std::string("\0\xFF", 2)).BindNumber(5);
  EXPECT_EQ(s.text(), "UPDATE t SET a = ?, b = ?, c = ? WHERE k = 'k'");
  EXPECT_EQ(s.Problem(Dialect::kMySql), std::nullopt);
  ASSERT_EQ(s.bound().size(), 3u);
  EXPECT_EQ(s.bound()[0].bytes, "O'Brien");
  EXPECT_EQ(s.bound()[1].kind, BoundValue::Kind::kBinary);
  EXPECT_EQ(s.bound()[2].number, 5);
}

}  // namespace
}  // namespace kalvo
