// Device information, filled in forked processes from different files, and
// read back bounded whatever the shared region holds.
// ctest-labels: threads
#include <json-c/json.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

#include "kelo/devinfo.h"
#include "kelo/log.h"
#include "kelo/otrpc.h"
#include "support/sandbox.h"

namespace {

using kelo::test::run_child;
using kelo::test::Sandbox;

// Every field as text, each up to its NUL.
void print_record() {
  const char *d = dev_get_info();
  printf("%s|%s|%s|%s|%s", d + DEV_INFO_MODEL, d + DEV_INFO_FW_VERSION, d + DEV_INFO_EXTRA_VERSION,
         d + DEV_INFO_EXTRA_TAG, d + DEV_INFO_IFNAME);
}

// The version as it stands and only from a line start; the first wireless
// interface, its last colon cut and its name cut at 18 bytes. A version
// longer than its field runs on into the next ones, which overwrite part of
// it, and is clamped at the record end.
TEST(DevInfo, RecordFromOsReleaseAndWirelessList) {
  const std::string head = kelo::test::kWirelessHeader;
  const std::string cases[][4] = {
      {"X=1\nHOLVEN_VERSION= \"1 2\"\r", head + " wlp2s0: 0 1\n wlan1: 0 1\n", " \"1 2\"\r", "wlp2s0"},
      {"OTHER_HOLVEN_VERSION=1\nHOLVEN_VERSION=2\n", head + " a:b: 0 1\n", "Unknown", "a:b"},
      {"HOLVEN_VERSION=1\n", head + " abcdefghijklmnopqrstuvwxyz: 0\n", "1", "abcdefghijklmnopqr"},
      {"HOLVEN_VERSION=" + std::string(300, 'v'), head + " wlan0: 0 1\n", std::string(64, 'v') + "3.18.30",
       "wlan0"}};
  for (const auto &[os_release, wireless, version, ifname] : cases) {
    Sandbox sb;
    sb.write_file("os-release", os_release);
    sb.write_file("wireless", wireless);
    EXPECT_EQ(run_child(print_record).out,
              "tarsa.camera.v4|" + version + "|3.18.30|FIXME_kelo_util|" + ifname);
    std::string region = kelo::test::slurp(sb.region("devinfo"));
    EXPECT_TRUE(region.size() == DEV_INFO_SIZE && region.back() == '\0') << region.size();
  }
}

// A region whose bytes hold no NUL at all (another process wrote it): the
// statistics message carries the fields up to the end of the record only.
TEST(DevInfo, StringsEndAtTheRecordEnd) {
  Sandbox sb;
  sb.write_file("shm/kelo-devinfo", std::string(4096, 'x'));  // a whole page: nothing stops a reader
  auto r = run_child([] {
    json_object *params = nullptr, *model = nullptr, *fw = nullptr;
    json_object *msg = _otrpc_create_stat_msg(&params);
    if (json_object_object_get_ex(params, "model", &model) &&
        json_object_object_get_ex(params, "fw_ver", &fw))
      printf("%d %d", json_object_get_string_len(model), json_object_get_string_len(fw));
    json_object_put(msg);
  });
  EXPECT_EQ(r.out, "228 164") << "signal " << r.signal;
}

// Without the wireless list the filling process says why at critical level,
// then aborts; the record stays as far as it was filled (no interface name),
// and a later process maps it without filling. A service's log handler that
// asks for the record while the reason is logged gets it (no lock of the
// library is held around the handler) instead of hanging the process.
TEST(DevInfo, NoWirelessListLogsTheCauseThenAborts) {
  Sandbox sb;
  const std::string log = sb.path("log"), missing = sb.wireless();
  unlink(missing.c_str());
  auto r = run_child([&] {
    setenv("KELO_LOG_FILE", log.c_str(), 1);
    dev_get_info();
  });
  EXPECT_EQ(r.signal, SIGABRT) << r.status;
  const std::string line = kelo::test::slurp(log);
  EXPECT_NE(line.find("[  crit] kelo_util: devinfo: cannot open " + missing + " (No such file or directory)"),
            std::string::npos)
      << line;
  EXPECT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
  EXPECT_EQ(run_child(print_record).out, "tarsa.camera.v4|1.2.3_0045|3.18.30|FIXME_kelo_util|");

  unlink(sb.region("devinfo").c_str());
  r = run_child([] {
    static log_handler asks = {[](log_handler *, int level, const char *, const char *, va_list) {
                                 printf("%d %s", level, dev_get_info() + DEV_INFO_MODEL);
                                 fflush(stdout);
                               },
                               nullptr, nullptr, nullptr};
    setenv("KELO_LOG_FILE", "-", 1);
    log_debug("logging starts");  // so that the handler below is not replaced by the lazy start
    log_set_handler(0xff, &asks);
    dev_get_info();
  });
  EXPECT_EQ(r.signal, SIGABRT) << r.status;
  EXPECT_EQ(r.out, "2 tarsa.camera.v4");
}

// A failed open is tried again by the next call; the first calls of several
// threads make one mapping.
TEST(DevInfo, RetriesAfterAFailureAndMapsOnce) {
  Sandbox sb;
  std::string shm = sb.path("shm"), region = sb.region("devinfo");
  for (int round = 0; round < 10; ++round) {
    auto r = run_child([&] {
      unlink(region.c_str());
      rmdir(shm.c_str());  // no directory: the region cannot be made
      printf("%d ", dev_get_info() == nullptr);
      mkdir(shm.c_str(), 0777);  // the record is filled anew: a wide window
      const char *got[4];
      std::atomic<int> ready{0};
      std::thread threads[4];
      for (int i = 0; i < 4; ++i)
        threads[i] = std::thread([&, i] {
          for (ready++; ready < 4;) continue;
          got[i] = dev_get_info();
        });
      for (auto &t : threads) t.join();
      printf("%s %d", got[0] ? got[0] + DEV_INFO_MODEL : "NULL",
             got[0] == got[1] && got[1] == got[2] && got[2] == got[3]);
    });
    ASSERT_EQ(r.out + r.err, "1 tarsa.camera.v4 1") << round;  // no sanitizer report either
  }
}

}  // namespace
