#include "kalvoctl/backup_commands.h"

#include <fstream>
#include <iostream>
#include <iterator>
#include <memory>
#include <sstream>

#include "infra/json_text.h"
#include "infra/text_encoding.h"
#include "kalvoctl/backup_views.h"
#include "kalvoctl/command_support.h"
#include "kalvoctl/commands.h"
#include "kalvoctl/view_support.h"

namespace kalvo::ctl {
namespace {

const CLI::Validator kTypeArgument(
    [](std::string& text) {
      return BackupType(text)
                 ? std::string()
                 : "not a backup type (1 automatic, 2 admin, 3 client, 4 all): " + text;
    },
    "TYPE");

const CLI::Validator kStoredTypeArgument(
    [](std::string& text) {
      const auto type = BackupType(text);
      return type && *type != 4
                 ? std::string()
                 : "not the type of one backup (1 automatic, 2 admin, 3 client): " + text;
    },
    "TYPE");

const CLI::Validator kNameArgument(
    [](std::string& text) { return BackupNameProblem(Utf8ToCp1252(text)); }, "NAME");

struct ListOptions {
  AskOptions ask;
  std::string guid;
  std::string type = "all";
};

int RunBackups(const ListOptions& o) {
  const int32_t type = BackupType(o.type).value_or(4);
  SocketDataStruct request;
  if (o.guid.empty()) {
    request.PackageID = kAllBackupsRequest;
  } else {
    request.PackageID = kTokenBackupsRequest;
    request.Data = Utf8ToCp1252(o.guid);
    request.Misc1 = std::to_string(type);
  }
  const auto answer = Ask(o.ask, request);
  if (!answer) return kExitConnection;
  if (!o.guid.empty()) {
    auto rows = ParseTokenBackups(answer->Data);
    SortBackups(rows);
    const bool certificate = answer->Misc2 == "1";
    if (o.ask.json) {
      std::cout << FormatTokenBackupsJson(request.Data, certificate, rows);
    } else {
      std::cout << FormatBackupTable(rows, false) << "Certificate: " << (certificate ? "yes" : "no")
                << "\n";
    }
    return kExitOk;
  }
  // The list of every token has no type filter on the server.
  auto rows = ParseAllBackups(answer->Data);
  if (type != 4)
    std::erase_if(rows, [&](const BackupRow& r) { return r.type != std::to_string(type); });
  SortBackups(rows);
  std::cout << (o.ask.json ? FormatAllBackupsJson(rows) : FormatBackupTable(rows, true));
  return kExitOk;
}

struct GetOptions {
  AskOptions ask;
  std::string guid, type, out;
  int32_t index = 1;
};

int RunBackupGet(const GetOptions& o) {
  SocketDataStruct request;
  request.PackageID = kFetchBackupRequest;
  request.Data = Utf8ToCp1252(o.guid);
  request.Misc1 = std::to_string(o.index);
  request.Misc2 = std::to_string(BackupType(o.type).value_or(0));
  const auto answer = Ask(o.ask, request);
  if (!answer) return kExitConnection;
  // Every backup has a time stamp, even an empty one; without one there is none.
  const std::string& time = answer->Misc1;
  if (time.empty()) {
    std::cerr << "kalvoctl: token " << o.guid << " has no " << BackupTypeName(request.Misc2)
              << " backup with index " << o.index << "\n";
    return kExitServerFailed;
  }
  if (!o.out.empty()) {
    std::ofstream file(o.out, std::ios::binary | std::ios::trunc);
    file.write(answer->Data.data(), static_cast<std::streamsize>(answer->Data.size()));
    file.close();
    if (!file) {
      std::cerr << "kalvoctl: cannot write " << o.out << "\n";
      return kExitUsage;
    }
  }
  if (o.ask.json) {
    std::cout << "{\"token\":" << JsonString(request.Data) << ",\"type\":" << request.Misc2
              << ",\"index\":" << o.index << ",\"time\":" << JsonTimeOrNull(time)
              << ",\"bytes\":" << answer->Data.size();
    // Without a file the backup is part of the document, as text.
    if (o.out.empty()) std::cout << ",\"data\":" << JsonString(answer->Data);
    std::cout << "}\n";
  } else if (o.out.empty()) {
    // The bytes as stored, for a redirection or a pipe.
    std::cout.write(answer->Data.data(), static_cast<std::streamsize>(answer->Data.size()));
  } else {
    std::cerr << answer->Data.size() << " bytes of the backup of " << time << " written to "
              << o.out << "\n";
  }
  return kExitOk;
}

struct PutOptions {
  AskOptions ask;
  std::string guid, type, name, in;
};

int RunBackupPut(const PutOptions& o) {
  std::ifstream file(o.in, std::ios::binary);
  std::ostringstream bytes;
  bytes << file.rdbuf();
  if (!file) {
    std::cerr << "kalvoctl: cannot read " << o.in << "\n";
    return kExitUsage;
  }
  std::vector<SocketDataStruct> requests(2);
  // The upload comes from the token's client: its connection names the token first.
  requests[0].PackageID = kClientLogonRequest;
  requests[0].Data = Utf8ToCp1252(o.guid);
  requests[1].PackageID = kStoreBackupRequest;
  requests[1].Data = bytes.str();
  requests[1].Misc2 = std::to_string(BackupType(o.type).value_or(0));
  requests[1].Misc3 = Utf8ToCp1252(o.name);
  const auto answer = Ask(o.ask, std::move(requests), kStoreBackupRequest);
  if (!answer) return kExitConnection;
  PrintResult(answer->Data, o.ask.json);
  if (answer->Data == "OK") return kExitOk;
  if (answer->Data == "TOOMUCH") {
    std::cerr << "kalvoctl: the token holds as many backups of this type as the server keeps\n";
  } else {
    std::cerr << "kalvoctl: the server did not store the backup (see its log)\n";
  }
  return kExitServerFailed;
}

}  // namespace

void AddBackupsCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<ListOptions>();
  CLI::App* sub = app.add_subcommand(
      "backups",
      "List a token's backups (request 308) and whether it has a certificate, or without GUID "
      "the backups of every token (315): type, index (1 is the newest of its type) and name.");
  sub->add_option("GUID", options->guid, "The token; without it, every token")
      ->check(kGuidArgument);
  sub->add_option("--type", options->type,
                  "Only this type: 1 automatic, 2 admin, 3 client, 4 all (names or numbers)")
      ->capture_default_str()
      ->check(kTypeArgument);
  AddAskOptions(*sub, options->ask);
  sub->callback([options, &exit_code] { exit_code = RunBackups(*options); });
}

void AddBackupGetCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<GetOptions>();
  CLI::App* sub = app.add_subcommand(
      "backup-get",
      "Fetch one backup (request 309) into --out FILE, or its bytes unchanged to standard "
      "output; --json prints its time stamp and size (and, without --out, its text). Exit "
      "status 3 when the token has no such backup.");
  sub->add_option("GUID", options->guid, "The token")->required()->check(kGuidArgument);
  sub->add_option("--index", options->index, "1 is the newest of its type")
      ->capture_default_str()
      ->check(CLI::PositiveNumber);
  sub->add_option("--type", options->type, "1 automatic, 2 admin, 3 client (names or numbers)")
      ->required()
      ->check(kStoredTypeArgument);
  sub->add_option("--out", options->out, "Write the backup to this file");
  AddAskOptions(*sub, options->ask);
  sub->callback([options, &exit_code] { exit_code = RunBackupGet(*options); });
}

void AddBackupPutCommand(CLI::App& app, int& exit_code) {
  auto options = std::make_shared<PutOptions>();
  CLI::App* sub = app.add_subcommand(
      "backup-put",
      "Store a file as a new backup of a token the way its client does: request 101 "
      "(registering the token, which the consoles hear of), then 115. Prints the server's "
      "answer: OK, TOOMUCH (the type holds its maximum; exit status 3) or Error (exit status 3).");
  sub->add_option("GUID", options->guid, "The token")->required()->check(kGuidArgument);
  sub->add_option("--type", options->type, "1 automatic, 2 admin, 3 client (names or numbers)")
      ->required()
      ->check(kStoredTypeArgument);
  sub->add_option("--name", options->name, "The backup's name")->required()->check(kNameArgument);
  sub->add_option("--in", options->in, "The file to store, byte for byte")->required();
  AddAskOptions(*sub, options->ask);
  sub->callback([options, &exit_code] { exit_code = RunBackupPut(*options); });
}

}  // namespace kalvo::ctl
