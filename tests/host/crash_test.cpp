// A server killed at any moment of a write of several statements leaves the database as it was
// before the request or as after it, never in between: each such write (a backup store, an
// action replacement, a group replacement, a token deletion) is cut off with SIGKILL at random
// moments, and what the database holds is read back directly each time.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <thread>

#include "../db/odbc_test_env.h"
#include "db/actions.h"
#include "db/backups.h"
#include "db/connection.h"
#include "db/groups.h"
#include "db/operation.h"
#include "db/schema.h"
#include "db/tokens.h"
#include "fresh_sqlite.h"
#include "infra/arrays.h"
#include "packet_peer.h"
#include "server_process.h"

namespace kalvo::testing {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kTrials = 10;
constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";
constexpr const char* kAction = "AC000000-0000-4000-8000-000000000001";

class CrashTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(db_.ok()); }

  std::unique_ptr<ServerProcess> StartServer() {
    return std::make_unique<ServerProcess>(
        "", FreshSqlite::DatabaseKey() +
                "[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara\\KDX\\Backup]\r\n"
                "\"Automatic\"=dword:00000001\r\n\r\n");
  }

  // Sends one request through `send` to a fresh server and kills the server at a random moment
  // of what the request takes whole (measured on the first call, which is never cut off).
  // `read` gives what the database holds; the test fails unless, after each cut, it equals
  // what it held before the request or `after` (what the request writes).
  template <typename Send, typename Read>
  void CutOffAtRandomMoments(const std::string& what, Send&& send, Read&& read,
                             const std::function<std::string(int)>& after) {
    std::mt19937 random(20261124);
    std::chrono::microseconds whole{0};
    int cut = 0;
    for (int trial = 0; trial <= kTrials; ++trial) {
      const std::string before = read();
      auto server = StartServer();
      PacketPeer peer(server->port());
      const auto start = Clock::now();
      send(peer, trial);
      if (trial == 0) {
        ASSERT_NE(peer.Receive(60000).PackageID, 0) << what << "\n" << server->Log();
        whole = std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
      } else {
        std::this_thread::sleep_until(
            start + std::chrono::microseconds(
                        std::uniform_int_distribution<int64_t>(0, whole.count() * 5 / 4)(random)));
        server.reset();  // SIGKILL
      }
      const std::string now = read();
      if (now != after(trial)) {
        ASSERT_EQ(now, before) << what << ": trial " << trial << " left neither state";
        ++cut;
      }
    }
    // Not every moment falls inside the request, but some must for the test to mean anything.
    RecordProperty(what + "_cut_before_done", cut);
    std::printf("%s: %d of %d requests cut off before they were done (whole: %lld us)\n",
                what.c_str(), cut, kTrials, static_cast<long long>(whole.count()));
  }

  std::string Query(std::string_view sql) { return db_.Query(sql); }
  void MustExecute(std::string_view sql) { db_.MustExecute(sql); }

  FreshSqlite db_;
};

// A backup of 1 MiB in 256 parts; one automatic backup is kept, so every store also deletes
// the previous one.
TEST_F(CrashTest, ABackupIsWholeOrTheOneBeforeIsStillThere) {
  auto data = [](int trial) { return std::string(1 << 20, static_cast<char>('a' + trial)); };
  auto read = [&] {
    std::string time;
    return DBGetTokenBackupData(db_.database(), kAnna, "1", kAutomaticBackup, time) + "|" +
           Query("SELECT COUNT(DISTINCT backup_index) FROM tbl_kdx_backup");
  };
  CutOffAtRandomMoments(
      "backup",
      [&](PacketPeer& client, int trial) {
        ASSERT_EQ(client.Exchange(101, kAnna, "", "anna").PackageID, 101);
        client.Send(115, data(trial), "", "1", "auto" + std::to_string(trial));
      },
      read, [&](int trial) { return data(trial) + "|1"; });
}

// An action replaced by one with a payload of 1 MiB in 256 parts.
TEST_F(CrashTest, AnActionIsWholeOrAsBefore) {
  auto definition = [](int trial) {
    return std::string(kAction) + "|Aufgabe " + std::to_string(trial) +
           "|2|1|5|2027-01-01-00-00-00||0|" + kAnna + "|ldap$admin|" +
           std::string(1 << 20, static_cast<char>('a' + trial));
  };
  const std::optional<ActionDefinition> first = [&] {
    ActionDefinition a;
    a.guid = kAction;
    a.name = "Aufgabe";
    a.type = 2;
    a.period = 1;
    a.priority = 5;
    a.first_time = "2027-01-01-00-00-00";
    a.members = kAnna;
    a.data = "alt";
    return std::optional(a);
  }();
  ASSERT_TRUE(DBSetActionData(db_.database(), *first, false));
  auto read = [&] {
    return Query("SELECT action_name FROM tbl_kdx_job_properties") + "#" +
           Query("SELECT member_guid FROM tbl_kdx_job_members") + "#" +
           DBGetActionObjectData(db_.database(), kAction);
  };
  CutOffAtRandomMoments(
      "action",
      [&](PacketPeer& console, int trial) { console.Send(318, definition(trial), "UPDATE"); }, read,
      [&](int trial) {
        return "Aufgabe " + std::to_string(trial) + "#" + kAnna + "#" +
               std::string(1 << 20, static_cast<char>('a' + trial)) + "|ldap$admin";
      });
}

// 300 groups of three members each, replaced by 300 others.
TEST_F(CrashTest, TheGroupsAreAllNewOrAllAsBefore) {
  auto groups = [](int trial) {
    std::vector<std::string> lines;
    for (int g = 0; g < 300; ++g) {
      char guid[37];
      std::snprintf(guid, sizeof guid, "6E000000-0000-4000-8000-%012d", g);
      lines.push_back(std::string(guid) + "|Gruppe " + std::to_string(g) + "/" +
                      std::to_string(trial) + "|Beschreibung|" + std::to_string(g % 32) + "|" +
                      kAnna + "$A1B2C3D4-0000-4000-8000-00000000000B$" +
                      "A1B2C3D4-0000-4000-8000-00000000000C");
    }
    return Join(lines, "\r\n");
  };
  auto read = [&] {
    return Query("SELECT group_name FROM tbl_kdx_groups ORDER BY group_guid") + "#" +
           Query("SELECT COUNT(*) FROM tbl_kdx_token_groups");
  };
  CutOffAtRandomMoments(
      "groups", [&](PacketPeer& console, int trial) { console.Send(302, groups(trial)); }, read,
      [&](int trial) {
        std::vector<std::string> names;
        for (int g = 0; g < 300; ++g) {
          names.push_back("Gruppe " + std::to_string(g) + "/" + std::to_string(trial));
        }
        return Join(names, "$") + "#900";
      });
}

// 300 tokens with rows in four tables, deleted by one request; made again after each trial.
TEST_F(CrashTest, DeletedTokensAreAllGoneOrAllThere) {
  std::vector<std::string> guids;
  for (int t = 0; t < 300; ++t) {
    char guid[37];
    std::snprintf(guid, sizeof guid, "70000000-0000-4000-8000-%012d", t);
    guids.push_back(guid);
  }
  auto make = [&] {
    if (Query("SELECT COUNT(*) FROM tbl_kdx_token") != "0") return;
    for (const std::string& g : guids) {
      MustExecute("INSERT INTO tbl_kdx_token VALUES ('" + g + "','p','','','','','','')");
      MustExecute("INSERT INTO tbl_kdx_backup VALUES ('" + g + "','b',1,1,1,0,'','t')");
      MustExecute("INSERT INTO tbl_kdx_logging_client VALUES ('" + g +
                  "','','CONNECT','t','','','')");
    }
  };
  // Read before each trial, which then starts again from all of them.
  auto read = [&] {
    const std::string now = Query("SELECT COUNT(*) FROM tbl_kdx_token") + "|" +
                            Query("SELECT COUNT(*) FROM tbl_kdx_backup") + "|" +
                            Query("SELECT COUNT(*) FROM tbl_kdx_logging_client");
    if (now == "0|0|0") make();
    return now;
  };
  make();
  CutOffAtRandomMoments(
      "tokens", [&](PacketPeer& console, int) { console.Send(328, Join(guids, "\r\n")); }, read,
      [](int) { return std::string("0|0|0"); });
}

}  // namespace
}  // namespace kalvo::testing
