// Logging costs: a line through the file sink against a plain fprintf of the
// same line to an unbuffered FILE, and a message the system-log threshold
// drops (what a service pays for log_debug on a quiet device).
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include "common/sys_paths.h"
#include "kelo/log.h"
#include "log/log_internal.h"

namespace {

// A private tree for the region and the log files, removed at exit.
class TempTree {
 public:
  TempTree() {
    const char *tmp = getenv("TMPDIR");
    root_ = std::string(tmp && *tmp ? tmp : "/tmp") + "/kelo-bench-XXXXXX";
    if (mkdtemp(root_.data()) == nullptr) abort();
    mkdir((root_ + "/shm").c_str(), 0755);
    prefix_ = root_ + "/shm/kelo-";
    kelo::sys::Paths p = kelo::sys::paths();
    p.shm_prefix = prefix_.c_str();
    kelo::sys::set_paths_for_testing(p);
  }
  ~TempTree() {
    std::string cmd = "rm -rf '" + root_ + "'";
    if (system(cmd.c_str()) != 0) perror("rm");
  }
  std::string path(const char *rel) const { return root_ + "/" + rel; }

 private:
  std::string root_, prefix_;
};

TempTree &tree() {
  static TempTree t;
  return t;
}

constexpr int64_t kTruncateEvery = 1 << 16;  // keeps the files small

void BM_FileSinkLine(benchmark::State &state) {
  std::string path = tree().path("sink.log");
  setenv("KELO_LOG_FILE", path.c_str(), 1);
  unsetenv("KELO_LOG_LEVEL");
  kelo::log::init();
  int i = 0;
  for (auto _ : state) {
    log_info("frame %d dropped at %s", i++, "encoder");
    if (i % kTruncateEvery == 0) {
      state.PauseTiming();
      (void)truncate(path.c_str(), 0);  // the sink appends: it writes on from 0
      state.ResumeTiming();
    }
  }
  kelo::log::fini();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FileSinkLine);

// The same line by hand: time stamp, level, message, one unbuffered fprintf.
void BM_PlainFprintfLine(benchmark::State &state) {
  std::string path = tree().path("plain.log");
  FILE *f = fopen(path.c_str(), "a");
  if (f == nullptr) {
    state.SkipWithError("cannot open the plain log file");
    return;
  }
  setvbuf(f, nullptr, _IONBF, 0);
  int i = 0;
  for (auto _ : state) {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    struct tm tm;
    gmtime_r(&ts.tv_sec, &tm);
    char when[100];
    strftime(when, sizeof when, "%F %T", &tm);
    fprintf(f, "%s.%03d [%6s] frame %d dropped at %s\n", when, static_cast<int>(ts.tv_nsec / 1000000), "info",
            i++, "encoder");
    if (i % kTruncateEvery == 0) {
      state.PauseTiming();
      (void)ftruncate(fileno(f), 0);
      state.ResumeTiming();
    }
  }
  fclose(f);
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_PlainFprintfLine);

// System-log sink with the device's default threshold 6: debug never leaves
// the process. Nothing reaches the real system log.
void BM_SyslogDroppedByThreshold(benchmark::State &state) {
  unsetenv("KELO_LOG_FILE");
  unsetenv("KELO_LOG_LEVEL");
  kelo::log::init();
  if (kelo::log::control() == nullptr || log_set_syslog_level(6) != 0) {
    state.SkipWithError("no log-control region");
    return;
  }
  int i = 0;
  for (auto _ : state) log_debug("frame %d dropped at %s", i++, "encoder");
  kelo::log::fini();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_SyslogDroppedByThreshold);

// A level switched off at start-up (no handler at all).
void BM_LevelOff(benchmark::State &state) {
  setenv("KELO_LOG_FILE", "-", 1);
  setenv("KELO_LOG_LEVEL", "info", 1);
  kelo::log::init();
  int i = 0;
  for (auto _ : state) log_debug("frame %d dropped at %s", i++, "encoder");
  kelo::log::fini();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_LevelOff);

}  // namespace

BENCHMARK_MAIN();
