// Socket helpers (a real TCP peer on loopback) and the wireless readers (with
// a fake wireless list).
#include <arpa/inet.h>
#include <errno.h>
#include <linux/wireless.h>
#include <netinet/in.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "kelo/devinfo.h"
#include "kelo/net.h"
#include "support/sandbox.h"

namespace {

using kelo::test::run_child;
using kelo::test::Sandbox;

const std::string kHeader = kelo::test::kWirelessHeader;

TEST(Net, WaitSockTimeout) {
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  errno = 0;
  EXPECT_EQ(wait_sock_timeout(sv[0], 0, 1, 0), -ETIMEDOUT);  // nothing to read
  EXPECT_EQ(errno, ETIMEDOUT);
  EXPECT_EQ(wait_sock_timeout(sv[0], 0, 0, 1), 0);  // writable at once
  ASSERT_EQ(write(sv[1], "x", 1), 1);
  EXPECT_EQ(wait_sock_timeout(sv[0], 0, 1, 1), 0);
  // Descriptors an fd_set cannot hold are refused instead of written past the set.
  EXPECT_EQ(wait_sock_timeout(-1, 0, 1, 0), -EBADF);
  EXPECT_EQ(wait_sock_timeout(FD_SETSIZE, 0, 1, 0), -EBADF);
  // A non-blocking connect: accepted, then refused once nothing listens on the port.
  int lfd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  ASSERT_EQ(getsockname(lfd, reinterpret_cast<sockaddr *>(&a), &len), 0);
  ASSERT_EQ(listen(lfd, 1), 0);
  for (int want : {0, -ECONNREFUSED}) {
    if (want) close(lfd);
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
    connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    errno = 0;
    EXPECT_EQ(wait_sock_timeout(fd, 5, 0, 1), want);
    EXPECT_EQ(errno, -want);
    close(fd);
  }
}

TEST(Net, GeneralSendOne) {
  Sandbox sb;  // the failures are logged
  setenv("KELO_LOG_FILE", "-", 1);
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  std::vector<char> buf(1 << 20, 'z');
  EXPECT_EQ(general_send_one(0, buf.data(), 10), -1);  // descriptor 0 counts as not ready
  EXPECT_EQ(general_send_one(sv[0], buf.data(), 0), 0);
  EXPECT_EQ(general_send_one(sv[0], buf.data(), 64), 64);
  char got[65];
  EXPECT_EQ(read(sv[1], got, sizeof got), 64);
  // A small send buffer: the first send takes part, the next fails with
  // EAGAIN and ends it; the last chunk's result is returned.
  int small = 4096;
  setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  EXPECT_EQ(general_send_one(sv[0], buf.data(), static_cast<int>(buf.size())), -1);
  close(sv[1]);
  EXPECT_EQ(general_send_one(sv[0], buf.data(), 8), -1);  // peer gone: EPIPE, and no SIGPIPE kills us
  close(sv[0]);
}

// Runs fn in a child whose wireless list is `list` (read when the device
// record is first made); without a region directory when no_region.
kelo::test::ChildResult with_wireless(const std::string &list, void (*fn)(), bool no_region = false) {
  Sandbox sb;
  sb.write_file("wireless", list);
  std::string shm = sb.path("shm");
  return run_child([&] {
    setenv("KELO_LOG_FILE", "-", 1);
    if (no_region) rmdir(shm.c_str());
    fn();
  });
}

TEST(Net, RssiReadsTheLevelColumn) {
  const std::pair<std::string, int> cases[] = {
      {" wlan0: 0000   70.  -40.  -256        0      0      0      0      0        0\n", -40},
      {" wlan0: 0000   70.  12   -256\n", 12},  // no second '.': the rest of the line
      {" wlan0: 0000   70   -40   -256\n", 0},  // no '.': nothing read
      {" lo: 0000   1.  -33.  -256\n", -33},
  };
  for (const auto &[line, want] : cases) {
    auto r = with_wireless(kHeader + line, [] { printf("%d\n", net_rssi()); });
    EXPECT_EQ(r.out, std::to_string(want) + "\n") << line << r.err;
  }
  // The record names wlan0; the list is changed afterwards, then removed.
  Sandbox sb;
  auto r = run_child([&] {
    setenv("KELO_LOG_FILE", "-", 1);
    const char *info = dev_get_info();
    sb.write_file("wireless", kHeader + " wlan1: 0000 70. -40. -256\n");
    int a = net_rssi();
    unlink(sb.wireless().c_str());
    printf("%s %d %d\n", info + DEV_INFO_IFNAME, a, net_rssi());
  });
  EXPECT_EQ(r.out, "wlan0 0 0\n") << r.err;
}

// Prints the hardware address calls (into 16 bytes with ENODEV?, the bytes
// and a guard; into 6 bytes with a guard), iw_stat (with errno set?) and rssi.
void iw_calls() {
  unsigned char out[17];
  memset(out, 0xee, sizeof out);
  errno = 0;
  int n = net_iw_hwaddr(out, 16);
  printf("%d %d ", n, errno == ENODEV);
  for (unsigned char c : out) printf("%02x", c);
  memset(out, 0xee, sizeof out);
  n = net_iw_hwaddr(out, 6);
  printf(" %d %02x", n, out[6]);
  struct iw_statistics st;
  errno = 0;
  n = net_iw_stat(&st);
  printf(" %d %d %d\n", n, errno != 0, net_rssi());
}

TEST(Net, IoctlHelpersWithAFakeInterface) {
  const std::string ee(34, 'e');
  // Loopback: ARPHRD_LOOPBACK (772) and a zero address; no wireless statistics.
  auto lo = with_wireless(kHeader + "    lo: 0000   0.  0.  0\n", iw_calls);
  EXPECT_EQ(lo.out, "16 0 0403" + std::string(28, '0') + "ee 6 ee -1 1 0\n") << lo.err;
  auto none = with_wireless(kHeader + " nosuchif0: 0000 0. 0. 0\n", iw_calls);
  EXPECT_EQ(none.out, "-1 1 " + ee + " -1 ee -1 1 0\n") << none.err;
  // The region cannot be made: no record, no crash.
  auto no_record = with_wireless(
      kHeader, [] { printf("%d ", dev_get_info() == nullptr), iw_calls(); }, true);
  EXPECT_EQ(no_record.out, "1 -1 1 " + ee + " -1 ee -1 1 0\n") << no_record.err;
}

}  // namespace
