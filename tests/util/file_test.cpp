// Small-file helpers, directory usage and parent creation.
// ctest-labels: threads
#include <errno.h>
#include <fcntl.h>
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

// The 80-byte line and the length snprintf reports: no truncation of the
// file; a cut text is written up to the reported length, zeros past the 80.
TEST(File, WriteStringWritesTheReportedLength) {
  Sandbox sb;
  std::string p = sb.path("v"), a78(78, 'a'), nul(1, '\0');
  const std::tuple<const char *, std::string, std::string> cases[] = {
      {"100\n", "1", "1\n0\n"},
      {nullptr, a78, a78 + "\n"},
      {nullptr, a78 + "a", a78 + "a" + nul},
      {nullptr, std::string(200, 'a'), a78 + "a" + std::string(122, '\0')}};
  for (const auto &[before, text, after] : cases) {
    unlink(p.c_str());
    if (before) sb.write_file("v", before);
    EXPECT_EQ(file_write_string(text.c_str(), p.c_str()), static_cast<ssize_t>(text.size() + 1))
        << text.size();
    EXPECT_EQ(sb.read_file("v"), after) << text.size();
  }
  char buf[8] = "keep";
  EXPECT_EQ(file_read_string(buf, 0, p.c_str()), -1);  // no room even for the NUL
  EXPECT_EQ(errno, EINVAL);
  EXPECT_STREQ(buf, "keep");
}

// A call that asks for a lock another open file holds waits for it; shared
// locks do not wait for each other.
TEST(File, LocksAreHonoured) {
  Sandbox sb;
  std::string p = sb.path("f");
  sb.write_file("f", "data");
  int holder = open(p.c_str(), O_RDONLY);
  ASSERT_EQ(flock(holder, LOCK_SH), 0);
  char buf[8] = {};
  EXPECT_EQ(file_get_contents(p.c_str(), buf, 3, FILE_LOCK_SH), 3);
  std::atomic<bool> done{false};
  std::thread t([&] {
    file_put_contents(p.c_str(), "new", 3, FILE_LOCK_EX | FILE_LOCK_SH | FILE_NO_TRUNC);
    done = true;
  });
  usleep(150000);
  EXPECT_FALSE(done);
  close(holder);
  t.join();
  EXPECT_EQ(sb.read_file("f"), "newa");
}

TEST(File, DirUsageUnits) {
  Sandbox sb;
  std::string d = sb.path("tree");
  mkdir(d.c_str(), 0755);
  mkdir(sb.path("tree/sub").c_str(), 0755);
  sb.write_file("tree/one", std::string(1025, 'x'));
  sb.write_file("tree/sub/a", std::string(1024, 'a'));
  sb.write_file("tree/sub/b", "b");
  sb.write_file("tree/sub/empty", "");
  // Links inside the tree are not followed; the starting path is.
  ASSERT_EQ(symlink(sb.path("tree/one").c_str(), sb.path("tree/link").c_str()), 0);
  ASSERT_EQ(symlink(sb.path("tree/sub").c_str(), sb.path("tree/dirlink").c_str()), 0);
  EXPECT_EQ(dir_usage(sb.path("tree/one").c_str()), 1025u);   // a file: bytes
  EXPECT_EQ(dir_usage(sb.path("tree/dirlink").c_str()), 2u);  // a tree: KiB, each file rounded up
  int probe = dup(0);
  close(probe);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(dir_usage(d.c_str()), 4u);
  int after = dup(0);  // no descriptor left open
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
  const std::tuple<std::string, int> cases[] = {
      {sb.path("plain/file"), 0},  // an existing non-directory counts
      {sb.path("plain/x/file"), ENOTDIR},
      {"/" + std::string(5000, 'a') + "/f", ENAMETOOLONG}};
  for (auto [path, err] : cases) {
    errno = 0;
    EXPECT_EQ(dir_make_parent(path.data(), 0755), err ? -1 : 0) << path;
    EXPECT_EQ(err ? errno : 0, err) << path;
  }
}

}  // namespace
