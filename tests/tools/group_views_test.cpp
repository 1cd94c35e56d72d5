// Writing the group list back changed: the server replaces every group with what 302 carries,
// so a group or member the text loses is gone.
#include "kalvoctl/group_views.h"

#include <gtest/gtest.h>

namespace kalvo::ctl {
namespace {

const std::string kG1 = "2C39BFC3-7130-4937-B329-6C0863EC8375";
const std::string kG2 = "B0000000-0000-4000-8000-000000000002";
const std::string kT1 = "A1B2C3D4-0000-4000-8000-00000000000A";
const std::string kT2 = "A1B2C3D4-0000-4000-8000-00000000000B";

TEST(GroupData, WhatThe301AnswerSaysGoesBackWithOnlyTheMembersGuids) {
  // Persons may hold "$" and ",": only GUIDs go back, which the server reads alone.
  const std::string listed =
      kG1 + "|Jeder|Alle|0|" + kT1 + ",M$ller, A$" + kT2 + ",B\r\n" + kG2 + "|Admins|x|31|";
  const auto groups = ParseGroupList(listed);
  ASSERT_EQ(groups.size(), 2u);
  EXPECT_EQ(FormatGroupData(groups),
            kG1 + "|Jeder|Alle|0|" + kT1 + "$" + kT2 + "\r\n" + kG2 + "|Admins|x|31|");
  GroupRow odd{kG2, "Odd", "", "viel", {}};
  EXPECT_EQ(FormatGroupData({odd}), kG2 + "|Odd||0|") << "abilities that are no number";
  EXPECT_EQ(FormatGroupData({}), "");
}

TEST(GroupData, GroupsAreFoundByGuidFirstThenByExactName) {
  const std::vector<GroupRow> groups = {
      {kG1, "Jeder", "", "0", {}},
      {kG2, "Admins", "", "0", {}},
      {"C0000000-0000-4000-8000-000000000003", "Twice", "", "0", {}},
      {"C0000000-0000-4000-8000-000000000004", "Twice", "", "0", {}}};
  const struct {
    std::string wanted;
    std::optional<size_t> index;
    const char* error;  // part of the message
  } cases[] = {
      {kG2, 1, ""},
      {"b0000000-0000-4000-8000-000000000002", 1, ""},  // GUIDs in any case
      {"Admins", 1, ""},
      {"admins", std::nullopt, "no group is named"},  // names are exact
      {"Twice", std::nullopt, "several groups"},
      {"", std::nullopt, "no group is named"},
  };
  for (const auto& c : cases) {
    std::string error;
    EXPECT_EQ(FindGroup(groups, c.wanted, error), c.index) << c.wanted;
    EXPECT_NE(error.find(c.error), std::string::npos) << c.wanted << ": " << error;
  }
}

TEST(GroupData, MembersAreAddedOnceAndRemovedInAnyCase) {
  GroupRow g{kG1, "Jeder", "", "0", {{kT1, "Anna"}}};
  ChangeMembers(g, {kT1, kT2, kT2}, {});
  ASSERT_EQ(g.members.size(), 2u);
  EXPECT_EQ(g.members[0].person, "Anna") << "an existing member stays as it was";
  std::string lower = kT1;
  for (char& c : lower) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  ChangeMembers(g, {}, {lower});
  ASSERT_EQ(g.members.size(), 1u);
  EXPECT_EQ(g.members[0].guid, kT2);
}

TEST(GroupData, TextsThatWouldSplitARecordAreRefused) {
  EXPECT_TRUE(IsGroupText("Vertrieb & Co. (S\xFC\x64)"));
  EXPECT_TRUE(IsGroupText("a$b,c"));
  EXPECT_FALSE(IsGroupText("a|b"));
  EXPECT_FALSE(IsGroupText("a\r\nb"));
  EXPECT_FALSE(IsGroupText("a\nb"));
}

}  // namespace
}  // namespace kalvo::ctl
