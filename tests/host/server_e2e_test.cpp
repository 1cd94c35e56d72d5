// The real server as a process on loopback, driven over TCP and by signals.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include "server_process.h"

namespace kalvo::testing {
namespace {

const std::string kEcho = "14|311|0||||0|";
const std::string kGuid = "2C39BFC3-7130-4937-B329-6C0863EC8375";
const std::string kTokenRemoved = "51|102|0||||36|" + kGuid;
const std::string kEmpty102 = "14|102|0||||0|";

TEST(ServerE2E, EchoIsAnsweredByteExactly) {
  ServerProcess server;
  Client client(server.port());
  client.Send(kEcho);
  EXPECT_EQ(ReceivePacket(client), kEcho);
  EXPECT_TRUE(server.WaitForLog("DoSocketAction: ID: 311 Socket: 1 Daten gesendet"));
}

TEST(ServerE2E, PacketsAreFramedWhateverTheWritesLookLike) {
  ServerProcess server;
  Client client(server.port());
  // Two packets in one write: both answered, in order.
  client.Send(kEcho + kTokenRemoved);
  EXPECT_EQ(ReceivePacket(client), kEcho);
  EXPECT_EQ(ReceivePacket(client), kEmpty102);
  // One packet over three writes: answered once, when the last part arrives.
  client.Send("14|3");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  client.Send("11|0||");
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  EXPECT_EQ(ServerProcess::Count(server.Log(), "DoSocketAction: ID: 311 Socket: 1\r\n"), 1);
  client.Send("||0|");
  EXPECT_EQ(ReceivePacket(client), kEcho);
  EXPECT_EQ(client.Receive(1, 200), "");
  EXPECT_EQ(ServerProcess::Count(server.Log(), "DoSocketAction: ID: 311 Socket: 1\r\n"), 2);
}

TEST(ServerE2E, KeepAlivesAndGarbageGetNoReplyAndTheNextPacketIsServed) {
  ServerProcess server;
  Client client(server.port());
  client.Send("xxx");
  EXPECT_TRUE(server.WaitForLog("KeepAlive received"));
  client.Send("hello world|");
  EXPECT_EQ(client.Receive(1, 200), "");
  EXPECT_EQ(ServerProcess::Count(server.Log(), "KeepAlive received"), 1);
  client.Send(kEcho);
  EXPECT_EQ(ReceivePacket(client), kEcho);
}

TEST(ServerE2E, OversizedPacketIsDroppedAndTheConnectionStaysOpen) {
  ServerProcess server("\"MaxPackageSize\"=dword:00000064");  // 100 bytes
  Client client(server.port());
  client.Send("500|311|0||||0|");
  EXPECT_TRUE(server.WaitForLog("ReceiveBuffer of connection 1 dropped: size 500"));
  client.Send(kEcho);
  EXPECT_EQ(ReceivePacket(client), kEcho);
}

TEST(ServerE2E, UnusableMaxPackageSizeFallsBackToTheDefault) {
  ServerProcess server("\"MaxPackageSize\"=dword:00000000");
  EXPECT_NE(server.Log().find(
                "KDX\\MaxPackageSize = \"0\" is not a whole number of at least 1; using 67108864"),
            std::string::npos);
  Client client(server.port());
  client.Send(kEcho);
  EXPECT_EQ(ReceivePacket(client), kEcho);
}

TEST(ServerE2E, ClosedConnectionFreesTheLowestIndexForTheNextOne) {
  ServerProcess server;
  Client a(server.port());
  Client b(server.port());
  Client c(server.port());
  ASSERT_TRUE(server.WaitForLog("Socket_ConnectionRequest: 127.0.0.1 RequestID: ", 3));
  b.Close();
  ASSERT_TRUE(server.WaitForLog("Socket_Close (2): 127.0.0.1 wurde getrennt"));
  const std::string log = server.Log();
  EXPECT_NE(log.find("Socket_Close (2): 127.0.0.1 wird getrennt"), std::string::npos);
  EXPECT_NE(log.find("Index = 2 -> Closing and unloading"), std::string::npos);
  Client d(server.port());
  d.Send(kEcho);
  EXPECT_EQ(ReceivePacket(d), kEcho);
  EXPECT_TRUE(server.WaitForLog("DoSocketAction: ID: 311 Socket: 2 Daten gesendet"));
  Client e(server.port());
  e.Send(kEcho);
  EXPECT_EQ(ReceivePacket(e), kEcho);
  EXPECT_TRUE(server.WaitForLog("DoSocketAction: ID: 311 Socket: 4 Daten gesendet"));
}

TEST(ServerE2E, EveryConsoleLearnsWhenAClientGoes) {
  ServerProcess server;
  Client first(server.port());
  Client second(server.port());
  for (Client* console : {&first, &second}) {
    console->Send("14|401|0||||0|");
    const std::string reply = ReceivePacket(*console);
    EXPECT_TRUE(reply.find("|401|0|") != std::string::npos) << reply;
  }
  {
    Client client(server.port());
    client.Send(kEcho);
    EXPECT_EQ(ReceivePacket(client), kEcho);
  }
  // The client never registered a token, so the notice carries an empty tag; Misc1 is the
  // address of the connection that went.
  const std::string notice = "23|102|0|127.0.0.1|||0|";
  EXPECT_EQ(ReceivePacket(first), notice);
  EXPECT_EQ(ReceivePacket(second), notice);
  EXPECT_TRUE(server.WaitForLog("SendToAllAdmins: ID: 102 Socket: 2 Daten gesendet"));
  // A console that goes is not told about itself, but the other one is.
  first.Close();
  EXPECT_EQ(ReceivePacket(second), notice);
}

TEST(ServerE2E, TokenRemovalIsBroadcastBeforeTheEmptyReply) {
  ServerProcess server;
  Client console(server.port());
  console.Send("14|401|0||||0|");
  ReceivePacket(console);
  Client client(server.port());
  client.Send(kTokenRemoved);
  EXPECT_EQ(ReceivePacket(client), kEmpty102);
  EXPECT_EQ(ReceivePacket(console), "60|102|0|127.0.0.1|||36|" + kGuid);
  // A malformed GUID is ignored.
  client.Send("19|102|0||||5|PC042");
  EXPECT_EQ(client.Receive(1, 200), "");
}

TEST(ServerE2E, ClientThatNeverReadsItsRepliesIsClosedAtMaxSendQueue) {
  ServerProcess server("\"MaxSendQueue\"=dword:00004000");  // 16 KiB
  Client reader(server.port());
  Client idle(server.port(), 4096);
  ASSERT_TRUE(server.WaitForLog("Socket_ConnectionRequest: 127.0.0.1 RequestID: ", 2));
  // Far more replies than the kernel's buffers hold; the server closes the connection
  // (and a send fails) once they and the queue are full.
  std::string batch;
  for (int i = 0; i < 10000; ++i) batch += kEcho;
  size_t sent = 0;
  while (sent < (32u << 20) && idle.TrySend(batch)) sent += batch.size();
  ASSERT_TRUE(server.WaitForLog("Socket_Error: 2 ErrorNr: 105 ErrorDesc: send queue full"))
      << "sent " << sent << " bytes";
  EXPECT_TRUE(server.WaitForLog("Index = 2 -> Closing and unloading"));
  // The other connection was never held up, and a new one takes the freed index.
  reader.Send(kEcho);
  EXPECT_EQ(ReceivePacket(reader), kEcho);
  Client next(server.port());
  next.Send(kEcho);
  EXPECT_EQ(ReceivePacket(next), kEcho);
}

TEST(ServerE2E, ConsoleThatNeverReadsBroadcastsIsClosedAtMaxSendQueue) {
  ServerProcess server("\"MaxSendQueue\"=dword:00010000");  // 64 KiB
  Client console(server.port(), 4096);
  console.Send("14|401|0||||0|");
  ASSERT_NE(ReceivePacket(console).find("|401|0|"), std::string::npos);
  // Every token removal is broadcast to the console, which reads none of them; the client
  // reads its own replies.
  Client client(server.port());
  std::string batch;
  for (int i = 0; i < 1000; ++i) batch += kTokenRemoved;
  for (int round = 0; round < 200; ++round) {
    if (ServerProcess::Count(server.Log(), "Socket_Error: 1") > 0) break;
    client.Send(batch);
    ASSERT_EQ(client.Receive(1000 * kEmpty102.size(), 5000).size(), 1000 * kEmpty102.size());
  }
  ASSERT_TRUE(server.WaitForLog("Socket_Error: 1 ErrorNr: 105 ErrorDesc: send queue full"));
  EXPECT_TRUE(server.WaitForLog("Index = 1 -> Closing and unloading"));
  client.Send(kEcho);
  EXPECT_EQ(ReceivePacket(client), kEcho);
}

TEST(ServerE2E, ConnectionTakingAFormerConsolesIndexHearsNoBroadcasts) {
  ServerProcess server;
  Client console(server.port());
  console.Send("14|401|0||||0|");
  ASSERT_NE(ReceivePacket(console).find("|401|0|"), std::string::npos);
  Client listener(server.port());
  listener.Send("14|401|0||||0|");
  ASSERT_NE(ReceivePacket(listener).find("|401|0|"), std::string::npos);
  console.Close();
  ASSERT_TRUE(server.WaitForLog("Index = 1 -> Closing and unloading"));
  // The close notice goes to the remaining console.
  EXPECT_NE(ReceivePacket(listener).find("|102|"), std::string::npos);
  Client successor(server.port());
  successor.Send(kEcho);
  ASSERT_EQ(ReceivePacket(successor), kEcho);
  ASSERT_TRUE(server.WaitForLog("DoSocketAction: ID: 311 Socket: 1 Daten gesendet"));
  Client client(server.port());
  client.Send(kTokenRemoved);
  EXPECT_EQ(ReceivePacket(client), kEmpty102);
  EXPECT_EQ(ReceivePacket(listener), "60|102|0|127.0.0.1|||36|" + kGuid);
  EXPECT_EQ(successor.Receive(1, 300), "");
}

TEST(ServerE2E, StartWithoutALanguageFileEndsWithTheFixedMessage) {
  // The language file is looked up beside the program: a copy of it alone has none.
  const fs::path dir =
      fs::temp_directory_path() / ("kalvo_e2e_nolang_" + std::to_string(::getpid()));
  fs::remove_all(dir);
  fs::create_directories(dir / "bin");
  fs::copy_file(std::string(KALVO_BUILD_DIR) + "/kalvosrv", dir / "bin" / "kalvosrv");
  std::ofstream(dir / "registry.reg") << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\"
                                         "Zentara]\r\n\"LogLevel\"=dword:00000001\r\n";
  const std::string command = "LANG=C " + (dir / "bin" / "kalvosrv").string() +
                              " --foreground --listen-address 127.0.0.1 --registry " +
                              (dir / "registry.reg").string() + " --log-file " +
                              (dir / "k.log").string() + " 2>" + (dir / "err").string();
  const int status = std::system(command.c_str());
  EXPECT_EQ(WEXITSTATUS(status), 1);
  EXPECT_EQ(ReadFile(dir / "err"),
            "Vaultara: This component of the Vaultara is not proper installed and will now end.\n");
  const std::string log = ReadFile(dir / "k.log");
  EXPECT_NE(log.find("Language file was not found -> loading will be stopped"), std::string::npos)
      << log;
  EXPECT_EQ(log.find("Now listening"), std::string::npos) << log;
  fs::remove_all(dir);
}

TEST(ServerE2E, ServiceControlsArriveAsSignals) {
  ServerProcess server;
  ::kill(server.pid(), SIGUSR1);
  EXPECT_TRUE(server.WaitForLog("Service_Pause complete (Success = TRUE)"));
  // Pausing keeps serving.
  Client client(server.port());
  client.Send(kEcho);
  EXPECT_EQ(ReceivePacket(client), kEcho);
  ::kill(server.pid(), SIGUSR2);
  EXPECT_TRUE(server.WaitForLog("Service_Continue complete (Success = TRUE)"));
  ::kill(server.pid(), SIGHUP);
  EXPECT_TRUE(server.WaitForLog("Service_Control (ServiceEvent = 6)"));
  EXPECT_EQ(server.StopWith(SIGTERM), 0);
  const std::string log = server.Log();
  for (const char* line :
       {"Service_Stop started -> calling <unload me>", "Form_QueryUnload: FormUnloadMode = 1",
        "Program should be terminated -> Clearing all timer, removing tray icon and destroying "
        "objects",
        "Service_Stop complete", "Form_Terminate complete"}) {
    EXPECT_NE(log.find(line), std::string::npos) << line;
  }
}

TEST(ServerE2E, StartedByHandWithoutForegroundEndsWithAMessage) {
  const fs::path dir = fs::temp_directory_path() / ("kalvo_e2e_hand_" + std::to_string(::getpid()));
  // The service's log directory belongs to its account; an administrator's start by hand as
  // root must not leave a log there that the service can no longer write.
  const fs::path logs = dir / "logs";
  fs::create_directories(logs);
  const bool root = ::geteuid() == 0;
  if (root) {
    ASSERT_EQ(::chown(logs.c_str(), 65534, 65534), 0);
  }
  std::ofstream(dir / "registry.reg") << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\"
                                         "Zentara]\r\n\"LogLevel\"=dword:00000001\r\n";
  const std::string command = "env -u INVOCATION_ID LANG=C " + std::string(KALVO_BUILD_DIR) +
                              "/kalvosrv --registry " + (dir / "registry.reg").string() +
                              " --log-file " + (logs / "k.log").string() + " 2>" +
                              (dir / "err").string();
  const int status = std::system(command.c_str());
  EXPECT_EQ(WEXITSTATUS(status), 1);
  const std::string err = ReadFile(dir / "err");
  EXPECT_NE(err.find("systemctl start kalvosrv"), std::string::npos) << err;
  EXPECT_NE(err.find("--foreground"), std::string::npos) << err;
  if (root) {
    EXPECT_EQ(fs::directory_iterator(logs)->path().filename(), "k.log");
    struct stat st {};
    ASSERT_EQ(::stat((logs / "k.log").c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 65534u) << "the log was left as root's";
  }
  const std::string log = ReadFile(logs / "k.log");
  EXPECT_NE(log.find("Not starting as service -> loading will be stopped"), std::string::npos);
  EXPECT_NE(log.find("Program will be terminated because another instance is running"),
            std::string::npos);
  fs::remove_all(dir);
}

// Runs `command` with a shell and gives what it printed on standard output.
std::string Output(const std::string& command) {
  std::string out;
  if (FILE* pipe = ::popen(command.c_str(), "r")) {
    char buf[4096];
    for (size_t n; (n = std::fread(buf, 1, sizeof buf, pipe)) > 0;) out.append(buf, n);
    ::pclose(pipe);
  }
  return out;
}

TEST(ServerE2E, ConsoleToolSendsAndListens) {
  ServerProcess server;
  const std::string tool = std::string(KALVO_BUILD_DIR) + "/kalvoctl";
  const std::string port = std::to_string(server.port());
  EXPECT_EQ(Output(tool + " send --port " + port + " --id 311 --timeout 0.5 --json"),
            "{\"PackageSize\":14,\"PackageID\":311,\"Reserved\":0,\"Misc1\":\"\","
            "\"Misc2\":\"\",\"Misc3\":\"\",\"DataSize\":0,\"Data\":\"\"}\n");
  // A listening console hears of the client that goes.
  FILE* listener =
      ::popen((tool + " listen --port " + port + " --count 1 --duration 10 --json").c_str(), "r");
  ASSERT_TRUE(server.WaitForLog("DoSocketAction: ID: 401 Socket: 1 Daten gesendet"));
  { Client client(server.port()); }
  std::string heard;
  char buf[4096];
  for (size_t n; (n = std::fread(buf, 1, sizeof buf, listener)) > 0;) heard.append(buf, n);
  ::pclose(listener);
  EXPECT_NE(heard.find("\"PackageID\":102"), std::string::npos) << heard;
}

TEST(ServerE2E, StatusEndpointReportsTheConnections) {
  ServerProcess server;
  Client client(server.port());
  client.Send("14|999|0||||0|" +
              kEcho);  // an unknown request is served by nothing, and not counted
  ReceivePacket(client);
  Client http(server.status_port());
  http.Send("GET /status HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
  const std::string response = http.Receive(100000, 1000);
  EXPECT_NE(response.find("\"listening\":true"), std::string::npos) << response;
  EXPECT_NE(response.find("\"connectionCount\":1"), std::string::npos) << response;
  EXPECT_NE(response.find("\"bytesReceived\":28"), std::string::npos) << response;
  EXPECT_NE(response.find("\"requestsByPackageId\":{\"311\":1}"), std::string::npos) << response;
}

}  // namespace
}  // namespace kalvo::testing
