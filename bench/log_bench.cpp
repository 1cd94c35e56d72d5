// WriteLog at LogLevel 1 (two registry reads, a size query and an open-append-close per
// line) beside a bare open-append-close loop of the same lines, measured in the same run.
// Run: build/bench/log_bench  (items_per_second = lines/s of wall-clock time)
#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "infra/log.h"
#include "infra/text_encoding.h"

namespace {

namespace fs = std::filesystem;

const std::string kMessage = "DoSocketAction: ID: 311 Socket: 12 Daten gesendet";

fs::path BenchDir() {
  const fs::path dir = fs::temp_directory_path() / ("kalvo_log_bench_" + std::to_string(::getpid()));
  fs::create_directories(dir);
  return dir;
}

void BM_WriteLog(benchmark::State& state) {
  const fs::path dir = BenchDir();
  {
    std::ofstream out(dir / "registry.reg", std::ios::binary);
    out << "REGEDIT4\r\n\r\n[HKEY_LOCAL_MACHINE\\Software\\Orvanta\\Zentara]\r\n"
        << "\"LogLevel\"=dword:00000001\r\n\"LogMaxSize\"=dword:00000400\r\n";
  }
  kalvo::RegistryStore registry((dir / "registry.reg").string());
  kalvo::Log log(registry, (dir / "kalvosrv.log").string());
  for (auto _ : state) log.WriteLog(kMessage);
  state.SetItemsProcessed(state.iterations());
  fs::remove_all(dir);
}
BENCHMARK(BM_WriteLog)->MinTime(2.0)->UseRealTime();

// The floor: the same dated line appended with open, write and close, nothing else.
void BM_BareOpenAppendClose(benchmark::State& state) {
  const fs::path dir = BenchDir();
  const std::string path = (dir / "bare.log").string();
  for (auto _ : state) {
    const std::string line = kalvo::Cp1252ToUtf8(kalvo::LogTimestamp() + " - " + kMessage) + "\r\n";
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
    benchmark::DoNotOptimize(::write(fd, line.data(), line.size()));
    ::close(fd);
  }
  state.SetItemsProcessed(state.iterations());
  fs::remove_all(dir);
}
BENCHMARK(BM_BareOpenAppendClose)->MinTime(2.0)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
