#include "net/address_filter.h"

#include <gtest/gtest.h>

namespace kalvo {
namespace {

TEST(AddressFilter, EmptyListLetsEveryoneThrough) {
  for (const char* list : {"", "  ", "\t"}) {
    std::vector<std::string> problems;
    const AddressFilter f = AddressFilter::Parse(list, &problems);
    EXPECT_TRUE(f.AllowsEveryone());
    EXPECT_TRUE(f.Allows("203.0.113.9"));
    EXPECT_TRUE(problems.empty());
  }
}

TEST(AddressFilter, AddressesAndRangesMatchTheirNetworkOnly) {
  std::vector<std::string> problems;
  const AddressFilter f =
      AddressFilter::Parse(" 192.168.10.0/24 ,10.1.2.3, 172.16.0.0/12,127.0.0.1/32", &problems);
  EXPECT_TRUE(problems.empty());
  EXPECT_FALSE(f.AllowsEveryone());
  const struct {
    const char* address;
    bool allowed;
  } cases[] = {
      {"192.168.10.0", true},
      {"192.168.10.255", true},
      {"192.168.11.1", false},
      {"10.1.2.3", true},
      {"10.1.2.4", false},
      {"172.16.0.1", true},
      {"172.31.255.255", true},
      {"172.32.0.0", false},
      {"127.0.0.1", true},
      {"127.0.0.2", false},
      {"", false},
      {"not an address", false},
  };
  for (const auto& c : cases) EXPECT_EQ(f.Allows(c.address), c.allowed) << c.address;
  // A range's host bits do not matter; /0 is every address.
  EXPECT_TRUE(AddressFilter::Parse("192.168.10.77/24", nullptr).Allows("192.168.10.1"));
  EXPECT_TRUE(AddressFilter::Parse("1.2.3.4/0", nullptr).Allows("203.0.113.9"));
}

TEST(AddressFilter, BadEntriesAreNamedAndNeverOpenTheFilter) {
  std::vector<std::string> problems;
  AddressFilter f =
      AddressFilter::Parse("10.0.0.1, 10.0.0/8, 10.0.0.0/33, 10.0.0.0/-1, host", &problems);
  ASSERT_EQ(problems.size(), 4u);
  EXPECT_NE(problems[0].find("\"10.0.0/8\""), std::string::npos);
  EXPECT_TRUE(f.Allows("10.0.0.1"));
  EXPECT_FALSE(f.Allows("10.0.0.2"));
  // Every entry bad: nobody, not everybody.
  problems.clear();
  f = AddressFilter::Parse("localhost", &problems);
  EXPECT_EQ(problems.size(), 1u);
  EXPECT_FALSE(f.AllowsEveryone());
  EXPECT_FALSE(f.Allows("127.0.0.1"));
}

}  // namespace
}  // namespace kalvo
