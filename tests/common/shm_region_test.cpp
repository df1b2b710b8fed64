// Named shared regions between processes: racing creators, the creator
// decided by size, failed initialisers, read-only readers, planted files.
#include "common/shm_region.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <string>
#include <utility>

#include "support/sandbox.h"
#include "support/system_log.h"

namespace {

using kelo::shm_region_open;
using kelo::test::run_child;

struct Rec {
  int32_t init_calls, opened;
  unsigned char bytes[24];
};

off_t file_size(const std::string &p) { return static_cast<off_t>(kelo::test::slurp(p).size()); }

int init_count(void *r) { return static_cast<Rec *>(r)->init_calls += 1, 0; }
int init_forbidden(void *) { abort(); }  // a reader must never initialise

TEST(ShmRegion, RacingCreatorsInitialiseOnce) {
  kelo::test::Sandbox sb;
  int gate[2];
  ASSERT_EQ(pipe(gate), 0);
  for (int i = 0; i < 12; ++i) {
    if (fork() != 0) continue;
    close(gate[1]);
    char c;
    (void)!read(gate[0], &c, 1);  // all start together when the gate closes
    auto *rec = static_cast<Rec *>(shm_region_open("race", sizeof(Rec), [](void *r) {
      usleep(20 * 1000);  // widen the window for a second initialiser
      return init_count(r);
    }));
    if (rec != nullptr) std::atomic_ref<int32_t>(rec->opened).fetch_add(1);
    _exit(rec != nullptr && rec->init_calls == 1 ? 0 : 3);
  }
  close(gate[0]);
  close(gate[1]);
  for (int i = 0, st = -1; i < 12; ++i) EXPECT_TRUE(wait(&st) > 0 && st == 0) << st;
  auto *rec = static_cast<Rec *>(shm_region_open("race", sizeof(Rec), init_forbidden));
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(std::pair(rec->init_calls, rec->opened), std::pair(1, 12));
}

// New, empty (a crashed creator), short, exact and longer files: whether the
// initialiser runs and what it finds, the record, the size afterwards; an
// initialiser that fails leaves an empty file for the next opener.
TEST(ShmRegion, TheCreatorIsDecidedBySize) {
  const struct {
    const char *name;
    bool exists;
    std::string content;
    bool initialised;
    off_t size_after;
  } cases[] = {{"fresh", false, "", true, 32},
               {"empty", true, "", true, 32},
               {"short", true, "abc", true, 32},  // old bytes kept, zeros after them
               {"exact", true, std::string(32, 'x'), false, 32},
               {"longer", true, std::string(100, 'y'), false, 100}};
  kelo::test::Sandbox sb;
  for (const auto &c : cases) {
    if (c.exists) sb.write_file(std::string("shm/kelo-") + c.name, c.content);
    static std::string seen;  // what the initialiser found in the mapped record
    seen = "(not called)";
    auto *rec = static_cast<char *>(shm_region_open(c.name, sizeof(Rec), [](void *r) {
      seen.assign(static_cast<char *>(r), sizeof(Rec));
      return 1;  // any value >= 0 is success
    }));
    ASSERT_NE(rec, nullptr) << c.name;
    std::string record = (c.content + std::string(sizeof(Rec), '\0')).substr(0, sizeof(Rec));
    EXPECT_EQ(seen, c.initialised ? record : "(not called)") << c.name;
    EXPECT_EQ(std::string(rec, sizeof(Rec)), record) << c.name;
    EXPECT_EQ(file_size(sb.region(c.name)), c.size_after) << c.name;
  }
  EXPECT_EQ(shm_region_open("flaky", sizeof(Rec), [](void *r) { return init_count(r), -1; }), nullptr);
  EXPECT_EQ(file_size(sb.region("flaky")), 0);
  auto *rec = static_cast<Rec *>(shm_region_open("flaky", sizeof(Rec), init_count));
  ASSERT_NE(rec, nullptr);
  EXPECT_EQ(rec->init_calls, 1);
}

// A reader without write permission maps an initialised region read-only and
// gets no region when it is too short to map. Anything but a regular file at
// the region path is no region, for its owner and for a reader alike, and no
// opener blocks on it (a FIFO would).
TEST(ShmRegion, ReadersAndPlantedFiles) {
  if (geteuid() != 0) GTEST_SKIP() << "needs root to hand the tree to an unprivileged user";
  kelo::test::Sandbox sb;
  auto *rec = static_cast<Rec *>(shm_region_open("ro", sizeof(Rec), init_count));
  ASSERT_NE(rec, nullptr);
  rec->opened = 42;
  sb.write_file("shm/kelo-short", "ab");
  sb.write_file("target", "precious");
  ASSERT_EQ(symlink(sb.path("target").c_str(), sb.region("linked").c_str()), 0);
  ASSERT_EQ(symlink(sb.path("nowhere").c_str(), sb.region("dangling").c_str()), 0);
  ASSERT_EQ(mkfifo(sb.region("fifo").c_str(), 0644), 0);
  ASSERT_EQ(mkdir(sb.region("dir").c_str(), 0755), 0);
  for (const char *name : {"ro", "short"}) ASSERT_EQ(chmod(sb.region(name).c_str(), 0644), 0);
  for (bool reader : {true, false}) {  // the reader first, while "short" is short
    auto r = run_child(
        [reader] {
          if (reader && !kelo::test::drop_to_nobody()) _exit(10);
          bool writable = reader;  // the opposite of what is expected
          auto *ro = static_cast<Rec *>(shm_region_open("ro", sizeof(Rec), init_forbidden, &writable));
          printf("%d %d ", ro ? ro->opened : -1, writable);
          for (const char *name : {"short", "linked", "dangling", "fifo", "dir"})
            printf("%d", !shm_region_open(name, sizeof(Rec), reader ? init_forbidden : init_count));
        },
        5);
    EXPECT_EQ(r.out, reader ? "42 0 11111" : "42 1 01111") << "signal " << r.signal;
  }
  EXPECT_EQ(file_size(sb.region("short")), static_cast<off_t>(sizeof(Rec)));  // by its owner only
  EXPECT_EQ(sb.read_file("target"), "precious");
  EXPECT_NE(access(sb.path("nowhere").c_str(), F_OK), 0);
}

}  // namespace
