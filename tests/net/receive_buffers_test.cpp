#include "net/receive_buffers.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

#include "log_capture.h"
#include "packet_printer.h"
#include "reference_framing.h"

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

// A buffer of exactly the bound is not yet too long: it is its size field that is too big,
// and the log names that size, not the buffer's.
TEST_F(MaxPackageSizeTest, ABufferOfExactlyTheBoundIsJudgedByItsSizeField) {
  std::string wire = "200|" + std::string(97, 'x');
  ASSERT_EQ(wire.size(), 101u);
  EXPECT_TRUE(Arrive(3, wire).empty());
  EXPECT_FALSE(buffers_.Contains(3));
  if (log_works_) {
    EXPECT_EQ(capture_.Count("ReceiveBuffer of connection 3 dropped: size 200 exceeds "
                             "MaxPackageSize 101"),
              1);
  }
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

// Framing must look at each received byte a bounded number of times. The work is counted,
// not timed: code that rescans the buffer, or re-reads a size field, per packet or per arrival
// needs thousands of times the bytes received in these cases; linear code a small multiple.
class FramingWorkTest : public FramingTest {
 protected:
  // Work per byte received so far on all connections.
  double WorkPerByte() const {
    return static_cast<double>(buffers_.bytes_examined()) / static_cast<double>(received_);
  }
  std::vector<SocketDataStruct> ArriveCounted(int index, std::string_view chunk) {
    received_ += chunk.size();
    return Arrive(index, chunk);
  }
  static constexpr double kLinear = 16;
  size_t received_ = 0;
};

TEST_F(FramingWorkTest, LargePacketInSmallChunksIsLinear) {
  const std::string big = Wire(capture_.log(), 115, std::string(4 << 20, 'd'));
  size_t served = 0;
  for (size_t pos = 0; pos < big.size(); pos += 64) {
    served += ArriveCounted(1, std::string_view(big).substr(pos, 64)).size();
  }
  EXPECT_EQ(served, 1u);
  EXPECT_LT(WorkPerByte(), kLinear);
}

TEST_F(FramingWorkTest, ManyPacketsInOneChunkAreLinear) {
  std::string many;
  const std::string one = Wire(capture_.log(), 101, "0123456789012345678901234567890123456789");
  for (int i = 0; i < 100000; ++i) many += one;
  EXPECT_EQ(ArriveCounted(2, many).size(), 100000u);
  EXPECT_LT(WorkPerByte(), kLinear);
}

// A size of 1 in front of 65,533 zeros: each packet is one "0" and the next size is the rest
// of the same digits, 65,534 packets in all. Reading the digits again per packet is quadratic.
TEST_F(FramingWorkTest, SizeFieldLongerThanItsPacketIsReadOnce) {
  std::string chunk(64 * 1024 - 3, '0');
  chunk += "1|";
  EXPECT_EQ(ArriveCounted(3, chunk).size(), chunk.size() - 1);
  EXPECT_FALSE(buffers_.Contains(3));  // the "|" left over is garbage
  EXPECT_LT(WorkPerByte(), kLinear);
}

// Blanks before the digits are left out of the next size field just as zeros are.
TEST_F(FramingWorkTest, BlanksBeforeASizeFieldAreReadOnce) {
  std::string chunk(8 * 1024 - 3, ' ');
  chunk += "1|";
  EXPECT_EQ(ArriveCounted(3, chunk).size(), chunk.size() - 1);
  EXPECT_LT(WorkPerByte(), kLinear);
}

// A long fraction after the digits (rounded away) and blanks after it.
TEST_F(FramingWorkTest, LongFractionAndTrailingBlanksAreReadOnce) {
  std::string chunk =
      "00000000000000000000000000000001." + std::string(30000, '0') + std::string(30000, ' ') + "|";
  ArriveCounted(4, chunk);
  EXPECT_LT(WorkPerByte(), kLinear);
}

// ReceiveBuffers against the plain rules (reference_framing.h) on size fields whose packets
// end inside them, so that the next size is read from the rest of the same field.
TEST_F(FramingTest, SizeFieldsLongerThanTheirPacketsFrameAsThePlainRules) {
  const std::string tail = "|1|0||||0|";
  struct Case {
    std::string front;
    const char* why;
  } cases[] = {
      {"000000000005", "leading zeros: sizes 5, then the rest 0000005, then 5 again"},
      {"0000000000000000000000000002", "more than ten leading zeros"},
      {"    3", "blanks first: they go with the first packets"},
      {"\t\t2", "tabs first"},
      {"+0003", "a plus sign; the rest has none"},
      {"-0003", "a minus sign: no size at all"},
      {"2.5", "2.5 rounds to 2; the rest \".5\" rounds to 0"},
      {"3.5", "3.5 rounds to 4"},
      {"0000003.5", "the rest 003.5 rounds to 4, the rest 03.5 too"},
      {"0000002.5", "the rest 002.5 rounds to 2"},
      {"0.6", "0.6 rounds to 1, then \".6\" to 1, then 6"},
      {"1.50001", "a non-zero fraction tail rounds up"},
      {"0000000000000.51", "\".51\" alone rounds to 1"},
      {"1.", "a \".\" without fraction digits"},
      {"1.0000000000000000000000000009", "fraction digits become the next size"},
      {"0.6000000000000000001", "fraction digits that overflow as the next size"},
      {"2   ", "blanks after the digits: the rest holds no number"},
      {"0002147483647", "the largest 32-bit number (above the bound)"},
      {"00000000002147483648", "one more overflows"},
      {"10000000000000000000001", "overflow; every shorter rest is 1 after zeros"},
      {"12000000000000000001", "a non-zero digit just past ten places"},
      {"99999999999", "eleven nines overflow"},
      {"3x", "not a number"},
      {"1", "a size of one"},
  };
  std::mt19937 rng(11);
  for (const auto& c : cases) {
    const std::string text = c.front + tail + Wire(capture_.log(), 7, "after");
    // All at once, and in random cuts.
    for (int round = 0; round < 4; ++round) {
      ReceiveBuffers buffers(capture_.log(), 1000);
      testing::ReferenceFraming reference(1000);
      size_t pos = 0;
      while (pos < text.size()) {
        const size_t n =
            round == 0 ? text.size() : std::uniform_int_distribution<size_t>(1, 7)(rng);
        const std::string_view chunk = std::string_view(text).substr(pos, n);
        pos += chunk.size();
        std::vector<SocketDataStruct> got;
        bool flag = false;
        if (buffers.SocketGetData(1, chunk, flag)) {
          SocketDataStruct current;
          while (buffers.SocketPrepareDataForExecution(1, current)) got.push_back(current);
        }
        ASSERT_EQ(got, reference.Arrive(capture_.log(), chunk)) << c.why << " at " << pos;
        ASSERT_EQ(buffers.PendingSize(1), reference.pending()) << c.why << " at " << pos;
      }
    }
  }
}

// MaxBufferedBytes: a bound on what all connections' buffers hold together.
class MaxBufferedBytesTest : public FramingTest {
 protected:
  void SetUp() override {
    FramingTest::SetUp();
    buffers_.set_max_buffered_bytes(1000);
  }
  // The beginning of a packet that announces `size` bytes, `have` of them sent.
  std::string Unfinished(size_t size, size_t have) {
    std::string text = std::to_string(size) + "|115|0||||10|";
    text.resize(have, 'd');
    return text;
  }
  static std::string AddressOf(int index) { return "10.0.0." + std::to_string(index); }
  int DropOne() { return buffers_.DropLargestOverBound(&AddressOf); }
};

TEST_F(MaxBufferedBytesTest, WithinTheBoundNothingIsDropped) {
  Arrive(1, Unfinished(900, 400));
  Arrive(2, Unfinished(900, 600));
  EXPECT_EQ(buffers_.BufferedBytes(), 1000u);
  EXPECT_EQ(DropOne(), 0);
  EXPECT_TRUE(buffers_.Contains(1));
  EXPECT_TRUE(buffers_.Contains(2));
}

TEST_F(MaxBufferedBytesTest, PastTheBoundTheLargestBufferGoesAndIsLoggedOnce) {
  Arrive(1, Unfinished(900, 300));
  Arrive(2, Unfinished(900, 500));
  Arrive(3, Unfinished(900, 201));
  ASSERT_EQ(buffers_.BufferedBytes(), 1001u);
  EXPECT_EQ(DropOne(), 2);
  EXPECT_FALSE(buffers_.Contains(2));
  EXPECT_EQ(buffers_.BufferedBytes(), 501u);
  EXPECT_EQ(DropOne(), 0);  // within the bound again: the others stay
  EXPECT_TRUE(buffers_.Contains(1));
  EXPECT_TRUE(buffers_.Contains(3));
  ASSERT_TRUE(log_works_);
  EXPECT_EQ(capture_.Count("ReceiveBuffer of connection 2 (10.0.0.2) dropped: it holds 500 "
                           "bytes, the most while all buffers together exceed MaxBufferedBytes "
                           "1000; the connection is closed"),
            1);
}

TEST_F(MaxBufferedBytesTest, AsManyGoAsTheBoundNeedsLowestIndexFirstAmongEquals) {
  buffers_.set_max_buffered_bytes(100);
  for (int index : {4, 2, 3}) Arrive(index, Unfinished(900, 300));
  EXPECT_EQ(DropOne(), 2);
  EXPECT_EQ(DropOne(), 3);
  EXPECT_EQ(DropOne(), 4);
  EXPECT_EQ(DropOne(), 0);
  EXPECT_EQ(buffers_.BufferedBytes(), 0u);
}

TEST_F(MaxBufferedBytesTest, NoAddressIsNoFailure) {
  Arrive(1, Unfinished(2000, 1500));
  EXPECT_EQ(buffers_.DropLargestOverBound(nullptr), 1);
  ASSERT_TRUE(log_works_);
  EXPECT_EQ(capture_.Count("ReceiveBuffer of connection 1 dropped: it holds 1500 bytes, the most "
                           "while all buffers together exceed MaxBufferedBytes 1000; the "
                           "connection is closed"),
            1);
}

// Bytes leave the count as packets are taken, buffers removed or dropped: traffic far beyond
// the bound never trips it while little is pending.
TEST_F(MaxBufferedBytesTest, TakenRemovedAndDroppedBytesLeaveTheCount) {
  const std::string one = Wire(capture_.log(), 101, std::string(200, 'p'));
  for (int i = 0; i < 100; ++i) {
    Arrive(1, one + one.substr(0, 50));  // one packet taken, the next begun
    Arrive(1, one.substr(50));           // finished
    ASSERT_EQ(DropOne(), 0) << i;
  }
  EXPECT_EQ(buffers_.BufferedBytes(), 0u);
  Arrive(2, Unfinished(900, 600));
  buffers_.Remove(2);
  Arrive(3, "garbage without any size");
  Arrive(4, "5|");  // an incomplete packet of size 5: kept
  EXPECT_EQ(buffers_.BufferedBytes(), 2u);
  // A large packet taken gives its memory back at once, not at the next arrival.
  buffers_.set_max_buffered_bytes(1 << 30);
  const std::string big = Wire(capture_.log(), 115, std::string(200000, 'b'));
  Arrive(5, big + "12|");
  EXPECT_EQ(buffers_.BufferedBytes(), 2u + 3u);
}

}  // namespace
}  // namespace kalvo
