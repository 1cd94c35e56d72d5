// The action views of kalvoctl: the 318 definition from options and JSON, the JSON reader,
// and reading the action and detail lists.
#include "kalvoctl/action_views.h"

#include <gtest/gtest.h>

#include "infra/guid.h"

namespace kalvo::ctl {
namespace {

const std::string kG1 = "0A1B2C3D-0000-4000-8000-000000000001";
const std::string kG2 = "0A1B2C3D-0000-4000-8000-000000000002";

ActionDraft Draft() {
  ActionDraft d;
  d.guid = kG1;
  d.name = "Zertifikat";
  d.period = 2;
  d.priority = 4;
  d.first_time = "2027-01-01-00-00-00";
  d.members = {kG2};
  d.sources = {{"ldap", "admin"}, {"file", ""}};
  d.data = "a|b";
  return d;
}

TEST(ActionViews, TheDefinitionTravelsInElevenFieldsWithThePayloadLast) {
  const SocketDataStruct r = MakeDefineActionRequest(Draft(), true);
  EXPECT_EQ(r.PackageID, 318);
  EXPECT_EQ(r.Misc1, "UPDATE");
  EXPECT_EQ(r.Data,
            kG1 + "|Zertifikat|2|2|4|2027-01-01-00-00-00||0|" + kG2 + "|ldap$admin\r\nfile$|a|b");
  EXPECT_EQ(MakeDefineActionRequest(Draft(), false).Misc1, "");

  EXPECT_EQ(ActionDraftProblem(Draft()), "");
  ActionDraft d = Draft();
  d.name = "a|b";
  EXPECT_NE(ActionDraftProblem(d), "") << "only the payload may hold |";
  d = Draft();
  d.name = "Anna's";
  EXPECT_NE(ActionDraftProblem(d), "");
  d = Draft();
  d.members = {"Team"};
  EXPECT_NE(ActionDraftProblem(d), "");
  d = Draft();
  d.sources = {{"a$b", ""}};
  EXPECT_NE(ActionDraftProblem(d), "");
  d = Draft();
  d.first_time.clear();
  EXPECT_NE(ActionDraftProblem(d), "");
}

TEST(ActionViews, ADefinitionFileIsReadWithItsWordsAndDates) {
  std::string error;
  const auto doc = ParseJson(
      R"({"guid": ")" + kG1 +
          R"(", "name": "M\u00fcller \"K\"", "type": 1, "period": "weekly",
           "first": "2027-03-01 08:00", "last": null, "stopped": true,
           "members": [")" +
          kG2 + R"("], "sources": [{"source": "ldap", "owner": "root"}, {"source": "x"}]})",
      error);
  ASSERT_TRUE(doc) << error;
  ActionDraft d;
  ASSERT_TRUE(ReadActionDraft(*doc, d, error)) << error;
  EXPECT_EQ(d.name, "M\xFCller \"K\"");
  EXPECT_EQ(d.type, 1);
  EXPECT_EQ(d.period, 3);
  EXPECT_EQ(d.first_time, "2027-03-01-08-00-00");
  EXPECT_TRUE(d.stopped);
  EXPECT_EQ(d.members, std::vector<std::string>{kG2});
  ASSERT_EQ(d.sources.size(), 2u);
  EXPECT_EQ(d.sources[1], (std::pair<std::string, std::string>{"x", ""}));

  for (const char* bad :
       {R"({"type": 1.5})", R"({"period": "sometimes"})", R"({"first": "gestern"})",
        R"({"colour": "red"})", R"({"members": [1]})", R"([1])"}) {
    const auto v = ParseJson(bad, error);
    ASSERT_TRUE(v) << bad << ": " << error;
    EXPECT_FALSE(ReadActionDraft(*v, d, error)) << bad;
  }
  for (const char* bad : {"{", R"({"a": tru})", R"({"a": "x})", R"({"a": 1} x)", "[1,]"}) {
    EXPECT_FALSE(ParseJson(bad, error)) << bad;
    EXPECT_NE(error.find("at offset"), std::string::npos) << bad;
  }
}

TEST(ActionViews, ListsAndWords) {
  auto rows = ParseActionList(kG1 + "$Name$mit|Zeichen$2$3$9$2027-01-01-00-00-00$$1$3$" + kG2 +
                              "," + kG1 + "|" + kG2 + "$b$1$0$1$$$0$0$");
  ASSERT_EQ(rows.size(), 2u);
  EXPECT_EQ(rows[0].name, "Name$mit|Zeichen");
  EXPECT_EQ(rows[0].state, "3");
  EXPECT_EQ(rows[0].members, (std::vector<std::string>{kG2, kG1}));
  EXPECT_TRUE(rows[1].members.empty());
  EXPECT_EQ(ActionStateName("3"), "stopped");
  EXPECT_EQ(ActionStateName("-1"), "not found");
  EXPECT_EQ(ActionPeriodName("9"), "connect");
  EXPECT_EQ(ActionPeriodName("-2"), "never");
  EXPECT_EQ(ActionPeriod("Monthly"), 5);
  EXPECT_EQ(ActionPeriod("7"), 7);
  EXPECT_FALSE(ActionPeriod("sometimes"));

  const auto details =
      ParseActionDetails(kG1 + "$Anna$0\r\n" + kG2 + "$B$e$rt$2027-03-01-10-00-00$2$1");
  ASSERT_EQ(details.size(), 2u);
  EXPECT_EQ(details[0].runs, "0");
  EXPECT_EQ(details[0].last_time, "");
  EXPECT_EQ(details[1].person, "B$e$rt");
  EXPECT_EQ(details[1].successes, "1");
  EXPECT_EQ(FormatActionDetailsJson(kG1, {details[1]}),
            "{\"action\":\"" + kG1 + "\",\"tokens\":[{\"token\":\"" + kG2 +
                "\",\"person\":\"B$e$rt\",\"lastRun\":\"2027-03-01T10:00:00\",\"runs\":2,"
                "\"successes\":1}]}\n");
  EXPECT_NE(FormatActionTable(rows).find("stopped"), std::string::npos);
  EXPECT_TRUE(IsGUID(NewGuid()));
  EXPECT_NE(NewGuid(), NewGuid());
}

}  // namespace
}  // namespace kalvo::ctl
