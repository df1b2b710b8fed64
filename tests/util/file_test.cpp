// Small-file helpers, directory usage and parent creation.
// ctest-labels: threads
#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "kelo/file.h"
#include "support/sandbox.h"

namespace {

using kelo::test::Sandbox;

bool is_dir(const std::string &p) {
  struct stat st;
  return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

TEST(File, ReadString) {
  Sandbox sb;
  sb.write_file("v", "12345");
  std::string p = sb.path("v");
  char buf[8];
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(file_read_string(buf, 1, p.c_str()), 0);
  EXPECT_STREQ(buf, "");
  EXPECT_EQ(file_read_string(buf, 4, p.c_str()), 3);
  EXPECT_STREQ(buf, "123");
  EXPECT_EQ(file_read_string(buf, sizeof buf, p.c_str()), 5);
  EXPECT_STREQ(buf, "12345");
  errno = 0;
  EXPECT_EQ(file_read_string(nullptr, 8, p.c_str()), -1);
  memset(buf, 'x', sizeof buf);
  EXPECT_EQ(file_read_string(buf, 0, p.c_str()), -1);  // no room even for the NUL
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(buf[0], 'x');
}

TEST(File, ReadStringLogsFailures) {
  Sandbox sb;
  std::string missing = sb.path("missing");
  std::string dir = sb.root();
  auto r = kelo::test::run_child([&] {
    setenv("KELO_LOG_FILE", "-", 1);
    char buf[8] = "keep";
    printf("%zd ", file_read_string(buf, sizeof buf, missing.c_str()));
    printf("%zd %s\n", file_read_string(buf, sizeof buf, dir.c_str()), buf);  // read of a directory fails
  });
  EXPECT_EQ(r.out, "-1 -1 keep\n");
  EXPECT_NE(r.err.find("file_read_string: open error(" + missing + "): No such file or directory\n"),
            std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("file_read_string: read error(" + dir + "): Is a directory\n"), std::string::npos) << r.err;
}

TEST(File, WriteStringDoesNotTruncate) {
  Sandbox sb;
  std::string p = sb.path("v");
  sb.write_file("v", "100\n");
  EXPECT_EQ(file_write_string("1", p.c_str()), 2);
  EXPECT_EQ(sb.read_file("v"), "1\n0\n");
  std::string fresh = sb.path("new");
  EXPECT_EQ(file_write_string("on", fresh.c_str()), 3);
  EXPECT_EQ(sb.read_file("new"), "on\n");
}

TEST(File, WriteStringCutsLongTextsAtTheBuffer) {
  Sandbox sb;
  std::string p = sb.path("v");
  struct Case {
    size_t len;
    ssize_t ret;
    std::string content;
  } cases[] = {
      {78, 79, std::string(78, 'a') + "\n"},
      {79, 79, std::string(79, 'a')},  // the line feed no longer fits
      {200, 79, std::string(79, 'a')},  // never more than the 80-byte buffer holds
  };
  for (const auto &c : cases) {
    unlink(p.c_str());
    EXPECT_EQ(file_write_string(std::string(c.len, 'a').c_str(), p.c_str()), c.ret) << c.len;
    EXPECT_EQ(sb.read_file("v"), c.content) << c.len;
  }
}

TEST(File, WriteStringLogsOpenFailure) {
  Sandbox sb;
  std::string p = sb.path("no/such/dir");
  auto r = kelo::test::run_child([&] {
    setenv("KELO_LOG_FILE", "-", 1);
    printf("%zd\n", file_write_string("x", p.c_str()));
  });
  EXPECT_EQ(r.out, "-1\n");
  EXPECT_NE(r.err.find("file_write_string: open error(" + p + "): No such file or directory\n"), std::string::npos)
      << r.err;
}

TEST(File, PutContentsFlags) {
  Sandbox sb;
  std::string p = sb.path("f");
  struct Case {
    const char *before;  // nullptr: no file
    int flags;
    ssize_t ret;
    const char *after;
  } cases[] = {
      {"old-content", 0, 3, "new"},
      {nullptr, 0, 3, "new"},
      {"old-content", FILE_NO_TRUNC, 3, "new-content"},
      {"old", FILE_APPEND | FILE_NO_TRUNC, 3, "oldnew"},
      {"old", FILE_APPEND, 3, "new"},  // truncated at open, then appended to
      {"old", FILE_EXCL, -1, "old"},
      {nullptr, FILE_EXCL | FILE_SYNC, 3, "new"},
      {"old", FILE_LOCK_EX, 3, "new"},
      {"old", FILE_LOCK_SH, 3, "new"},
      {"old", FILE_LOCK_EX | FILE_LOCK_SH, 3, "new"},
      {"old", 0x40 | 0x100, 3, "new"},  // unknown bits ignored
  };
  for (const auto &c : cases) {
    unlink(p.c_str());
    if (c.before) sb.write_file("f", c.before);
    errno = 0;
    EXPECT_EQ(file_put_contents(p.c_str(), "new", 3, c.flags), c.ret) << c.flags;
    if (c.ret < 0) {
      EXPECT_EQ(errno, EEXIST);
    }
    EXPECT_EQ(sb.read_file("f"), c.after) << c.flags;
  }
}

TEST(File, PutContentsZeroLengthTruncatesOrCreates) {
  Sandbox sb;
  std::string p = sb.path("f");
  sb.write_file("f", "something");
  EXPECT_EQ(file_put_contents(p.c_str(), "", 0, 0), 0);
  EXPECT_EQ(sb.read_file("f"), "");
  std::string q = sb.path("g");
  EXPECT_EQ(file_put_contents(q.c_str(), "", 0, 0), 0);
  EXPECT_EQ(access(q.c_str(), F_OK), 0);
  EXPECT_EQ(file_put_contents(sb.path("no/dir").c_str(), "x", 1, 0), -1);
}

// A call that asks for a lock another open file holds waits for it.
TEST(File, LocksAreHonoured) {
  Sandbox sb;
  std::string p = sb.path("f");
  sb.write_file("f", "data");
  struct Case {
    int held;
    bool put;
    int flags;
  } cases[] = {
      {LOCK_EX, false, FILE_LOCK_SH},
      {LOCK_SH, true, FILE_LOCK_EX},
      {LOCK_SH, true, FILE_LOCK_EX | FILE_LOCK_SH},
  };
  for (const auto &c : cases) {
    int holder = open(p.c_str(), O_RDONLY);
    ASSERT_EQ(flock(holder, c.held), 0);
    std::atomic<bool> done{false};
    std::thread t([&] {
      char buf[8] = {};
      if (c.put)
        file_put_contents(p.c_str(), "data", 4, c.flags);
      else
        file_get_contents(p.c_str(), buf, sizeof buf, c.flags);
      done = true;
    });
    usleep(150000);
    EXPECT_FALSE(done) << c.flags;
    close(holder);
    t.join();
    EXPECT_TRUE(done);
  }
  // A shared lock does not wait for another shared lock.
  int holder = open(p.c_str(), O_RDONLY);
  ASSERT_EQ(flock(holder, LOCK_SH), 0);
  char buf[8] = {};
  EXPECT_EQ(file_get_contents(p.c_str(), buf, 3, FILE_LOCK_SH), 3);
  EXPECT_EQ(std::string(buf), "dat");  // no NUL added: the rest is as it was
  close(holder);
  EXPECT_EQ(file_get_contents(sb.path("missing").c_str(), buf, 3, 0), -1);
}

TEST(File, DirUsageUnits) {
  Sandbox sb;
  std::string d = sb.path("tree");
  mkdir(d.c_str(), 0755);
  EXPECT_EQ(dir_usage(d.c_str()), 0u);  // empty directory
  sb.write_file("tree/one", "x");
  EXPECT_EQ(dir_usage(sb.path("tree/one").c_str()), 1u);  // a file: bytes
  EXPECT_EQ(dir_usage(d.c_str()), 1u);                    // a tree: KiB
  sb.write_file("tree/one", std::string(1025, 'x'));
  EXPECT_EQ(dir_usage(sb.path("tree/one").c_str()), 1025u);
  EXPECT_EQ(dir_usage(d.c_str()), 2u);
  // Subdirectories add up; each file rounds up on its own; empty files are 0.
  mkdir(sb.path("tree/sub").c_str(), 0755);
  mkdir(sb.path("tree/sub/deeper").c_str(), 0755);
  sb.write_file("tree/sub/a", std::string(1024, 'a'));
  sb.write_file("tree/sub/deeper/b", "b");
  sb.write_file("tree/sub/empty", "");
  EXPECT_EQ(dir_usage(d.c_str()), 4u);
  // Symbolic links are not followed inside the tree.
  ASSERT_EQ(symlink(sb.path("tree/one").c_str(), sb.path("tree/link").c_str()), 0);
  ASSERT_EQ(symlink(sb.path("tree/sub").c_str(), sb.path("tree/dirlink").c_str()), 0);
  EXPECT_EQ(dir_usage(d.c_str()), 4u);
  // ... but the starting path is followed.
  EXPECT_EQ(dir_usage(sb.path("tree/dirlink").c_str()), 2u);
  EXPECT_EQ(dir_usage(sb.path("nothing").c_str()), 0u);
}

TEST(File, DirUsageLeavesNoDescriptorsOpen) {
  Sandbox sb;
  mkdir(sb.path("t").c_str(), 0755);
  mkdir(sb.path("t/a").c_str(), 0755);
  sb.write_file("t/a/f", "x");
  int probe = dup(0);
  close(probe);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(dir_usage(sb.path("t").c_str()), 1u);
  int after = dup(0);
  EXPECT_EQ(after, probe);
  close(after);
}

TEST(File, MakeParent) {
  Sandbox sb;
  std::string p = sb.path("a/b/c/file");
  std::string copy = p;
  ASSERT_EQ(dir_make_parent(copy.data(), 0755), 0);
  EXPECT_EQ(copy, p);  // given back unchanged
  EXPECT_TRUE(is_dir(sb.path("a/b/c")));
  EXPECT_FALSE(is_dir(p));
  EXPECT_EQ(dir_make_parent(copy.data(), 0755), 0);  // all there already

  char bare[] = "file";
  errno = 0;
  EXPECT_EQ(dir_make_parent(bare, 0755), -1);
  EXPECT_EQ(errno, EINVAL);
  char root_file[] = "/file";
  EXPECT_EQ(dir_make_parent(root_file, 0755), -1);  // tries to make ""

  // An existing non-directory counts as there (not checked).
  sb.write_file("plain", "x");
  std::string q = sb.path("plain/file");
  EXPECT_EQ(dir_make_parent(q.data(), 0755), 0);
  std::string r = sb.path("plain/x/file");
  errno = 0;
  EXPECT_EQ(dir_make_parent(r.data(), 0755), -1);
  EXPECT_EQ(errno, ENOTDIR);

  std::string too_long = "/" + std::string(5000, 'a') + "/f";
  errno = 0;
  EXPECT_EQ(dir_make_parent(too_long.data(), 0755), -1);
  EXPECT_EQ(errno, ENAMETOOLONG);
}

}  // namespace
