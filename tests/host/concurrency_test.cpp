// Requests of many peers at once through the real server on SQLite: what the database workers
// may run side by side and what they must not.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fresh_sqlite.h"
#include "packet_peer.h"
#include "server_process.h"

namespace kalvo::testing {
namespace {

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";

class ConcurrencyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(db_.ok());
    server_ = std::make_unique<ServerProcess>(
        "\"AuditIsActive\"=dword:ffffffff\r\n",
        FreshSqlite::DatabaseKey("\"DatabaseWorkers\"=dword:00000004\r\n"));
  }

  std::string Query(std::string_view sql) { return db_.Query(sql); }

  FreshSqlite db_;
  std::unique_ptr<ServerProcess> server_;
};

TEST_F(ConcurrencyTest, FiftyLogonsOfOneNewTokenMakeOneTokenAndOneNewTokenNotice) {
  PacketPeer console(server_->port());
  ASSERT_EQ(console.Exchange(401, "", "UPDATE").PackageID, 401);
  constexpr int kClients = 50;
  std::vector<std::unique_ptr<PacketPeer>> clients;
  for (int i = 0; i < kClients; ++i) {
    clients.push_back(std::make_unique<PacketPeer>(server_->port()));
  }
  for (auto& client : clients) client->Send(101, kAnna, "", "anna", "CN=Anna");
  int answered = 0;
  for (auto& client : clients) answered += client->Receive(15000).PackageID == 101 ? 1 : 0;
  EXPECT_EQ(answered, kClients) << server_->Log();
  int new_token = 0, logons = 0;
  for (int i = 0; i < kClients; ++i) {
    const SocketDataStruct news = console.Receive(15000);
    new_token += news.PackageID == 401 && news.Misc2 == "NEWTOKEN" ? 1 : 0;
    logons += news.PackageID == 101 ? 1 : 0;
  }
  EXPECT_EQ(new_token, 1);
  EXPECT_EQ(logons, kClients - 1);
  EXPECT_EQ(console.Receive(300).PackageID, 0) << "nothing more";
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_token"), "1");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_token_groups"), "1");
}

// The log lines from `first` to `last` (both included, the first such stretch after `from`),
// or "" when there is none.
std::string Stretch(const std::string& log, const std::string& first, const std::string& last,
                    size_t from = 0) {
  const size_t begin = log.find(first, from);
  if (begin == std::string::npos) return "";
  const size_t end = log.find(last, begin);
  return end == std::string::npos ? "" : log.substr(begin, end + last.size() - begin);
}

TEST_F(ConcurrencyTest, RequestsThatChangeSharedTablesRunWithNoOtherBesideThem) {
  PacketPeer console(server_->port());
  // Clients keep logging on while the console defines an action and deletes tokens.
  std::atomic<bool> stop = false;
  std::vector<std::thread> clients;
  for (int i = 0; i < 8; ++i) {
    clients.emplace_back([&, i] {
      PacketPeer client(server_->port());
      char guid[37];
      std::snprintf(guid, sizeof guid, "A1B2C3D4-0000-4000-8000-%012d", i);
      while (!stop) {
        if (client.Exchange(101, guid, "", "user", "").PackageID != 101) break;
      }
    });
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  const std::string action = std::string("AC000000-0000-4000-8000-000000000001") +
                             "|Aufgabe|2|1|5|2027-01-01-00-00-00||0|" + kAnna + "|ldap$admin|" +
                             std::string(400000, 'x');
  EXPECT_EQ(console.Exchange(318, action).PackageID, 318);
  EXPECT_EQ(console.Exchange(328, "A1B2C3D4-0000-4000-8000-000000000000").PackageID, 328);
  stop = true;
  for (std::thread& t : clients) t.join();
  const std::string log = server_->Log();
  const std::string define =
      Stretch(log, "{SELECT COUNT(*) FROM tbl_kdx_job_properties WHERE action_guid",
              "DBSetActionData (OK)", log.find("DoSocketAction: ID: 318"));
  const std::string remove = Stretch(log, "{DELETE FROM tbl_kdx_token WHERE token_guid",
                                     "DBDeleteToken (OK)", log.find("DoSocketAction: ID: 328"));
  ASSERT_FALSE(define.empty()) << log;
  ASSERT_FALSE(remove.empty()) << log;
  for (const std::string* stretch : {&define, &remove}) {
    EXPECT_EQ(stretch->find("DBSetLastTokenConnect"), std::string::npos) << *stretch;
    EXPECT_EQ(stretch->find("DBGetTokenRights"), std::string::npos) << *stretch;
    EXPECT_EQ(stretch->find("DBLogClientAction"), std::string::npos) << *stretch;
  }
  EXPECT_GT(ServerProcess::Count(log, "DBSetLastTokenConnect (OK)"), 20) << "the clients ran";
}

}  // namespace
}  // namespace kalvo::testing
