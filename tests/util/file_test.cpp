// Small-file helpers, directory usage and parent creation.
#include <errno.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <tuple>

#include "kelo/file.h"
#include "support/sandbox.h"

namespace {

// The 80-byte line and the length snprintf reports: no truncation of the
// file; a cut text is written up to the reported length, zeros past the 80.
TEST(File, WriteStringWritesTheReportedLength) {
  kelo::test::Sandbox sb;
  std::string p = sb.path("v"), a79(79, 'a');
  const std::tuple<const char *, std::string, std::string> cases[] = {
      {"100\n", "1", "1\n0\n"},
      {nullptr, a79.substr(1), a79.substr(1) + "\n"},
      {nullptr, a79, a79 + '\0'},
      {nullptr, std::string(200, 'a'), a79 + std::string(122, '\0')}};
  for (const auto &[before, text, after] : cases) {
    unlink(p.c_str());
    if (before) sb.write_file("v", before);
    EXPECT_EQ(file_write_string(text.c_str(), p.c_str()), static_cast<ssize_t>(text.size() + 1));
    EXPECT_EQ(sb.read_file("v"), after) << text.size();
  }
}

// Bytes for a file, KiB rounded up per file for a tree whose links are not
// followed, no descriptor left open; refusals instead of overruns.
TEST(File, DirUsageAndSafeRefusals) {
  kelo::test::Sandbox sb;
  std::string p = sb.path("tree/sub/file"), deep = "/" + std::string(5000, 'a') + "/f";
  ASSERT_EQ(dir_make_parent(p.data(), 0755), 0);
  sb.write_file("tree/one", std::string(1025, 'x'));
  sb.write_file("tree/sub/a", std::string(1024, 'a'));
  sb.write_file("tree/sub/b", "b");
  ASSERT_EQ(symlink(sb.path("tree/one").c_str(), sb.path("tree/link").c_str()), 0);
  ASSERT_EQ(symlink(sb.path("tree/sub").c_str(), sb.path("tree/dirlink").c_str()), 0);
  EXPECT_EQ(dir_usage(sb.path("tree/one").c_str()) + dir_usage(sb.path("tree/dirlink").c_str()), 1027u);
  int probe = dup(0);
  close(probe);
  for (int i = 0; i < 50; ++i) ASSERT_EQ(dir_usage(sb.path("tree").c_str()), 4u);
  EXPECT_EQ(dup(0), probe);
  close(probe);
  char buf[8] = "keep";
  EXPECT_TRUE(dir_make_parent(deep.data(), 0755) == -1 && errno == ENAMETOOLONG);
  EXPECT_TRUE(file_read_string(buf, 0, p.c_str()) == -1 && errno == EINVAL);  // no room even for the NUL
  EXPECT_STREQ(buf, "keep");
}

}  // namespace
