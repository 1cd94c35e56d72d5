// The statement adaptations per engine: what changes, and above all what must not.
#include "db/dialect.h"

#include <gtest/gtest.h>

namespace kalvo {
namespace {

TEST(DialectFromDbmsName, MapsTheNamesDriversReport) {
  const struct {
    const char* name;
    Dialect want;
  } cases[] = {
      {"SQLite", Dialect::kSqlite},
      {"PostgreSQL", Dialect::kPostgreSql},
      {"MariaDB", Dialect::kMySql},
      {"MySQL", Dialect::kMySql},
      {"Microsoft SQL Server", Dialect::kSqlServer},
      {"ACCESS", Dialect::kAccess},
      {"Informix", Dialect::kOther},
      {"", Dialect::kOther},
  };
  for (const auto& c : cases) EXPECT_EQ(DialectFromDbmsName(c.name), c.want) << c.name;
}

TEST(AdaptStatement, SeparatesANumberFromAFollowingAnd) {
  const struct {
    const char* in;
    const char* want;
    const char* why;
  } cases[] = {
      {"SELECT * FROM t WHERE a = 2AND b = 1", "SELECT * FROM t WHERE a = 2 AND b = 1",
       "the backup statements' form"},
      {"DELETE FROM t WHERE g = 'x' AND t = 1AND i > 2",
       "DELETE FROM t WHERE g = 'x' AND t = 1 AND i > 2", "only the number-AND joint changes"},
      {"WHERE i = 10AND t = 3AND o = 12", "WHERE i = 10 AND t = 3 AND o = 12", "several joints"},
      {"WHERE i = -1AND t = 2.5AND o = 1", "WHERE i = -1 AND t = 2.5 AND o = 1", "signs, decimals"},
      {"WHERE a = '2AND b'", "WHERE a = '2AND b'", "text inside a literal is a value"},
      {"WHERE a = 'it''s 2AND' AND b = 1AND c = 2", "WHERE a = 'it''s 2AND' AND b = 1 AND c = 2",
       "a doubled quote does not end the literal"},
      {"WHERE col2AND = 1", "WHERE col2AND = 1", "digits inside a name are not a number"},
      {"WHERE x2 = 1", "WHERE x2 = 1", "nothing to do"},
      {"WHERE n = 2ANDROID", "WHERE n = 2ANDROID", "AND must be a whole word"},
      {"WHERE n = 2and m = 1", "WHERE n = 2 and m = 1", "keywords are case-insensitive"},
      {"WHERE a = 'unterminated 2AND", "WHERE a = 'unterminated 2AND",
       "an open literal runs to the end"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(AdaptStatement(c.in, Dialect::kPostgreSql), c.want) << c.why;
    EXPECT_EQ(AdaptStatement(c.in, Dialect::kSqlServer), c.in) << "SQL Server takes it as written";
  }
}

TEST(AdaptStatement, TurnsSelectTopIntoLimit) {
  const std::string in =
      "DELETE FROM tbl_kdx_logging_client WHERE token_timestamp NOT IN (SELECT TOP 4 "
      "token_timestamp FROM tbl_kdx_logging_client ORDER BY token_timestamp DESC)";
  EXPECT_EQ(AdaptStatement(in, Dialect::kSqlite),
            "DELETE FROM tbl_kdx_logging_client WHERE token_timestamp NOT IN (SELECT "
            "token_timestamp FROM tbl_kdx_logging_client ORDER BY token_timestamp DESC LIMIT 4)");
  // MariaDB refuses LIMIT in an IN subquery, and a subquery on the table being deleted
  // from, unless it is wrapped in a derived table.
  EXPECT_EQ(AdaptStatement(in, Dialect::kMySql),
            "DELETE FROM tbl_kdx_logging_client WHERE token_timestamp NOT IN (SELECT * FROM "
            "(SELECT token_timestamp FROM tbl_kdx_logging_client ORDER BY token_timestamp DESC "
            "LIMIT 4) AS kalvo_top_1)");
  EXPECT_EQ(AdaptStatement(in, Dialect::kSqlServer), in);
  EXPECT_EQ(AdaptStatement(in, Dialect::kAccess), in);

  const struct {
    const char* in;
    const char* want;
    const char* why;
  } cases[] = {
      {"SELECT TOP 3 * FROM t ORDER BY a", "SELECT * FROM t ORDER BY a LIMIT 3", "top level"},
      {"select top (2) a from t;", "select a from t LIMIT 2;", "parenthesised count, semicolon"},
      {"SELECT a FROM t WHERE b = 'SELECT TOP 1 x'", "SELECT a FROM t WHERE b = 'SELECT TOP 1 x'",
       "inside a literal"},
      {"SELECT TOP 10 PERCENT a FROM t", "SELECT TOP 10 PERCENT a FROM t", "no LIMIT form"},
      {"SELECT TOPS FROM t", "SELECT TOPS FROM t", "a column named like the keyword"},
      {"SELECT a FROM t WHERE n IN (SELECT TOP 1 n FROM u WHERE f(n) > 0) AND m = 1",
       "SELECT a FROM t WHERE n IN (SELECT n FROM u WHERE f(n) > 0 LIMIT 1) AND m = 1",
       "nested parentheses inside the subquery"},
  };
  for (const auto& c : cases)
    EXPECT_EQ(AdaptStatement(c.in, Dialect::kPostgreSql), c.want) << c.why;
}

}  // namespace
}  // namespace kalvo
