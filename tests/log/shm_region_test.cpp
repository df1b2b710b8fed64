// Named shared regions: creation races, sizes, failed initialisers, readers
// without write permission, planted links, long names, the in-region mutex.
#include "log/shm_region.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <string>

#include "kelo/log.h"
#include "log/log_internal.h"
#include "support/sandbox.h"
#include "support/system_log.h"

namespace {

using kelo::shm_region_open;
using kelo::test::run_child;
using kelo::test::Sandbox;

struct Rec {
  int32_t init_calls;
  int32_t opened;
  unsigned char bytes[24];
};

off_t file_size(const std::string &p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 ? st.st_size : -1;
}

int init_count(void *r) {
  auto *rec = static_cast<Rec *>(r);
  rec->init_calls += 1;
  return 0;
}

int init_fails(void *r) {
  static_cast<Rec *>(r)->init_calls = 99;  // written, then thrown away
  return -1;
}

// A reader must never initialise: this one would say so.
int init_forbidden(void *) { abort(); }

TEST(ShmRegion, SixteenRacingCreatorsInitialiseOnce) {
  Sandbox sb;
  int gate[2];
  ASSERT_EQ(pipe(gate), 0);
  pid_t kids[16];
  for (pid_t &k : kids) {
    k = fork();
    ASSERT_GE(k, 0);
    if (k == 0) {
      close(gate[1]);
      char c;
      (void)!read(gate[0], &c, 1);  // all start together when the gate closes
      auto *rec = static_cast<Rec *>(shm_region_open("race", sizeof(Rec), [](void *r) {
        usleep(20 * 1000);  // widen the window for a second initialiser
        return init_count(r);
      }));
      if (rec == nullptr) _exit(2);
      std::atomic_ref<int32_t>(rec->opened).fetch_add(1);
      _exit(rec->init_calls == 1 ? 0 : 3);
    }
  }
  close(gate[0]);
  close(gate[1]);
  time_t deadline = time(nullptr) + 60;
  int done = 0;
  while (done < 16 && time(nullptr) < deadline) {
    int st;
    pid_t p = waitpid(-1, &st, WNOHANG);
    if (p > 0) {
      ++done;
      EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "status " << st;
    } else {
      usleep(10000);
    }
  }
  if (done < 16)
    for (pid_t k : kids) kill(k, SIGKILL);
  ASSERT_EQ(done, 16);
  auto *rec = static_cast<Rec *>(shm_region_open("race", sizeof(Rec), init_forbidden));
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->init_calls, 1);
  EXPECT_EQ(rec->opened, 16);
}

TEST(ShmRegion, CreatesWithMode0664AndRecordSize) {
  Sandbox sb;
  auto r = run_child([] {
    umask(0);
    if (shm_region_open("fresh", sizeof(Rec), init_count) == nullptr) _exit(2);
  });
  ASSERT_EQ(r.exit_code, 0);
  struct stat st;
  ASSERT_EQ(stat(sb.region("fresh").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 07777, 0664u);
  EXPECT_EQ(st.st_size, static_cast<off_t>(sizeof(Rec)));
}

// Existing files by size: empty (a crashed creator), short, exact, longer.
TEST(ShmRegion, ExistingFilesBySize) {
  struct Case {
    const char *name;
    std::string content;
    bool initialised;
    off_t size_after;
    std::string first_bytes;  // of the record after opening
  } cases[] = {
      {"empty", "", true, sizeof(Rec), std::string(8, '\0')},
      {"short", "abc", true, sizeof(Rec), std::string("abc\0\0\0\0\0", 8)},
      {"exact", std::string(sizeof(Rec), 'x'), false, sizeof(Rec), "xxxxxxxx"},
      {"longer", std::string(100, 'y'), false, 100, "yyyyyyyy"},
  };
  Sandbox sb;
  for (const auto &c : cases) {
    sb.write_file(std::string("shm/kelo-") + c.name, c.content);
    static std::string seen;  // what the initialiser found in the mapped record
    seen = "(not called)";
    auto *rec = static_cast<unsigned char *>(shm_region_open(c.name, sizeof(Rec), [](void *r) {
      seen.assign(static_cast<char *>(r), sizeof(Rec));
      return 0;
    }));
    ASSERT_NE(rec, nullptr) << c.name;
    EXPECT_EQ(seen != "(not called)", c.initialised) << c.name;
    if (c.initialised) {
      std::string want = c.content + std::string(sizeof(Rec) - c.content.size(), '\0');
      EXPECT_EQ(seen, want) << c.name << ": extension reads as zeros, old bytes kept";
    }
    EXPECT_EQ(std::string(reinterpret_cast<char *>(rec), 8), c.first_bytes) << c.name;
    EXPECT_EQ(file_size(sb.region(c.name)), c.size_after) << c.name;
  }
}

TEST(ShmRegion, FailedInitialiserLeavesAnEmptyFileForTheNextOpener) {
  Sandbox sb;
  EXPECT_EQ(shm_region_open("flaky", sizeof(Rec), init_fails), nullptr);
  EXPECT_EQ(file_size(sb.region("flaky")), 0);
  auto *rec = static_cast<Rec *>(shm_region_open("flaky", sizeof(Rec), [](void *r) {
    init_count(r);
    return 1;  // any value >= 0 is success
  }));
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->init_calls, 1);
  EXPECT_EQ(file_size(sb.region("flaky")), static_cast<off_t>(sizeof(Rec)));
}

TEST(ShmRegion, RefusesASymbolicLinkAtTheRegionPath) {
  Sandbox sb;
  sb.write_file("target", "precious");
  ASSERT_EQ(symlink(sb.path("target").c_str(), sb.region("linked").c_str()), 0);
  ASSERT_EQ(symlink(sb.path("nowhere").c_str(), sb.region("dangling").c_str()), 0);
  EXPECT_EQ(shm_region_open("linked", sizeof(Rec), init_count), nullptr);
  EXPECT_EQ(shm_region_open("dangling", sizeof(Rec), init_count), nullptr);
  EXPECT_EQ(sb.read_file("target"), "precious");
  EXPECT_EQ(file_size(sb.path("nowhere")), -1);
}

TEST(ShmRegion, PathIsCutAt63Characters) {
  Sandbox sb;
  std::string name(80, 'n');
  std::string full = sb.region(name);
  ASSERT_GT(full.size(), 63u);
  ASSERT_NE(shm_region_open(name.c_str(), sizeof(Rec), init_count), nullptr);
  EXPECT_EQ(file_size(full.substr(0, 63)), static_cast<off_t>(sizeof(Rec)));
  // Two long names that agree in what survives the cut are one region.
  auto *a = static_cast<Rec *>(shm_region_open((name + "-other").c_str(), sizeof(Rec), init_forbidden));
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->init_calls, 1);
}

TEST(ShmRegion, ReaderWithoutWritePermissionGetsAReadOnlyMapping) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to hand a region to an unprivileged user";
  Sandbox sb;
  ASSERT_EQ(chmod(sb.root().c_str(), 0755), 0);
  ASSERT_EQ(chmod(sb.path("shm").c_str(), 0755), 0);
  auto *rec = static_cast<Rec *>(shm_region_open("ro", sizeof(Rec), init_count));
  ASSERT_NE(rec, nullptr);
  rec->opened = 42;
  ASSERT_EQ(chmod(sb.region("ro").c_str(), 0644), 0);
  sb.write_file("shm/kelo-short", "ab");
  ASSERT_EQ(chmod(sb.region("short").c_str(), 0644), 0);

  auto r = run_child([] {
    if (!kelo::test::drop_to_nobody()) _exit(10);
    auto *ro = static_cast<Rec *>(shm_region_open("ro", sizeof(Rec), init_forbidden));
    if (ro == nullptr) _exit(11);
    if (ro->opened != 42 || ro->init_calls != 1) _exit(12);
    if (shm_region_open("short", sizeof(Rec), init_forbidden) != nullptr) _exit(13);
    printf("read ok");
    fflush(stdout);
    ro->opened = 7;  // read-only: the store faults
    _exit(14);
  });
  EXPECT_EQ(r.out, "read ok") << "exit " << r.exit_code;
  // AddressSanitizer reports the fault itself and exits instead.
  EXPECT_TRUE(r.signal == SIGSEGV || r.err.find("SEGV") != std::string::npos) << r.signal << r.err;
  EXPECT_EQ(rec->opened, 42);
  EXPECT_EQ(file_size(sb.region("short")), 2);
}

// log-control too short and not writable: no region, the system log keeps
// its built-in threshold of 6 and the file/stream sinks work as usual.
TEST(ShmRegion, LoggingGoesOnWithoutItsRegion) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to hand a region to an unprivileged user";
  Sandbox sb;
  ASSERT_EQ(chmod(sb.root().c_str(), 0755), 0);
  ASSERT_EQ(chmod(sb.path("shm").c_str(), 0755), 0);
  sb.write_file("shm/kelo-log-control", "short");
  ASSERT_EQ(chmod(sb.region("log-control").c_str(), 0644), 0);
  auto cap = kelo::test::capture_syslog([] {
    if (!kelo::test::drop_to_nobody()) _exit(10);
    unsetenv("KELO_LOG_FILE");
    unsetenv("KELO_LOG_LEVEL");
    log_debug("dropped at 6");
    log_info("kept at 6");
    fprintf(stderr, "%d %d", kelo::log::control() == nullptr, log_set_syslog_level(7));
    log_debug("still dropped");
  });
  if (!cap.available) {
    // Without a private /dev/log: the same story told by the stderr sink.
    auto r = run_child([] {
      if (!kelo::test::drop_to_nobody()) _exit(10);
      setenv("KELO_LOG_FILE", "-", 1);
      log_info("line");
      printf("%d %d", kelo::log::control() == nullptr, log_set_syslog_level(7));
    });
    EXPECT_EQ(r.out, "1 -1");
    EXPECT_NE(r.err.find("] line\n"), std::string::npos);
    GTEST_SKIP() << "system log part skipped: " << cap.why;
  }
  ASSERT_EQ(cap.exit_code, 0) << cap.err;
  EXPECT_EQ(cap.err, "1 -1");
  ASSERT_EQ(cap.messages.size(), 1u);
  EXPECT_EQ(kelo::test::syslog_text(cap.messages[0]), "kept at 6");
  EXPECT_EQ(file_size(sb.region("log-control")), 5);
}

TEST(ShmRegion, LogControlMutexIsErrorCheckingSharedAndRobust) {
  Sandbox sb;
  auto *c = static_cast<kelo::log::Control *>(
      shm_region_open("log-control", sizeof(kelo::log::Control), kelo::log::control_init));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->syslog_level, 6);
  // Another process takes the lock and dies holding it.
  auto r = run_child([c] {
    if (pthread_mutex_lock(&c->lock) != 0) _exit(2);
    if (pthread_mutex_lock(&c->lock) != EDEADLK) _exit(3);  // error-checking
    _exit(0);
  });
  ASSERT_EQ(r.exit_code, 0);
  struct timespec limit;
  clock_gettime(CLOCK_REALTIME, &limit);
  limit.tv_sec += 5;
  int rc = pthread_mutex_timedlock(&c->lock, &limit);
#if defined(__arm__)
  // qemu-user does not hand the dead owner's robust list to the kernel.
  if (rc == ETIMEDOUT) GTEST_SKIP() << "robust mutex cleanup not available under this emulator";
#endif
  EXPECT_EQ(rc, EOWNERDEAD);  // robust and shared
  EXPECT_EQ(pthread_mutex_consistent(&c->lock), 0);
  EXPECT_EQ(pthread_mutex_unlock(&c->lock), 0);
}

}  // namespace
