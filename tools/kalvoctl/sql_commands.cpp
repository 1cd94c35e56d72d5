#include "kalvoctl/sql_commands.h"

#include <iostream>
#include <memory>

#include "infra/text_encoding.h"
#include "kalvoctl/command_support.h"
#include "kalvoctl/commands.h"
#include "kalvoctl/sql_views.h"

namespace kalvo::ctl {
namespace {

struct SqlOptions {
  AskOptions ask;
  std::string statement;
};

int RunSql(const SqlOptions& o) {
  SocketDataStruct request;
  request.PackageID = kSqlRequest;
  request.Data = Utf8ToCp1252(o.statement);
  const auto answer = Ask(o.ask, request);
  if (!answer) return kExitConnection;
  const SqlResult result = ParseSqlResult(answer->Data);
  if (result.kind == SqlResult::Kind::kError) {
    if (o.ask.json) std::cout << FormatSqlJson(result);
    std::cerr << "kalvoctl: " << FormatSqlText(result);
    return kExitServerFailed;
  }
  std::cout << (o.ask.json ? FormatSqlJson(result) : FormatSqlText(result));
  if (result.misshapen_rows > 0) {
    std::cerr << "kalvoctl: warning: " << result.misshapen_rows << " of " << result.rows.size()
              << " rows do not have " << result.columns.size()
              << " values: a value holds \"|\" or \"$\"\n";
  }
  return kExitOk;
}

}  // namespace

void AddSqlCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<SqlOptions>();
  CLI::App* sub = app.add_subcommand(
      "sql",
      "Run one SQL statement on the server's database as it stands (request 701) and print its "
      "result set as a table (--json: {\"columns\": [...], \"rows\": [[...], ...]}), or OK and "
      "the server's text for a statement without result set ({\"ok\": text}). A driver error "
      "is printed on standard error ({\"error\": {\"number\", \"message\"}}) with exit status "
      "3. The server joins values with \"|\" and rows with \"$\" and does not mark either "
      "inside a value, so a result whose values hold \"|\" or \"$\" cannot be read back "
      "correctly: its values and rows come out split (a warning says so when the number of values "
      "in a row shows it); select such columns through REPLACE() or a hexadecimal form. Binary "
      "values arrive as bytes and are shown "
      "as text, control characters escaped.");
  sub->add_option("TEXT", options->statement, "The statement (UTF-8, sent as Windows-1252)")
      ->required();
  AddAskOptions(*sub, options->ask);
  sub->callback([options, &exit_code] { exit_code = RunSql(*options); });
}

}  // namespace kalvo::ctl
