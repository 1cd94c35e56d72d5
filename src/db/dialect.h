// The two adaptations of statement text that some database engines need, chosen by the
// DBMS name the driver reports. Everything else in a statement is passed on unchanged.
#pragma once

#include <string>
#include <string_view>

namespace kalvo {

enum class Dialect {
  kSqlServer,   // accepts the statements as written (TOP n, "2AND")
  kAccess,      // likewise
  kSqlite,      // needs both adaptations
  kPostgreSql,  // needs both adaptations
  kMySql,       // MySQL and MariaDB: both, and LIMIT only inside a derived table
  kOther,       // unknown engines get both adaptations, the standard-leaning form
};

// Maps the driver's SQL_DBMS_NAME ("SQLite", "PostgreSQL", "MariaDB", "MySQL",
// "Microsoft SQL Server", "ACCESS") to its dialect; case-insensitive.
Dialect DialectFromDbmsName(std::string_view dbms_name);

// Gives `sql` as the engine of `dialect` accepts it. For SQL Server and Access the text is
// returned unchanged. For the others:
//  1. a number directly followed by the keyword AND ("backup_index = 2AND backup_type = 1")
//     gets one blank before AND; text inside quoted literals and identifiers is left alone;
//  2. "SELECT TOP n ..." becomes "SELECT ... LIMIT n" (the LIMIT closing the same SELECT,
//     inside its parentheses when it is a subquery); for MySQL/MariaDB a parenthesised one
//     is wrapped as "(SELECT * FROM (SELECT ... LIMIT n) AS kalvo_top_k)", since those
//     engines refuse LIMIT directly in an IN subquery.
std::string AdaptStatement(std::string_view sql, Dialect dialect);

}  // namespace kalvo
