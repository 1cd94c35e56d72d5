// Runs the built kalvoctl against a fake server on loopback that answers with fixed packets.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <string>

#include "fake_server.h"

namespace kalvo {
namespace {

TEST_F(KalvoctlTest, SendPrintsEveryReplyAndConvertsTexts) {
  // Replies in Windows-1252 with an umlaut, a "|" and a line break in Data; the second packet
  // comes in two writes.
  const std::string second = Wire(311, "");
  FakeServer server({Wire(102, "Gr\xFC\xDF|x\r\n", "A"), second.substr(0, 5), second.substr(5)});
  const RunResult run = Kalvoctl("send --host 127.0.0.1 --port " + std::to_string(server.port()) +
                                 " --id 102 --misc1 'Gr\xC3\xBC\xC3\x9F"
                                 "e' --data PC042 --timeout 0.5");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out,
            "PackageSize: 23\nPackageID: 102\nReserved: 0\nMisc1: A\nMisc2: \nMisc3: \n"
            "DataSize: 8\nData: Gr\xC3\xBC\xC3\x9F|x\\r\\n\n"
            "\n"
            "PackageSize: 14\nPackageID: 311\nReserved: 0\nMisc1: \nMisc2: \nMisc3: \n"
            "DataSize: 0\nData: \n");
  // The argument went out as Windows-1252, sized correctly.
  EXPECT_EQ(server.received(),
            "24|102|0|Gr\xFC\xDF"
            "e|||5|PC042");
}

TEST_F(KalvoctlTest, SendJsonPrintsOneEscapedObjectPerLine) {
  FakeServer server({Wire(305, std::string("a\"b\\c\0d\xE4", 8)), Wire(311, "")});
  const RunResult run =
      Kalvoctl("send --json --port " + std::to_string(server.port()) + " --id 305 --timeout 0.5");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out,
            "{\"PackageSize\":22,\"PackageID\":305,\"Reserved\":0,\"Misc1\":\"\",\"Misc2\":\"\","
            "\"Misc3\":\"\",\"DataSize\":8,\"Data\":\"a\\\"b\\\\c\\u0000d\xC3\xA4\"}\n"
            "{\"PackageSize\":14,\"PackageID\":311,\"Reserved\":0,\"Misc1\":\"\",\"Misc2\":\"\","
            "\"Misc3\":\"\",\"DataSize\":0,\"Data\":\"\"}\n");
}

TEST_F(KalvoctlTest, ListenRegistersAndPrintsBroadcastsOnly) {
  FakeServer server({Wire(401, "token list", "1"), Wire(101, "GUID-1", "10.0.0.7", "OK"),
                     Wire(102, "GUID-1", "10.0.0.7")});
  const RunResult run =
      Kalvoctl("listen --json --count 2 --duration 10 --port " + std::to_string(server.port()));
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(server.received(), "14|401|0||||0|");
  EXPECT_EQ(run.out,
            "{\"PackageSize\":30,\"PackageID\":101,\"Reserved\":0,\"Misc1\":\"10.0.0.7\","
            "\"Misc2\":\"OK\",\"Misc3\":\"\",\"DataSize\":6,\"Data\":\"GUID-1\"}\n"
            "{\"PackageSize\":28,\"PackageID\":102,\"Reserved\":0,\"Misc1\":\"10.0.0.7\","
            "\"Misc2\":\"\",\"Misc3\":\"\",\"DataSize\":6,\"Data\":\"GUID-1\"}\n");
}

TEST_F(KalvoctlTest, ConnectionFailureExitsWithOne) {
  int port = 0;
  {
    // A port that was free a moment ago and has no listener now.
    Fd s(::socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ::bind(s.fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    socklen_t len = sizeof addr;
    ::getsockname(s.fd, reinterpret_cast<sockaddr*>(&addr), &len);
    port = ntohs(addr.sin_port);
  }
  const RunResult run = Kalvoctl("send --id 311 --timeout 1 --port " + std::to_string(port));
  EXPECT_EQ(run.exit_code, 1);
  EXPECT_NE(run.err.find("cannot connect to 127.0.0.1:" + std::to_string(port)), std::string::npos)
      << run.err;
  EXPECT_EQ(run.out, "");
  // The administration verbs say so too.
  const RunResult tokens = Kalvoctl("tokens --timeout 1 --port " + std::to_string(port));
  EXPECT_EQ(tokens.exit_code, 1);
  EXPECT_NE(tokens.err.find("cannot connect to 127.0.0.1:" + std::to_string(port)),
            std::string::npos)
      << tokens.err;
}

TEST_F(KalvoctlTest, BadArgumentsExitWithTwo) {
  EXPECT_EQ(Kalvoctl("send --port 1").exit_code, 2);  // --id missing
  EXPECT_EQ(Kalvoctl("send --id 1 --misc1 'a|b' --port 1").exit_code, 2);
  EXPECT_EQ(Kalvoctl("frobnicate").exit_code, 2);
  // Files that cannot be read, a directory included (it opens, but does not read).
  EXPECT_EQ(Kalvoctl("send --id 1 --port 1 --data-file /nonexistent/x").exit_code, 2);
  EXPECT_EQ(Kalvoctl("send --id 1 --port 1 --data-file /").exit_code, 2);
  const RunResult help = Kalvoctl("send --help");
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_NE(help.out.find("--data-file"), std::string::npos);
}

}  // namespace
}  // namespace kalvo
