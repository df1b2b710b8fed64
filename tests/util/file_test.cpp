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
#include <tuple>

#include "kelo/file.h"
#include "support/sandbox.h"

namespace {

using kelo::test::Sandbox;

TEST(File, ReadAndWriteString) {
  Sandbox sb;
  sb.write_file("v", "12345");
  std::string p = sb.path("v");
  char buf[8];
  for (auto [size, ret, text] : {std::tuple{1, 0, ""}, {4, 3, "123"}, {8, 5, "12345"}}) {
    EXPECT_EQ(file_read_string(buf, static_cast<size_t>(size), p.c_str()), ret);
    EXPECT_STREQ(buf, text);
  }
  EXPECT_EQ(file_read_string(nullptr, 8, p.c_str()), -1);
  memset(buf, 'x', sizeof buf);
  errno = 0;
  EXPECT_EQ(file_read_string(buf, 0, p.c_str()), -1);  // no room even for the NUL
  EXPECT_EQ(errno, EINVAL);
  EXPECT_EQ(buf[0], 'x');
  std::string a78(78, 'a');
  // Not truncated; cut at the 80-byte buffer, the line feed first.
  const std::tuple<const char *, std::string, ssize_t, std::string> cases[] = {
      {"100\n", "1", 2, "1\n0\n"},
      {nullptr, "on", 3, "on\n"},
      {nullptr, a78, 79, a78 + "\n"},
      {nullptr, a78 + "a", 79, a78 + "a"},
      {nullptr, std::string(200, 'a'), 79, a78 + "a"}};
  for (const auto &[before, text, ret, after] : cases) {
    unlink(p.c_str());
    if (before) sb.write_file("v", before);
    EXPECT_EQ(file_write_string(text.c_str(), p.c_str()), ret) << text;
    EXPECT_EQ(sb.read_file("v"), after) << text;
  }
}

TEST(File, StringFailuresAreLogged) {
  Sandbox sb;
  std::string missing = sb.path("missing"), dir = sb.root(), nodir = sb.path("no/such/dir");
  auto r = kelo::test::run_child([&] {
    setenv("KELO_LOG_FILE", "-", 1);
    char buf[8] = "keep";
    printf("%zd ", file_read_string(buf, sizeof buf, missing.c_str()));
    printf("%zd %s ", file_read_string(buf, sizeof buf, dir.c_str()), buf);  // read of a directory fails
    printf("%zd\n", file_write_string("x", nodir.c_str()));
  });
  EXPECT_EQ(r.out, "-1 -1 keep -1\n");
  for (std::string line : {"file_read_string: open error(" + missing + "): No such file or directory\n",
                           "file_read_string: read error(" + dir + "): Is a directory\n",
                           "file_write_string: open error(" + nodir + "): No such file or directory\n"})
    EXPECT_NE(r.err.find(line), std::string::npos) << r.err;
}

TEST(File, PutContentsFlags) {
  Sandbox sb;
  std::string p = sb.path("f");
  // Before (nullptr: no file), flags, length, result, after. FILE_APPEND alone
  // truncates at open, then appends; unknown bits are ignored.
  const std::tuple<const char *, int, size_t, ssize_t, const char *> cases[] = {
      {"old-content", 0, 3, 3, "new"},
      {nullptr, 0, 3, 3, "new"},
      {"something", 0, 0, 0, ""},
      {nullptr, 0, 0, 0, ""},
      {"old-content", FILE_NO_TRUNC, 3, 3, "new-content"},
      {"old", FILE_APPEND | FILE_NO_TRUNC, 3, 3, "oldnew"},
      {"old", FILE_APPEND, 3, 3, "new"},
      {"old", FILE_EXCL, 3, -1, "old"},
      {nullptr, FILE_EXCL | FILE_SYNC, 3, 3, "new"},
      {"old", FILE_LOCK_EX, 3, 3, "new"},
      {"old", FILE_LOCK_SH, 3, 3, "new"},
      {"old", FILE_LOCK_EX | FILE_LOCK_SH, 3, 3, "new"},
      {"old", 0x40 | 0x100, 3, 3, "new"}};
  for (auto [before, flags, len, ret, after] : cases) {
    unlink(p.c_str());
    if (before) sb.write_file("f", before);
    errno = 0;
    EXPECT_EQ(file_put_contents(p.c_str(), "new", len, flags), ret) << flags;
    EXPECT_EQ(errno, ret < 0 ? EEXIST : 0) << flags;
    EXPECT_EQ(access(p.c_str(), F_OK), 0);
    EXPECT_EQ(sb.read_file("f"), after) << flags;
  }
  EXPECT_EQ(file_put_contents(sb.path("no/dir").c_str(), "x", 1, 0), -1);
}

// A call that asks for a lock another open file holds waits for it.
TEST(File, LocksAreHonoured) {
  Sandbox sb;
  std::string p = sb.path("f");
  sb.write_file("f", "data");
  for (auto [held, put, flags] : {std::tuple{LOCK_EX, false, FILE_LOCK_SH},
                                  {LOCK_SH, true, FILE_LOCK_EX},
                                  {LOCK_SH, true, FILE_LOCK_EX | FILE_LOCK_SH}}) {
    int holder = open(p.c_str(), O_RDONLY);
    ASSERT_EQ(flock(holder, held), 0);
    std::atomic<bool> done{false};
    std::thread t([&, put = put, flags = flags] {
      char buf[8] = {};
      put ? file_put_contents(p.c_str(), "data", 4, flags)
          : file_get_contents(p.c_str(), buf, sizeof buf, flags);
      done = true;
    });
    usleep(150000);
    EXPECT_FALSE(done) << flags;
    close(holder);
    t.join();
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
  sb.write_file("tree/one", std::string(1025, 'x'));
  EXPECT_EQ(dir_usage(sb.path("tree/one").c_str()), 1025u);  // a file: bytes
  EXPECT_EQ(dir_usage(d.c_str()), 2u);                       // a tree: KiB, each file rounded up
  // Subdirectories add up; empty files are 0.
  mkdir(sb.path("tree/sub").c_str(), 0755);
  mkdir(sb.path("tree/sub/deeper").c_str(), 0755);
  sb.write_file("tree/sub/a", std::string(1024, 'a'));
  sb.write_file("tree/sub/deeper/b", "b");
  sb.write_file("tree/sub/empty", "");
  EXPECT_EQ(dir_usage(d.c_str()), 4u);
  // Symbolic links are not followed inside the tree, but the starting path is.
  ASSERT_EQ(symlink(sb.path("tree/one").c_str(), sb.path("tree/link").c_str()), 0);
  ASSERT_EQ(symlink(sb.path("tree/sub").c_str(), sb.path("tree/dirlink").c_str()), 0);
  EXPECT_EQ(dir_usage(d.c_str()), 4u);
  EXPECT_EQ(dir_usage(sb.path("tree/dirlink").c_str()), 2u);
  EXPECT_EQ(dir_usage(sb.path("nothing").c_str()), 0u);
  // No descriptors are left open.
  int probe = dup(0);
  close(probe);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(dir_usage(d.c_str()), 4u);
  int after = dup(0);
  EXPECT_EQ(after, probe);
  close(after);
}

TEST(File, MakeParent) {
  Sandbox sb;
  sb.write_file("plain", "x");
  std::string p = sb.path("a/b/c/file"), copy = p;
  ASSERT_EQ(dir_make_parent(copy.data(), 0755), 0);
  EXPECT_EQ(copy, p);  // given back unchanged
  struct stat st;
  EXPECT_TRUE(stat(sb.path("a/b/c").c_str(), &st) == 0 && S_ISDIR(st.st_mode));
  EXPECT_NE(stat(p.c_str(), &st), 0);
  // Making "" fails for "/file"; an existing non-directory counts as there.
  const std::tuple<std::string, int, int> cases[] = {{p, 0, 0},
                                                     {"file", -1, EINVAL},
                                                     {"/file", -1, ENOENT},
                                                     {sb.path("plain/file"), 0, 0},
                                                     {sb.path("plain/x/file"), -1, ENOTDIR},
                                                     {"/" + std::string(5000, 'a') + "/f", -1, ENAMETOOLONG}};
  for (auto [path, ret, err] : cases) {
    errno = 0;
    EXPECT_EQ(dir_make_parent(path.data(), 0755), ret) << path;
    EXPECT_EQ(ret < 0 ? errno : 0, err) << path;
  }
}

}  // namespace
