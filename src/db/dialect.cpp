#include "db/dialect.h"

#include <cctype>
#include <vector>

#include "infra/strings.h"

namespace kalvo {
namespace {

bool IsIdentChar(char c) {
  const auto u = static_cast<unsigned char>(c);
  return std::isalnum(u) || c == '_' || u >= 0x80;
}

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool ContainsNoCase(std::string_view text, std::string_view part) {
  if (part.size() > text.size()) return false;
  for (size_t i = 0; i + part.size() <= text.size(); ++i) {
    if (EqualsNoCase(text.substr(i, part.size()), part)) return true;
  }
  return false;
}

// Marks every byte that lies inside a quoted literal ('...', "...", `...`, [...]), quotes
// included, so that the rewrites below never touch values.
std::vector<bool> QuotedMask(std::string_view sql) {
  std::vector<bool> quoted(sql.size(), false);
  size_t i = 0;
  while (i < sql.size()) {
    const char open = sql[i];
    if (open != '\'' && open != '"' && open != '`' && open != '[') {
      ++i;
      continue;
    }
    const char close = open == '[' ? ']' : open;
    size_t j = i + 1;
    while (j < sql.size()) {
      if (sql[j] == close) {
        // A doubled quote inside a literal stands for the quote itself.
        if (close != ']' && j + 1 < sql.size() && sql[j + 1] == close) {
          j += 2;
          continue;
        }
        break;
      }
      ++j;
    }
    const size_t end = j < sql.size() ? j + 1 : sql.size();
    for (size_t k = i; k < end; ++k) quoted[k] = true;
    i = end;
  }
  return quoted;
}

// True when sql[pos..] starts the keyword `word` as a whole word outside quotes.
bool KeywordAt(std::string_view sql, const std::vector<bool>& quoted, size_t pos,
               std::string_view word) {
  if (pos + word.size() > sql.size() || quoted[pos]) return false;
  if (!EqualsNoCase(sql.substr(pos, word.size()), word)) return false;
  if (pos + word.size() < sql.size() && IsIdentChar(sql[pos + word.size()])) return false;
  return true;
}

std::string SeparateNumberFromAnd(std::string_view sql) {
  const std::vector<bool> quoted = QuotedMask(sql);
  std::string out;
  out.reserve(sql.size() + 8);
  for (size_t i = 0; i < sql.size(); ++i) {
    out += sql[i];
    if (quoted[i] || !IsDigit(sql[i]) || !KeywordAt(sql, quoted, i + 1, "AND")) continue;
    // The digits must form a number of their own, not the tail of a name such as col2.
    size_t start = i;
    while (start > 0 && (IsDigit(sql[start - 1]) || sql[start - 1] == '.')) --start;
    if (start > 0 && IsIdentChar(sql[start - 1])) continue;
    out += ' ';
  }
  return out;
}

// One rewrite of the first "SELECT TOP n" outside quotes; false when there is none.
bool RewriteOneTop(std::string& sql, Dialect dialect, int serial) {
  const std::vector<bool> quoted = QuotedMask(sql);
  for (size_t pos = 0; pos < sql.size(); ++pos) {
    if (!KeywordAt(sql, quoted, pos, "SELECT")) continue;
    if (pos > 0 && IsIdentChar(sql[pos - 1])) continue;
    size_t p = pos + 6;
    while (p < sql.size() && std::isspace(static_cast<unsigned char>(sql[p]))) ++p;
    if (p == pos + 6 || !KeywordAt(sql, quoted, p, "TOP")) continue;
    size_t q = p + 3;
    while (q < sql.size() && std::isspace(static_cast<unsigned char>(sql[q]))) ++q;
    const bool paren = q < sql.size() && sql[q] == '(';
    if (paren) ++q;
    const size_t digits = q;
    while (q < sql.size() && IsDigit(sql[q])) ++q;
    if (q == digits) continue;
    const std::string count = sql.substr(digits, q - digits);
    if (paren) {
      if (q >= sql.size() || sql[q] != ')') continue;
      ++q;
    }
    size_t rest = q;
    while (rest < sql.size() && std::isspace(static_cast<unsigned char>(sql[rest]))) ++rest;
    if (KeywordAt(sql, quoted, rest, "PERCENT")) continue;  // no LIMIT equivalent

    // The SELECT ends at the parenthesis that closes its enclosing level, or at the end of
    // the statement (before a final semicolon).
    int depth = 0;
    size_t end = rest;
    for (; end < sql.size(); ++end) {
      if (quoted[end]) continue;
      if (sql[end] == '(') ++depth;
      if (sql[end] == ')') {
        if (depth == 0) break;
        --depth;
      }
      if (sql[end] == ';' && depth == 0) break;
    }
    const bool enclosed = end < sql.size() && sql[end] == ')';
    size_t body_end = end;
    while (body_end > rest && std::isspace(static_cast<unsigned char>(sql[body_end - 1])))
      --body_end;
    std::string select =
        sql.substr(pos, 6) + " " + sql.substr(rest, body_end - rest) + " LIMIT " + count;
    if (dialect == Dialect::kMySql && enclosed) {
      select = "SELECT * FROM (" + select + ") AS kalvo_top_" + std::to_string(serial);
    }
    sql = sql.substr(0, pos) + select + sql.substr(body_end);
    return true;
  }
  return false;
}

}  // namespace

Dialect DialectFromDbmsName(std::string_view name) {
  if (ContainsNoCase(name, "SQL Server")) return Dialect::kSqlServer;
  if (ContainsNoCase(name, "ACCESS")) return Dialect::kAccess;
  if (ContainsNoCase(name, "SQLite")) return Dialect::kSqlite;
  if (ContainsNoCase(name, "PostgreSQL")) return Dialect::kPostgreSql;
  if (ContainsNoCase(name, "MariaDB") || ContainsNoCase(name, "MySQL")) return Dialect::kMySql;
  return Dialect::kOther;
}

std::string AdaptStatement(std::string_view sql, Dialect dialect) {
  if (dialect == Dialect::kSqlServer || dialect == Dialect::kAccess) return std::string(sql);
  std::string out = SeparateNumberFromAnd(sql);
  for (int serial = 1; serial <= 16 && RewriteOneTop(out, dialect, serial); ++serial) {
  }
  return out;
}

}  // namespace kalvo
