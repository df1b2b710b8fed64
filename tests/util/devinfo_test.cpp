// Device information, filled in forked processes from different files, and
// read back bounded whatever the shared region holds.
// ctest-labels: threads
#include <json-c/json.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "kelo/devinfo.h"
#include "kelo/otrpc.h"
#include "support/sandbox.h"

namespace {

using kelo::test::run_child;
using kelo::test::Sandbox;

const std::string kHeader = kelo::test::kWirelessHeader;
const std::string kWlan0 = kHeader + " wlan0: 0000   70.  -40.  -256  0 0 0 0 0 0\n";

// Every field as text, each up to its NUL.
void print_record() {
  const char *d = dev_get_info();
  printf("%s|%s|%s|%s|%s", d + DEV_INFO_MODEL, d + DEV_INFO_FW_VERSION, d + DEV_INFO_EXTRA_VERSION,
         d + DEV_INFO_EXTRA_TAG, d + DEV_INFO_IFNAME);
}

TEST(DevInfo, RecordFromOsReleaseAndWirelessList) {
  const struct {
    const char *os_release;  // nullptr: no file
    std::string wireless, version, ifname;
  } cases[] = {
      {"NAME=x\nHOLVEN_VERSION= \"1 2\"\r\nID=x\n", kWlan0, " \"1 2\"\r", "wlan0"},  // as it stands
      {"NAME=x\nHOLVEN_VERSION=4.5.6", kWlan0, "4.5.6", "wlan0"},                    // last line without LF
      {"OTHER_HOLVEN_VERSION=1\nHOLVEN_VERSION=2\n", kWlan0, "Unknown", "wlan0"},    // first hit only
      {nullptr, kHeader, "Unknown", ""},
      {"HOLVEN_VERSION=1\n", kHeader + "  wlp2s0: 0 1. 2. 3\n wlan1: 0 1. 2. 3\n", "1", "wlp2s0"},
      {"HOLVEN_VERSION=1\n", kHeader + " a:b: 0 1. 2.\n", "1", "a:b"},  // last colon cut
      {"HOLVEN_VERSION=1\n", kHeader + " abcdefghijklmnopqrstuvwxyz: 0\n", "1", "abcdefghijklmnopqr"},
  };
  for (const auto &c : cases) {
    Sandbox sb;
    unlink(sb.os_release().c_str());
    if (c.os_release) sb.write_file("os-release", c.os_release);
    sb.write_file("wireless", c.wireless);
    EXPECT_EQ(run_child(print_record).out,
              "tarsa.camera.v4|" + c.version + "|3.18.30|FIXME_kelo_util|" + c.ifname)
        << (c.os_release ? c.os_release : "(none)") << " / " << c.wireless;
  }
}

TEST(DevInfo, LongVersionRunsOnButStaysInTheRecord) {
  Sandbox sb;
  sb.write_file("os-release", "HOLVEN_VERSION=" + std::string(300, 'v') + "\n");
  auto r = run_child(print_record);
  // The later fields overwrite parts of the run-on value: 64 'v', then the
  // text of extra_version.
  EXPECT_EQ(r.out, "tarsa.camera.v4|" + std::string(64, 'v') + "3.18.30|3.18.30|FIXME_kelo_util|wlan0");
  std::string region = kelo::test::slurp(sb.region("devinfo"));
  ASSERT_EQ(region.size(), static_cast<size_t>(DEV_INFO_SIZE));
  EXPECT_EQ(region.back(), '\0');  // the value's terminator, clamped at the record end
}

// A region whose bytes hold no NUL at all (another process wrote it): the
// statistics message carries the fields up to the end of the record only.
TEST(DevInfo, StringsEndAtTheRecordEnd) {
  Sandbox sb;
  sb.write_file("shm/kelo-devinfo", std::string(4096, 'x'));  // a whole page: nothing stops a reader
  auto r = run_child([] {
    json_object *params = nullptr, *model = nullptr, *fw = nullptr;
    json_object *msg = _otrpc_create_stat_msg(&params);
    if (msg && json_object_object_get_ex(params, "model", &model) &&
        json_object_object_get_ex(params, "fw_ver", &fw))
      printf("%d %d", json_object_get_string_len(model), json_object_get_string_len(fw));
    json_object_put(msg);
  });
  EXPECT_EQ(r.out, std::to_string(DEV_INFO_SIZE) + " " + std::to_string(DEV_INFO_SIZE - DEV_INFO_FW_VERSION))
      << "signal " << r.signal;
}

// The first calls of several threads make one mapping; a failed open is
// tried again by the next call.
TEST(DevInfo, OneMappingAndRetriesAfterAFailure) {
  Sandbox sb;
  std::string shm = sb.path("shm");
  std::string region = sb.region("devinfo");
  for (int round = 0; round < 10; ++round) {
    auto r = run_child([&] {
      unlink(region.c_str());  // each round fills the record anew: a wide window
      const char *got[4];
      std::atomic<int> ready{0};
      std::thread threads[4];
      for (int i = 0; i < 4; ++i)
        threads[i] = std::thread([&, i] {
          for (ready++; ready < 4;) {
          }
          got[i] = dev_get_info();
        });
      for (auto &t : threads) t.join();
      printf("%d", got[0] != nullptr && got[0] == got[1] && got[1] == got[2] && got[2] == got[3]);
    });
    ASSERT_EQ(r.out, "1") << round;
  }
  auto r = run_child([&] {
    unlink(region.c_str());
    rmdir(shm.c_str());  // no directory: the region cannot be made
    const char *a = dev_get_info();
    mkdir(shm.c_str(), 0777);
    const char *b = dev_get_info();
    printf("%d %s", a == nullptr, b ? b + DEV_INFO_MODEL : "NULL");
  });
  EXPECT_EQ(r.out, "1 tarsa.camera.v4");
}

}  // namespace
