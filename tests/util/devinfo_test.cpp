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

const std::string kHeader = kelo::test::kWirelessHeader;
const std::string kWlan0 = kHeader + " wlan0: 0000   70.  -40.  -256  0 0 0 0 0 0\n";

TEST(DevInfo, RecordFromOsReleaseAndWirelessList) {
  struct Case {
    const char *os_release;  // nullptr: no file
    std::string wireless, version, ifname;
  } cases[] = {
      {"NAME=Camera\nHOLVEN_VERSION=1.2.3_0045\nID=x\n", kWlan0, "1.2.3_0045", "wlan0"},
      {"HOLVEN_VERSION=9.9\n", kWlan0, "9.9", "wlan0"},                            // first line
      {"HOLVEN_VERSION=\"1.2.3\"\n", kWlan0, "\"1.2.3\"", "wlan0"},                // quotes kept
      {"HOLVEN_VERSION= 1 2\r\n", kWlan0, " 1 2\r", "wlan0"},                      // spaces and CR kept
      {"NAME=x\nHOLVEN_VERSION=4.5.6", kWlan0, "4.5.6", "wlan0"},                  // last line without LF
      {"HOLVEN_VERSION=\nX=1\n", kWlan0, "", "wlan0"},                             // empty value
      {"OTHER_HOLVEN_VERSION=1\nHOLVEN_VERSION=2\n", kWlan0, "Unknown", "wlan0"},  // key inside another line
      {"NAME=x\n", kWlan0, "Unknown", "wlan0"},
      {nullptr, kWlan0, "Unknown", "wlan0"},
      {"HOLVEN_VERSION=1\n", kHeader + "  wlp2s0: 0 1. 2. 3\n wlan1: 0 1. 2. 3\n", "1", "wlp2s0"},
      {"HOLVEN_VERSION=1\n", kHeader, "1", ""},
      {"HOLVEN_VERSION=1\n", "", "1", ""},
      {"HOLVEN_VERSION=1\n", kHeader + " wlan0 : 0 1. 2.\n", "1", "wlan0"},  // no colon in the word
      {"HOLVEN_VERSION=1\n", kHeader + " a:b: 0 1. 2.\n", "1", "a:b"},       // last colon cut
      {"HOLVEN_VERSION=1\n", kHeader + " abcdefghijklmnopqrstuvwxyz: 0\n", "1", "abcdefghijklmnopqr"},  // cut
  };
  for (const auto &c : cases) {
    Sandbox sb;
    unlink(sb.os_release().c_str());
    if (c.os_release) sb.write_file("os-release", c.os_release);
    sb.write_file("wireless", c.wireless);
    auto r = run_child([] {
      const char *d = dev_get_info();
      printf("%s|%s|%s|%s|%s\n", d + DEV_INFO_MODEL, d + DEV_INFO_FW_VERSION, d + DEV_INFO_EXTRA_VERSION,
             d + DEV_INFO_EXTRA_TAG, d + DEV_INFO_IFNAME);
    });
    EXPECT_EQ(r.out, "tarsa.camera.v4|" + c.version + "|3.18.30|FIXME_kelo_util|" + c.ifname + "\n")
        << (c.os_release ? c.os_release : "(none)") << " / " << c.wireless;
  }
}

TEST(DevInfo, LongVersionRunsOnButStaysInTheRecord) {
  Sandbox sb;
  sb.write_file("os-release", "HOLVEN_VERSION=" + std::string(300, 'v') + "\n");
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
    printf("%s %s %d\n", a + DEV_INFO_FW_VERSION, a + DEV_INFO_IFNAME, a == dev_get_info());
  });
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
