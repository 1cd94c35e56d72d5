// Storing and restoring a 16 MiB token backup through the real kalvosrv beside the same
// database operations executed directly over ODBC in this process, with BLOBMaxSize 4096 and
// 65536, on SQLite (a temporary file) and PostgreSQL (a throw-away cluster on loopback); and
// the server's resident memory meanwhile.
//
// Run: build/bench/backup_bench [rounds per point, default 3] [--no-sqlite] [--no-postgres]
//          [--mib N, default 16]
//
// A store is what the server does for a 115 of a token client: the BACKUP audit entry
// (auditing on, not limited) and DBSetTokenBackupData of an automatic backup (which rotates,
// so every round stores the same way); a restore is the RESTORE entry and
// DBGetTokenBackupData of index 1. The baseline calls the same operations on this process's
// thread, each with its own connect through the pooling driver manager, as the server does.
// The server is a child process (--foreground, a temporary registry file, LogLevel 0) with one
// client connection on 127.0.0.1 that registered the token (101) and then sends the 115 and
// 116 packets, waiting for each answer; the restored bytes are compared with the stored ones.
// Direct and server rounds alternate. Printed per point: the medians of the store and restore
// times, the ratios direct/server (goal >= 0.9), the server's resident memory when idle
// before the first round and its peaks while storing and while restoring (sampled every
// millisecond), and the highest of them and the kernel's VmHWM of the child (which lives for
// one point) as a multiple of the backup's size (goal < 4).
#include <atomic>
#include <random>
#include <thread>

#include "bench_support.h"
#include "db/audit.h"
#include "db/backups.h"
#include "net/packet.h"
#include "net/socket_send.h"

namespace {

using namespace kalvo::bench;

constexpr const char* kGuid = "B0B0B0B0-0000-4000-8000-000000000001";

struct Options {
  int rounds = 3;
  bool sqlite = true;
  bool postgres = true;
  int mib = 16;
};

bool ParseOptions(int argc, char** argv, Options& o) {
  for (int i = 1; i < argc; ++i) {
    const std::string a = argv[i];
    if (a == "--no-sqlite") {
      o.sqlite = false;
    } else if (a == "--no-postgres") {
      o.postgres = false;
    } else if (a == "--mib" && i + 1 < argc) {
      o.mib = std::atoi(argv[++i]);
      if (o.mib < 1 || o.mib > 1000) return false;
    } else if (!a.empty() && a[0] != '-') {
      o.rounds = std::atoi(a.c_str());
      if (o.rounds < 1) return false;
    } else {
      return false;
    }
  }
  return true;
}

kalvo::AuditSettings Auditing() {
  kalvo::AuditSettings a;
  a.is_active = true;
  return a;
}

// The connection's tag after its 101: token, user DN and logon name.
std::string Identity() { return std::string(kGuid) + '\0' + "" + '\0' + ""; }

// The token client: one connection, one request at a time.
class Client {
 public:
  Client(int port, kalvo::Log& log) : socket_(io_), log_(log) {
    socket_.connect(tcp::endpoint(asio::ip::address_v4::loopback(), static_cast<uint16_t>(port)));
  }

  kalvo::SocketDataStruct Ask(int32_t id, std::string data, std::string misc1 = "",
                              std::string misc2 = "", std::string misc3 = "") {
    kalvo::SocketDataStruct r;
    r.PackageID = id;
    r.Data = std::move(data);
    r.Misc1 = std::move(misc1);
    r.Misc2 = std::move(misc2);
    r.Misc3 = std::move(misc3);
    SendPacket(socket_, std::move(r), log_);
    return ReceivePacket(socket_, log_);
  }

 private:
  asio::io_context io_;
  tcp::socket socket_;
  kalvo::Log& log_;
};

// Samples the resident memory of a process every millisecond while it lives, keeping the
// largest value in `peak`.
class PeakSampler {
 public:
  PeakSampler(pid_t pid, int64_t& peak)
      : thread_([this, pid, &peak] {
          while (!stop_) {
            peak = std::max(peak, ResidentBytes(pid));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
          }
        }) {}
  ~PeakSampler() {
    stop_ = true;
    thread_.join();
  }

 private:
  std::atomic<bool> stop_{false};
  std::thread thread_;
};

struct Times {
  std::vector<double> store, restore;
};

void RunPoint(const Engine& engine, int32_t part_size, const Options& o, const std::string& exe,
              BenchEngines& engines, const std::string& backup) {
  Engine e = engine;
  e.settings.blob_max_size = part_size;
  kalvo::Database db(engines.env(), engines.log(), e.settings);
  {
    kalvo::DbConnection c(db);
    Connect(c);
    MustRun(c, "DELETE FROM tbl_kdx_backup");
  }
  const kalvo::BackupMaxima maxima;
  ServerChild server(exe, engines.dir(), [&](int port) { return RegistryText(port, 0, e); });
  const int64_t idle = ResidentBytes(server.pid());
  Client client(server.port(), engines.log());
  if (client.Ask(101, kGuid).PackageID != 101) throw std::runtime_error("no answer to 101");

  Times direct, served;
  int64_t peak_store = 0, peak_restore = 0;
  for (int round = 0; round < o.rounds; ++round) {
    CheckInterrupted();
    auto start = Clock::now();
    kalvo::DBLogClientAction(db, Auditing(), Identity(), kalvo::AuditAction::kBackup, "127.0.0.1",
                             "");
    std::string error;
    if (!kalvo::DBSetTokenBackupData(db, maxima, kGuid, kalvo::kAutomaticBackup, "bench", backup,
                                     error)) {
      throw std::runtime_error("direct store failed");
    }
    direct.store.push_back(Since(start));
    start = Clock::now();
    kalvo::DBLogClientAction(db, Auditing(), Identity(), kalvo::AuditAction::kRestore, "127.0.0.1",
                             "");
    std::string time;
    const std::string read = kalvo::DBGetTokenBackupData(db, kGuid, "1", 1, time);
    direct.restore.push_back(Since(start));
    if (read != backup) throw std::runtime_error("the direct restore differs");

    CheckInterrupted();
    {
      PeakSampler sampler(server.pid(), peak_store);
      start = Clock::now();
      const kalvo::SocketDataStruct stored = client.Ask(115, backup, "", "1", "bench");
      served.store.push_back(Since(start));
      if (stored.Data != "OK") throw std::runtime_error("the server answered " + stored.Data);
    }
    {
      PeakSampler sampler(server.pid(), peak_restore);
      start = Clock::now();
      const kalvo::SocketDataStruct restored = client.Ask(116, "", "1", "1");
      served.restore.push_back(Since(start));
      if (restored.Data != backup) throw std::runtime_error("the server's restore differs");
    }
  }
  const double mib = static_cast<double>(backup.size()) / (1 << 20);
  const double peak = static_cast<double>(
      std::max({peak_store, peak_restore, ResidentBytes(server.pid(), "VmHWM")}));
  const double store_d = Median(direct.store), store_s = Median(served.store);
  const double restore_d = Median(direct.restore), restore_s = Median(served.restore);
  std::printf("%-11s %8d %9.2f %9.2f %7.2f %9.2f %9.2f %7.2f %8.1f %8.1f %8.1f %6.2f\n",
              e.name.c_str(), part_size, store_d, store_s, store_d / store_s, restore_d, restore_s,
              restore_d / restore_s, static_cast<double>(idle) / (1 << 20),
              static_cast<double>(peak_store) / (1 << 20),
              static_cast<double>(peak_restore) / (1 << 20), peak / (mib * (1 << 20)));
  std::fflush(stdout);
}

int Run(const Options& o) {
  const fs::path self = fs::canonical("/proc/self/exe");
  const std::string exe = (self.parent_path().parent_path() / "kalvosrv").string();
  BenchEngines engines(o.sqlite, o.postgres, 4096);
  std::mt19937 random(16);
  std::string backup(static_cast<size_t>(o.mib) << 20, '\0');
  std::uniform_int_distribution<int> byte(0, 255);
  for (char& c : backup) c = static_cast<char>(byte(random));

  std::printf(
      "a %d MiB backup stored (115) and restored (116) by kalvosrv beside the same operations "
      "called directly; medians of %d rounds, seconds; memory in MiB\n",
      o.mib, o.rounds);
  std::printf("%-11s %8s %9s %9s %7s %9s %9s %7s %8s %8s %8s %6s\n", "engine", "BLOBMax",
              "store dir", "store srv", "dir/srv", "rest dir", "rest srv", "dir/srv", "idle RSS",
              "RSS st", "RSS rest", "x size");
  std::fflush(stdout);
  for (const Engine& e : engines.engines()) {
    kalvo::Database db(engines.env(), engines.log(), e.settings);
    CreateSchema(db);
    for (const int32_t part_size : {4096, 65536}) {
      RunPoint(e, part_size, o, exe, engines, backup);
    }
  }
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!ParseOptions(argc, argv, options)) {
    std::fprintf(stderr, "usage: %s [rounds per point] [--no-sqlite] [--no-postgres] [--mib N]\n",
                 argv[0]);
    return 2;
  }
  return GuardedRun("backup_bench", [&] { return Run(options); });
}
