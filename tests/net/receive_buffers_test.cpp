#include "net/receive_buffers.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "log_capture.h"
#include "packet_printer.h"

namespace kalvo {
namespace {

// The wire text of a packet with `id` and `data`, sized as a sender sizes it.
std::string Wire(Log& log, int32_t id, std::string data, std::string misc1 = "") {
  SocketDataStruct r;
  r.PackageID = id;
  r.Misc1 = std::move(misc1);
  r.DataSize = static_cast<int32_t>(data.size());
  r.Data = std::move(data);
  r.PackageSize = SocketGetPackageSize(log, r);
  return SocketStructToString(log, r);
}

class FramingTest : public ::testing::Test {
 protected:
  void SetUp() override { log_works_ = capture_.Works(); }

  // One data arrival as the connection layer handles it: append, then take packets until
  // none is complete. Gives the packets executed.
  std::vector<SocketDataStruct> Arrive(int index, std::string_view chunk) {
    std::vector<SocketDataStruct> executed;
    if (!buffers_.SocketGetData(index, chunk, admin_login_flag_)) return executed;
    SocketDataStruct current;
    while (buffers_.SocketPrepareDataForExecution(index, current)) executed.push_back(current);
    return executed;
  }

  std::vector<std::string> Data(const std::vector<SocketDataStruct>& packets) {
    std::vector<std::string> out;
    for (const auto& p : packets) out.push_back(p.Data);
    return out;
  }

  testing::LogCapture capture_;
  bool log_works_ = false;
  ReceiveBuffers buffers_{capture_.log()};
  bool admin_login_flag_ = false;
};

using Strings = std::vector<std::string>;

TEST_F(FramingTest, TwoPacketsInOneChunkAreBothExecutedInOrder) {
  const std::string chunk = Wire(capture_.log(), 102, "first") + Wire(capture_.log(), 102, "2nd");
  EXPECT_EQ(Data(Arrive(3, chunk)), (Strings{"first", "2nd"}));
  EXPECT_FALSE(buffers_.Contains(3));
}

TEST_F(FramingTest, PacketOverThreeChunksIsExecutedOnceAtTheThird) {
  const std::string wire = Wire(capture_.log(), 115, "backup|with|bars");
  EXPECT_TRUE(Arrive(1, wire.substr(0, 8)).empty());
  EXPECT_TRUE(Arrive(1, wire.substr(8, 10)).empty());
  EXPECT_EQ(buffers_.PendingSize(1), 18u);
  EXPECT_EQ(Data(Arrive(1, wire.substr(18))), (Strings{"backup|with|bars"}));
  EXPECT_FALSE(buffers_.Contains(1));
}

TEST_F(FramingTest, WhatCannotStartAPacketIsDropped) {
  const std::string valid = Wire(capture_.log(), 102, "PC042");
  struct Case {
    std::string chunk;
    size_t executed;
    const char* why;
  } cases[] = {
      {"hello world", 0, "a plain word: no size"},
      {"hello|" + valid, 0, "a word before a packet takes the packet with it"},
      {"x" + valid, 0, "keep-alive glued in front: size field is no number"},
      {valid + "x", 1, "keep-alive glued behind: packet served, remainder dropped"},
      {valid + "garbage", 1, "garbage behind a packet is dropped after it"},
      {"0|1|0||||0|", 0, "size 0"},
      {"-5|1|0||||0|", 0, "negative size"},
      {"12345678901234", 0, "digits longer than any size field"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(Arrive(2, c.chunk).size(), c.executed) << c.why;
    EXPECT_FALSE(buffers_.Contains(2)) << c.why;
    // The connection goes on: the next packet is served.
    EXPECT_EQ(Data(Arrive(2, valid)), (Strings{"PC042"})) << c.why;
  }
  if (log_works_) {
    EXPECT_EQ(capture_.Count("KeepAlive received"), 0);
  }
}

TEST_F(FramingTest, PacketCutInsideItsSizeFieldWaitsForTheRest) {
  const std::string wire = Wire(capture_.log(), 115, "backup");
  EXPECT_TRUE(Arrive(3, wire.substr(0, 1)).empty());
  EXPECT_TRUE(buffers_.Contains(3));
  EXPECT_EQ(Data(Arrive(3, wire.substr(1))), (Strings{"backup"}));
}

TEST_F(FramingTest, KeepAliveAloneIsLoggedOnceAndExecutesNothing) {
  EXPECT_TRUE(Arrive(4, "xxx").empty());
  EXPECT_FALSE(buffers_.Contains(4));
  if (log_works_) {
    EXPECT_EQ(capture_.Count("KeepAlive received"), 1);
  }
}

TEST_F(FramingTest, ConnectionsKeepSeparateBuffers) {
  const std::string a = Wire(capture_.log(), 1, "from one");
  const std::string b = Wire(capture_.log(), 2, "from two");
  EXPECT_TRUE(Arrive(1, a.substr(0, 5)).empty());
  EXPECT_TRUE(Arrive(2, b.substr(0, 7)).empty());
  EXPECT_EQ(Data(Arrive(2, b.substr(7))), (Strings{"from two"}));
  EXPECT_EQ(Data(Arrive(1, a.substr(5))), (Strings{"from one"}));
  EXPECT_EQ(ReceiveBuffers::Key(3), "3Socket");
}

TEST_F(FramingTest, RemoveForgetsAPartialPacket) {
  const std::string wire = Wire(capture_.log(), 1, "abc");
  Arrive(5, wire.substr(0, 6));
  buffers_.Remove(5);
  buffers_.Remove(6);  // no entry: no error
  EXPECT_FALSE(buffers_.Contains(5));
  EXPECT_TRUE(Arrive(5, wire.substr(6)).empty());  // the tail alone is garbage
}

TEST_F(FramingTest, AdminLoginFlagFollowsEachChunk) {
  Arrive(1, Wire(capture_.log(), 501, ""));
  EXPECT_TRUE(admin_login_flag_);
  EXPECT_FALSE(buffers_.SocketGetData(1, "", admin_login_flag_));  // empty read changes nothing
  EXPECT_TRUE(admin_login_flag_);
  Arrive(1, Wire(capture_.log(), 350, ""));
  EXPECT_FALSE(admin_login_flag_);
}

TEST_F(FramingTest, RandomChunkingYieldsEveryPacketOnce) {
  std::mt19937 rng(7);
  std::vector<SocketDataStruct> sent;
  std::string stream;
  std::vector<size_t> header_cuts;  // positions that would cut a size field before its "|"
  for (int i = 0; i < 300; ++i) {
    std::string data(std::uniform_int_distribution<size_t>(0, 400)(rng), '\0');
    for (auto& ch : data) ch = static_cast<char>(std::uniform_int_distribution<int>(0, 255)(rng));
    SocketDataStruct r;
    r.PackageID = i;
    r.Misc2 = "m" + std::to_string(i);
    r.DataSize = static_cast<int32_t>(data.size());
    r.Data = data;
    r.PackageSize = SocketGetPackageSize(capture_.log(), r);
    for (size_t k = 1; k <= std::to_string(r.PackageSize).size(); ++k) {
      header_cuts.push_back(stream.size() + k);
    }
    stream += SocketStructToString(capture_.log(), r);
    sent.push_back(r);
  }
  std::vector<SocketDataStruct> received;
  size_t pos = 0;
  while (pos < stream.size()) {
    size_t next = std::min(stream.size(), pos + std::uniform_int_distribution<size_t>(1, 900)(rng));
    while (std::find(header_cuts.begin(), header_cuts.end(), next) != header_cuts.end()) ++next;
    for (auto& p : Arrive(9, std::string_view(stream).substr(pos, next - pos))) {
      received.push_back(p);
    }
    pos = next;
  }
  EXPECT_EQ(received, sent);
}

class MaxPackageSizeTest : public FramingTest {
 protected:
  void SetUp() override {
    FramingTest::SetUp();
    buffers_.set_max_package_size(101);  // 100 is no possible packet size
  }
};

TEST_F(MaxPackageSizeTest, APacketAboveTheBoundIsDroppedAndLogged) {
  const std::string big = Wire(capture_.log(), 115, std::string(130, 'b'));
  ASSERT_EQ(big.size(), 147u);
  EXPECT_TRUE(Arrive(3, big.substr(0, 40)).empty());
  EXPECT_FALSE(buffers_.Contains(3));
  if (log_works_) {
    EXPECT_EQ(capture_.Count("ReceiveBuffer of connection 3 dropped: size 147 exceeds "
                             "MaxPackageSize 101"),
              1);
  }
  // The rest of the big packet is garbage; the connection then goes on.
  EXPECT_TRUE(Arrive(3, big.substr(40)).empty());
  EXPECT_EQ(Data(Arrive(3, Wire(capture_.log(), 1, "ok"))), (Strings{"ok"}));
}

TEST_F(MaxPackageSizeTest, APacketOfExactlyTheBoundIsServed) {
  const std::string wire = Wire(capture_.log(), 115, std::string(85, 'b'));
  ASSERT_EQ(wire.size(), 101u);
  EXPECT_EQ(Arrive(3, wire).size(), 1u);
}

TEST_F(MaxPackageSizeTest, ManySmallPacketsInOneLongChunkAreAllServed) {
  std::string chunk;
  for (int i = 0; i < 20; ++i) chunk += Wire(capture_.log(), i, "0123456789");
  ASSERT_GT(chunk.size(), 101u);
  EXPECT_EQ(Arrive(3, chunk).size(), 20u);
}

TEST_F(MaxPackageSizeTest, ALongChunkWithoutAValidSizeIsDroppedOnArrival) {
  EXPECT_TRUE(Arrive(3, std::string(150, 'z') + "|").empty());
  EXPECT_FALSE(buffers_.Contains(3));
  if (log_works_) {
    EXPECT_EQ(capture_.Count(
                  "ReceiveBuffer of connection 3 dropped: size 151 exceeds MaxPackageSize 101"),
              1);
  }
}

// Guards against framing that rescans or copies the whole buffer per arrival or per packet:
// such code needs far longer than the test's time limit here, linear code milliseconds.
TEST_F(FramingTest, LargePacketInSmallChunksAndManyPacketsInOneChunkStayLinear) {
  const std::string big = Wire(capture_.log(), 115, std::string(4 << 20, 'd'));
  size_t served = 0;
  for (size_t pos = 0; pos < big.size(); pos += 64) {
    served += Arrive(1, std::string_view(big).substr(pos, 64)).size();
  }
  EXPECT_EQ(served, 1u);

  std::string many;
  const std::string one = Wire(capture_.log(), 101, "0123456789012345678901234567890123456789");
  for (int i = 0; i < 100000; ++i) many += one;
  EXPECT_EQ(Arrive(2, many).size(), 100000u);
}

}  // namespace
}  // namespace kalvo
