// Named shared regions: creation races, sizes, failed initialisers, readers
// without write permission, planted links, long names, the in-region mutex.
#include "common/shm_region.h"

#include <errno.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
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
  static_cast<Rec *>(r)->init_calls += 1;
  return 0;
}

// A reader must never initialise: this one would say so.
int init_forbidden(void *) { abort(); }

TEST(ShmRegion, SixteenRacingCreatorsInitialiseOnce) {
  Sandbox sb;
  int gate[2];
  ASSERT_EQ(pipe(gate), 0);
  for (int i = 0; i < 16; ++i) {
    pid_t k = fork();
    ASSERT_GE(k, 0);
    if (k > 0) continue;
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
  close(gate[0]);
  close(gate[1]);
  for (int i = 0, st; i < 16; ++i) {
    ASSERT_GT(waitpid(-1, &st, 0), 0);
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "status " << st;
  }
  auto *rec = static_cast<Rec *>(shm_region_open("race", sizeof(Rec), init_forbidden));
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->init_calls, 1);
  EXPECT_EQ(rec->opened, 16);
}

// New, empty (a crashed creator), short, exact and longer files: whether the
// initialiser runs and what it finds, the record, the size afterwards.
TEST(ShmRegion, FilesBySizeAndMode) {
  struct Case {
    const char *name;
    bool exists;
    std::string content;
    bool initialised;
    off_t size_after;
  } cases[] = {
      {"fresh", false, "", true, sizeof(Rec)},
      {"empty", true, "", true, sizeof(Rec)},
      {"short", true, "abc", true, sizeof(Rec)},  // old bytes kept, zeros after them
      {"exact", true, std::string(sizeof(Rec), 'x'), false, sizeof(Rec)},
      {"longer", true, std::string(100, 'y'), false, 100},
  };
  Sandbox sb;
  umask(0);  // the mode is the library's own
  for (const auto &c : cases) {
    SCOPED_TRACE(c.name);
    if (c.exists) sb.write_file(std::string("shm/kelo-") + c.name, c.content);
    static std::string seen;  // what the initialiser found in the mapped record
    seen = "(not called)";
    auto *rec = static_cast<char *>(shm_region_open(c.name, sizeof(Rec), [](void *r) {
      seen.assign(static_cast<char *>(r), sizeof(Rec));
      return 1;  // any value >= 0 is success
    }));
    ASSERT_NE(rec, nullptr);
    std::string record = (c.content + std::string(sizeof(Rec), '\0')).substr(0, sizeof(Rec));
    EXPECT_EQ(seen, c.initialised ? record : "(not called)");
    EXPECT_EQ(std::string(rec, sizeof(Rec)), record);
    struct stat st;
    ASSERT_EQ(stat(sb.region(c.name).c_str(), &st), 0);
    EXPECT_EQ(st.st_size, c.size_after);
    if (!c.exists) {
      EXPECT_EQ(st.st_mode & 07777, 0664u);
    }
  }
}

TEST(ShmRegion, FailedInitialiserLeavesAnEmptyFileForTheNextOpener) {
  Sandbox sb;
  EXPECT_EQ(shm_region_open("flaky", sizeof(Rec),
                            [](void *r) {
                              static_cast<Rec *>(r)->init_calls = 99;  // written, then thrown away
                              return -1;
                            }),
            nullptr);
  EXPECT_EQ(file_size(sb.region("flaky")), 0);
  auto *rec = static_cast<Rec *>(shm_region_open("flaky", sizeof(Rec), init_count));
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->init_calls, 1);
}

TEST(ShmRegion, RefusesSymbolicLinksAndCutsThePathAt63) {
  Sandbox sb;
  sb.write_file("target", "precious");
  ASSERT_EQ(symlink(sb.path("target").c_str(), sb.region("linked").c_str()), 0);
  ASSERT_EQ(symlink(sb.path("nowhere").c_str(), sb.region("dangling").c_str()), 0);
  EXPECT_EQ(shm_region_open("linked", sizeof(Rec), init_count), nullptr);
  EXPECT_EQ(shm_region_open("dangling", sizeof(Rec), init_count), nullptr);
  EXPECT_EQ(sb.read_file("target"), "precious");
  EXPECT_EQ(file_size(sb.path("nowhere")), -1);

  std::string name(80, 'n');
  ASSERT_GT(sb.region(name).size(), 63u);
  ASSERT_NE(shm_region_open(name.c_str(), sizeof(Rec), init_count), nullptr);
  EXPECT_EQ(file_size(sb.region(name).substr(0, 63)), static_cast<off_t>(sizeof(Rec)));
  // Two long names that agree in what survives the cut are one region.
  auto *a = static_cast<Rec *>(shm_region_open((name + "-other").c_str(), sizeof(Rec), init_forbidden));
  ASSERT_NE(a, nullptr);
  EXPECT_EQ(a->init_calls, 1);
}

// A reader without write permission gets a read-only mapping; a too-short
// file it cannot extend is no region. Without its log-control region the
// system log keeps the built-in threshold of 6.
TEST(ShmRegion, ReadOnlyReadersAndLoggingWithoutItsRegion) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to hand a region to an unprivileged user";
  Sandbox sb;
  ASSERT_EQ(chmod(sb.root().c_str(), 0755), 0);
  ASSERT_EQ(chmod(sb.path("shm").c_str(), 0755), 0);
  auto *rec = static_cast<Rec *>(shm_region_open("ro", sizeof(Rec), init_count));
  ASSERT_NE(rec, nullptr);
  rec->opened = 42;
  sb.write_file("shm/kelo-short", "ab");
  sb.write_file("shm/kelo-log-control", "short");
  for (const char *name : {"ro", "short", "log-control"}) ASSERT_EQ(chmod(sb.region(name).c_str(), 0644), 0);

  auto r = run_child([] {
    if (!kelo::test::drop_to_nobody()) _exit(10);
    auto *ro = static_cast<Rec *>(shm_region_open("ro", sizeof(Rec), init_forbidden));
    if (ro == nullptr || ro->opened != 42 || ro->init_calls != 1) _exit(11);
    if (shm_region_open("short", sizeof(Rec), init_forbidden) != nullptr) _exit(12);
    printf("read ok");
    fflush(stdout);
    ro->opened = 7;  // read-only: the store faults
    _exit(13);
  });
  EXPECT_EQ(r.out, "read ok") << "exit " << r.exit_code;
  // AddressSanitizer reports the fault itself and exits instead.
  EXPECT_TRUE(r.signal == SIGSEGV || r.err.find("SEGV") != std::string::npos) << r.signal << r.err;
  EXPECT_EQ(rec->opened, 42);
  EXPECT_EQ(file_size(sb.region("short")), 2);

  auto cap = kelo::test::capture_syslog([] {
    if (!kelo::test::drop_to_nobody()) _exit(10);
    setenv("KELO_LOG_FILE", "-", 1);  // the stream sink works as usual ...
    log_info("line");
    fprintf(stderr, "%d ", kelo::log::control() == nullptr);
    fprintf(stderr, "%d", log_set_syslog_level(7));
    unsetenv("KELO_LOG_FILE");  // ... and so does the system log, at 6
    kelo::log::init();
    log_debug("dropped at 6");
    log_info("kept at 6");
  });
  if (!cap.available) GTEST_SKIP() << "no private /dev/log: " << cap.why;
  ASSERT_EQ(cap.exit_code, 0) << cap.err;
  EXPECT_NE(cap.err.find("] line\n1 -1"), std::string::npos) << cap.err;
  ASSERT_EQ(cap.messages.size(), 1u);
  EXPECT_EQ(cap.messages[0].text, "kept at 6");
  EXPECT_EQ(file_size(sb.region("log-control")), 5);
}

TEST(ShmRegion, LogControlMutexIsErrorCheckingSharedAndRobust) {
  Sandbox sb;
  auto *c = static_cast<kelo::log::Control *>(
      shm_region_open("log-control", sizeof(kelo::log::Control), kelo::log::control_init));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->syslog_level, 6);
  auto r = run_child([c] {  // another process takes the lock and dies holding it
    if (pthread_mutex_lock(&c->lock) != 0) _exit(2);
    _exit(pthread_mutex_lock(&c->lock) == EDEADLK ? 0 : 3);  // error-checking
  });
  ASSERT_EQ(r.exit_code, 0);
  int rc = pthread_mutex_trylock(&c->lock);  // the owner is gone: no waiting
#if defined(__arm__)
  // qemu-user does not hand the dead owner's robust list to the kernel.
  if (rc == EBUSY) GTEST_SKIP() << "robust mutex cleanup not available under this emulator";
#endif
  EXPECT_EQ(rc, EOWNERDEAD);  // robust and shared
  EXPECT_EQ(pthread_mutex_consistent(&c->lock), 0);
  EXPECT_EQ(pthread_mutex_unlock(&c->lock), 0);
}

}  // namespace
