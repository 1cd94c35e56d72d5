// The action requests of consoles (317-325) and the task hand-out and results of token clients
// (327, 326) on each engine.
#include "db/actions.h"
#include "handlers_fixture.h"

namespace kalvo::testing {
namespace {

constexpr const char* kAnna = "A1B2C3D4-0000-4000-8000-00000000000A";
constexpr const char* kA1 = "AC000000-0000-4000-8000-000000000001";
constexpr const char* kA2 = "AC000000-0000-4000-8000-000000000002";

// A 318 definition for Anna, once per token, running since 2027.
std::string Definition(std::string_view guid, std::string_view type, std::string_view priority,
                       std::string_view payload) {
  return std::string(guid) + "|Aufgabe " + std::string(priority) + "|" + std::string(type) + "|0|" +
         std::string(priority) + "|2027-01-01-00-00-00||0|" + kAnna + "|src$owner|" +
         std::string(payload);
}

using ActionRequestsTest = HandlersTest;

TEST_P(ActionRequestsTest, ConsolesDefineReadStopAndDeleteActions) {
  // The payload holds "|" and is longer than one part.
  const std::string payload = "a|b|" + std::string(1500, 'p');
  auto sent = Handle(3, Packet(318, Definition(kA1, "2", "5", payload)));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet.Misc1, "OK");
  EXPECT_EQ(sent[0].packet.Data,
            std::string(kA1) + "$Aufgabe 5$2$0$5$2027-01-01-00-00-00$$0$2$" + kAnna);
  EXPECT_TRUE(Logged("DoSocketAction: ID: 318 Socket: 3 Daten gesendet"));
  EXPECT_EQ(Handle(3, Packet(317, kA1)).at(0).packet, Packet(317, payload + "|src$owner"));

  EXPECT_EQ(Handle(3, Packet(318, Definition(kA1, "2", "5", "x"))).at(0).packet.Misc1, "ERROR")
      << "the GUID is taken";
  sent = Handle(3, Packet(318, Definition(kA1, "2", "7", "x"), "UPDATE"));
  EXPECT_EQ(sent.at(0).packet.Misc1, "OK");
  EXPECT_NE(sent[0].packet.Data.find("$Aufgabe 7$"), std::string::npos) << sent[0].packet.Data;
  EXPECT_EQ(Handle(3, Packet(318, Definition(kA2, "zwei", "5", "x"))).at(0).packet.Misc1, "ERROR")
      << "a type that is no number";
  EXPECT_EQ(Handle(3, Packet(318, "kurz|zu")).at(0).packet.Misc1, "ERROR");

  EXPECT_EQ(Handle(3, Packet(322, kA1)).at(0).packet, Packet(322, "3", "OK"));
  EXPECT_EQ(Handle(3, Packet(323, kA1)).at(0).packet, Packet(323, "2", "OK"));
  EXPECT_EQ(Handle(3, Packet(324, kA1)).at(0).packet.Data, std::string(kAnna) + "$$0");
  EXPECT_EQ(Handle(3, Packet(325, kAnna)).at(0).packet.Data, std::string(kA1) + "$Aufgabe 7$0$0$0");
  EXPECT_EQ(Handle(3, Packet(319)).at(0).packet.Data.substr(0, 36), kA1);
  EXPECT_EQ(Handle(3, Packet(320, kA1)).at(0).packet, Packet(320, "", "OK"));
}

TEST_P(ActionRequestsTest, AClientRunsItsTasksOneByOneHighestPriorityFirst) {
  Handle(1, Packet(101, kAnna, "", "anna", ""));
  Handle(3, Packet(318, Definition(kA1, "2", "1", "niedrig")));
  Handle(3, Packet(318, Definition(kA2, "2", "9", "hoch")));

  EXPECT_TRUE(Handle(1, Packet(327, "kein GUID")).empty());
  auto sent = Handle(1, Packet(327, kAnna));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(sent[0].packet, Packet(327, std::string(kA2) + "|2|hoch|src$owner"));

  const std::string done = std::string(kA2) + "$" + kAnna + "$2$2027-03-01-09-05-03";
  sent = Handle(1, Packet(326, "", "", "", done));
  ASSERT_EQ(sent.size(), 1u) << "the next task";
  EXPECT_EQ(sent[0].packet, Packet(327, std::string(kA1) + "|2|niedrig|src$owner"));
  EXPECT_TRUE(
      Handle(1, Packet(326, "", "", "", std::string(kA1) + "$" + kAnna + "$2$2027-03-01-09-05-04"))
          .empty())
      << "nothing after the last task";
  EXPECT_TRUE(state_.pending_task_collections.empty());
  EXPECT_EQ(Query("SELECT action_guid, action_counter, success_counter FROM tbl_kdx_job_state "
                  "ORDER BY action_guid"),
            std::string(kA1) + "|1|1$" + kA2 + "|1|1");
  EXPECT_EQ(Query("SELECT COUNT(*) FROM tbl_kdx_logging_client WHERE token_action = 'EXECUTE'"),
            "2");
  // Both ran once: nothing is due any more.
  EXPECT_EQ(Handle(1, Packet(327, kAnna)).at(0).packet, Packet(327, "NONE"));
  EXPECT_TRUE(state_.pending_task_collections.empty());
}

TEST_P(ActionRequestsTest, ABackupTaskStoresItsResultAndAnErrorEndsTheHandout) {
  Handle(1, Packet(101, kAnna, "", "anna", ""));
  Handle(3, Packet(318, Definition(kA1, "1", "9", "")));
  Handle(3, Packet(318, Definition(kA2, "2", "1", "x")));
  ASSERT_EQ(Handle(1, Packet(327, kAnna)).at(0).packet.Data, std::string(kA1) + "|1||src$owner");

  const std::string backup = std::string("Inhalt\0|\xFF", 9);
  auto sent = Handle(1, Packet(326, backup, "", "", std::string(kA1) + "$" + kAnna + "$1$x"));
  ASSERT_EQ(sent.size(), 1u);
  EXPECT_EQ(Query("SELECT backup_name, backup_type, backup_index FROM tbl_kdx_backup"),
            "Backup vom 01.03.2027 um 09-05-03|1|1");

  // The second task fails: it is recorded, and the client is handed nothing more.
  EXPECT_TRUE(
      Handle(1, Packet(326, "", "ERROR", "", std::string(kA2) + "$" + kAnna + "$2$x")).empty());
  EXPECT_EQ(Query("SELECT action_counter, success_counter FROM tbl_kdx_job_state "
                  "WHERE action_guid = '" +
                  std::string(kA2) + "'"),
            "1|0");
}

KALVO_INSTANTIATE_ENGINES(ActionRequestsTest);

}  // namespace
}  // namespace kalvo::testing
