// Socket helpers and the wireless readers (with a fake wireless list).
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

size_t count(const std::string &text, const std::string &line) {
  size_t n = 0;
  for (size_t pos = 0; (pos = text.find(line, pos)) != std::string::npos; ++pos) ++n;
  return n;
}

TEST(Net, WaitSockTimeoutIdleSocket) {
  Sandbox sb;
  auto r = run_child([] {
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    errno = 0;
    int a = wait_sock_timeout(sv[0], 0, 1, 0);  // nothing to read
    int ea = errno;
    int b = wait_sock_timeout(sv[0], 0, 0, 1);  // writable at once
    write(sv[1], "x", 1);
    int c = wait_sock_timeout(sv[0], 0, 1, 1);
    printf("%d %d %d %d %d %d\n", a, ea == ETIMEDOUT, b, c, wait_sock_timeout(-1, 0, 1, 0) == -EBADF,
           wait_sock_timeout(FD_SETSIZE, 0, 1, 0) == -EBADF);
  });
  EXPECT_EQ(r.out, "-110 1 0 0 1 1\n");
  EXPECT_EQ(count(r.err, "wait_sock_timeout is deprecated.\n"), 5u);
  EXPECT_EQ(r.err.size(), 5 * strlen("wait_sock_timeout is deprecated.\n"));
}

TEST(Net, WaitSockTimeoutOnConnect) {
  int lfd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  socklen_t len = sizeof a;
  getsockname(lfd, reinterpret_cast<sockaddr *>(&a), &len);
  ASSERT_EQ(listen(lfd, 1), 0);
  for (int want : {0, -ECONNREFUSED}) {  // then refused: nothing listens on the port any more
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
  Sandbox sb;
  auto r = run_child([] {
    setenv("KELO_LOG_FILE", "-", 1);
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    std::vector<char> buf(1 << 20, 'z');
    int a = general_send_one(0, buf.data(), 10);
    int b = general_send_one(-3, buf.data(), 10);
    int c = general_send_one(sv[0], buf.data(), 0);
    int d = general_send_one(sv[0], buf.data(), 64);
    char got[65] = {};
    ssize_t n = read(sv[1], got, sizeof got);
    // A small send buffer: the first send takes part, the next fails with
    // EAGAIN and ends it; the last chunk's result is returned.
    int small = 4096;
    setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    int e = general_send_one(sv[0], buf.data(), static_cast<int>(buf.size()));
    close(sv[1]);
    int f = general_send_one(sv[0], buf.data(), 8);  // peer gone: EPIPE, no SIGPIPE
    printf("%d %d %d %d %zd %d %d\n", a, b, c, d, n, e, f);
  });
  EXPECT_EQ(r.out, "-1 -1 0 64 64 -1 -1\n");
  for (const char *line :
       {"sock not ready: 0\n", "sock not ready: -3\n", "Partial written\n",
        "net: send error: Resource temporarily unavailable\n", "net: send error: Broken pipe\n"})
    EXPECT_EQ(count(r.err, line), 1u) << line << r.err;
  EXPECT_EQ(count(r.err, "general_send_one is deprecated.\n"), 6u);
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
      {" wlan0: 0000   70.  -71.  -256        0\n", -71},
      {" wlan0: 0000   70.  12   -256\n", 12},  // no second '.': the rest of the line
      {" wlan0: 0000   70   -40   -256\n", 0},  // no '.': nothing read
      {" wlan0: 0000   70.  -40.\n p2p0: 0 1. -9.\n", -40},
      {" lo: 0000   1.  -33.  -256\n", -33},
  };
  for (const auto &[line, want] : cases) {
    auto r = with_wireless(kHeader + line, [] { printf("%d\n", net_rssi()); });
    EXPECT_EQ(r.out, std::to_string(want) + "\n") << line << r.err;
  }
  // The record names wlan0; the list is changed afterwards.
  Sandbox sb;
  auto r = run_child([&] {
    setenv("KELO_LOG_FILE", "-", 1);
    const char *info = dev_get_info();
    sb.write_file("wireless", kHeader + " wlan1: 0000 70. -40. -256\n");
    int a = net_rssi();
    unlink(sb.wireless().c_str());
    printf("%s %d %d\n", info + DEV_INFO_IFNAME, a, net_rssi());
  });
  EXPECT_EQ(r.out, "wlan0 0 0\n");
  EXPECT_NE(r.err.find("unable to open (/proc/net/wireless): No such file or directory\n"), std::string::npos)
      << r.err;
}

// Prints the hardware address calls (into 16 bytes, with ENODEV?, the bytes
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
  printf(" %d %d", n, errno != 0);
  printf(" %d\n", net_rssi());
}

TEST(Net, IoctlHelpersWithAFakeInterface) {
  std::string ee(34, 'e');
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
