// Device information, filled in forked processes from different files.
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "kelo/devinfo.h"
#include "support/sandbox.h"
#include "util/devinfo.h"

namespace {

using kelo::test::run_child;
using kelo::test::Sandbox;

const char kHeader[] =
    "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
    " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n";

// Makes the record in a child from these files and prints its fields.
kelo::test::ChildResult fill_with(const std::string *os_release, const std::string &wireless) {
  Sandbox sb;
  if (os_release)
    sb.write_file("os-release", *os_release);
  else
    unlink(sb.os_release().c_str());
  sb.write_file("wireless", wireless);
  return run_child([] {
    const char *r = dev_get_info();
    if (r == nullptr) {
      printf("NULL\n");
      return;
    }
    printf("%s|%s|%s|%s|%s\n", r + DEV_INFO_MODEL, r + DEV_INFO_FW_VERSION, r + DEV_INFO_EXTRA_VERSION,
           r + DEV_INFO_EXTRA_TAG, r + DEV_INFO_IFNAME);
  });
}

std::string std_wireless() { return std::string(kHeader) + " wlan0: 0000   70.  -40.  -256  0 0 0 0 0 0\n"; }

TEST(DevInfo, FirmwareVersionFromOsRelease) {
  struct Case {
    const char *name;
    std::string text;
    std::string version;
  } cases[] = {
      {"plain", "NAME=Camera\nHOLVEN_VERSION=1.2.3_0045\nID=x\n", "1.2.3_0045"},
      {"first line", "HOLVEN_VERSION=9.9\n", "9.9"},
      {"quotes kept", "HOLVEN_VERSION=\"1.2.3\"\n", "\"1.2.3\""},
      {"spaces and CR kept", "HOLVEN_VERSION= 1 2\r\n", " 1 2\r"},
      {"last line without LF", "NAME=x\nHOLVEN_VERSION=4.5.6", "4.5.6"},
      {"empty value", "HOLVEN_VERSION=\nX=1\n", ""},
      {"key inside another line", "OTHER_HOLVEN_VERSION=1\nHOLVEN_VERSION=2\n", "Unknown"},
      {"key absent", "NAME=x\n", "Unknown"},
      {"empty file", "", "Unknown"},
  };
  for (const auto &c : cases) {
    auto r = fill_with(&c.text, std_wireless());
    ASSERT_TRUE(r.exited) << c.name;
    EXPECT_EQ(r.out, "tarsa.camera.v4|" + c.version + "|3.18.30|FIXME_kelo_util|wlan0\n") << c.name;
  }
  auto r = fill_with(nullptr, std_wireless());
  EXPECT_EQ(r.out, "tarsa.camera.v4|Unknown|3.18.30|FIXME_kelo_util|wlan0\n");
}

TEST(DevInfo, LongVersionRunsOnButStaysInTheRecord) {
  std::string value(300, 'v');
  std::string text = "HOLVEN_VERSION=" + value + "\n";
  Sandbox sb;
  sb.write_file("os-release", text);
  sb.write_file("wireless", std_wireless());
  auto r = run_child([] {
    const char *rec = dev_get_info();
    // The later fields overwrite parts of the run-on value; the last byte of
    // the record stays the value's terminator.
    printf("%zu|%s|%s|%s|%d\n", strlen(rec + DEV_INFO_FW_VERSION), rec + DEV_INFO_EXTRA_VERSION,
           rec + DEV_INFO_EXTRA_TAG, rec + DEV_INFO_IFNAME, rec[DEV_INFO_SIZE - 1]);
  });
  // fw_version now runs into extra_version's text: 64 'v' then "3.18.30".
  EXPECT_EQ(r.out, "71|3.18.30|FIXME_kelo_util|wlan0|0\n") << r.err;
  // The region file itself is exactly one record long.
  EXPECT_EQ(kelo::test::slurp(sb.region("devinfo")).size(), static_cast<size_t>(DEV_INFO_SIZE));
}

TEST(DevInfo, InterfaceName) {
  struct Case {
    const char *name;
    std::string list;
    std::string ifname;
  } cases[] = {
      {"wlan0", std_wireless(), "wlan0"},
      {"first of two", std::string(kHeader) + "  wlp2s0: 0 1. 2. 3\n wlan1: 0 1. 2. 3\n", "wlp2s0"},
      {"headers only", kHeader, ""},
      {"empty", "", ""},
      {"no colon in the word", std::string(kHeader) + " wlan0 : 0 1. 2.\n", "wlan0"},
      {"last colon cut", std::string(kHeader) + " a:b: 0 1. 2.\n", "a:b"},
      {"overlong word is cut", std::string(kHeader) + " abcdefghijklmnopqrstuvwxyz: 0\n", "abcdefghijklmnopqr"},
  };
  std::string os = "HOLVEN_VERSION=1\n";
  for (const auto &c : cases) {
    auto r = fill_with(&os, c.list);
    EXPECT_EQ(r.out, "tarsa.camera.v4|1|3.18.30|FIXME_kelo_util|" + c.ifname + "\n") << c.name;
  }
}

TEST(DevInfo, MissingWirelessListAbortsTheFiller) {
  Sandbox sb;
  unlink(sb.wireless().c_str());
  auto r = run_child([] { dev_get_info(); });
  EXPECT_FALSE(r.exited);
  EXPECT_EQ(r.signal, SIGABRT);
}

TEST(DevInfo, FilledOnceThenOnlyMapped) {
  Sandbox sb;
  auto first = run_child([] { printf("%s\n", dev_get_info() + DEV_INFO_FW_VERSION); });
  EXPECT_EQ(first.out, "1.2.3_0045\n");
  // A later process sees the record as made, not the changed files.
  sb.write_file("os-release", "HOLVEN_VERSION=2.0\n");
  unlink(sb.wireless().c_str());
  auto second = run_child([] {
    const char *a = dev_get_info();
    const char *b = dev_get_info();
    printf("%s %s %d\n", a + DEV_INFO_FW_VERSION, a + DEV_INFO_IFNAME, a == b);
  });
  EXPECT_TRUE(second.exited);
  EXPECT_EQ(second.out, "1.2.3_0045 wlan0 1\n");
}

TEST(DevInfo, NullWhenTheRegionCannotBeMade) {
  Sandbox sb;
  std::string shm = sb.path("shm");
  auto r = run_child([&] {
    rmdir(shm.c_str());
    const char *a = dev_get_info();
    mkdir(shm.c_str(), 0777);  // the next call tries again
    const char *b = dev_get_info();
    printf("%d %s\n", a == nullptr, b ? b + DEV_INFO_MODEL : "NULL");
  });
  EXPECT_EQ(r.out, "1 tarsa.camera.v4\n");
}

}  // namespace
