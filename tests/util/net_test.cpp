// Socket helpers and the wireless readers (with a fake wireless list).
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
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

const char kHeader[] =
    "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
    " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n";

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
    int d = wait_sock_timeout(-1, 0, 1, 0);
    int e = wait_sock_timeout(FD_SETSIZE, 0, 1, 0);
    printf("%d %d %d %d %d %d\n", a, ea == ETIMEDOUT, b, c, d == -EBADF, e == -EBADF);
  });
  EXPECT_EQ(r.out, "-110 1 0 0 1 1\n");
  std::string line = "wait_sock_timeout is deprecated.\n";
  std::string want;
  for (int i = 0; i < 5; ++i) want += line;
  EXPECT_EQ(r.err, want);
}

TEST(Net, WaitSockTimeoutReportsRefusedConnect) {
  int port = kelo::test::free_port();
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  struct sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  int c = connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  ASSERT_TRUE(c == 0 || errno == EINPROGRESS || errno == ECONNREFUSED);
  errno = 0;
  EXPECT_EQ(wait_sock_timeout(fd, 5, 0, 1), -ECONNREFUSED);
  EXPECT_EQ(errno, ECONNREFUSED);
  close(fd);
}

TEST(Net, WaitSockTimeoutCompletesConnect) {
  int lfd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(bind(lfd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  socklen_t len = sizeof a;
  getsockname(lfd, reinterpret_cast<sockaddr *>(&a), &len);
  ASSERT_EQ(listen(lfd, 1), 0);
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  EXPECT_EQ(wait_sock_timeout(fd, 5, 0, 1), 0);
  close(fd);
  close(lfd);
}

TEST(Net, GeneralSendOne) {
  Sandbox sb;
  auto r = run_child([] {
    setenv("KELO_LOG_FILE", "-", 1);
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    char buf[64];
    memset(buf, 'z', sizeof buf);
    int a = general_send_one(0, buf, 10);
    int b = general_send_one(-3, buf, 10);
    int c = general_send_one(sv[0], buf, 0);
    int d = general_send_one(sv[0], buf, 64);
    char got[65] = {};
    ssize_t n = read(sv[1], got, sizeof got);
    close(sv[1]);
    int e = general_send_one(sv[0], buf, 8);  // peer gone: EPIPE, no SIGPIPE
    printf("%d %d %d %d %zd %d\n", a, b, c, d, n, e);
  });
  EXPECT_EQ(r.out, "-1 -1 0 64 64 -1\n");
  EXPECT_NE(r.err.find("sock not ready: 0\n"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("sock not ready: -3\n"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("net: send error: Broken pipe\n"), std::string::npos) << r.err;
  size_t count = 0;
  for (size_t pos = 0; (pos = r.err.find("general_send_one is deprecated.\n", pos)) != std::string::npos; ++pos)
    ++count;
  EXPECT_EQ(count, 5u);
}

TEST(Net, GeneralSendOneReturnsTheLastChunk) {
  Sandbox sb;
  auto r = run_child([] {
    setenv("KELO_LOG_FILE", "-", 1);
    int sv[2];
    socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
    int small = 4096;
    setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
    std::vector<char> big(1 << 20, 'b');
    // The first send takes part; the next fails with EAGAIN and ends it.
    int got = general_send_one(sv[0], big.data(), static_cast<int>(big.size()));
    printf("%d\n", got);
  });
  EXPECT_EQ(r.out, "-1\n");
  EXPECT_NE(r.err.find("Partial written\n"), std::string::npos) << r.err;
  EXPECT_NE(r.err.find("net: send error: Resource temporarily unavailable\n"), std::string::npos) << r.err;
}

// Runs fn in a child whose device information lists `ifname_line` as the
// wireless list (written before the record is first made).
kelo::test::ChildResult with_wireless(const std::string &list, const std::function<void()> &fn) {
  Sandbox sb;
  sb.write_file("wireless", list);
  return run_child([&] {
    setenv("KELO_LOG_FILE", "-", 1);
    fn();
  });
}

TEST(Net, RssiReadsTheLevelColumn) {
  struct Case {
    std::string list;
    int want;
  } cases[] = {
      {std::string(kHeader) + " wlan0: 0000   70.  -40.  -256        0      0      0      0      0        0\n", -40},
      {std::string(kHeader) + " wlan0: 0000   70.  -71.  -256        0\n", -71},
      {std::string(kHeader) + " wlan0: 0000   70.  12   -256\n", 12},   // no second '.': the rest of the line
      {std::string(kHeader) + " wlan0: 0000   70   -40   -256\n", 0},     // no '.': nothing read
      {std::string(kHeader) + " wlan0: 0000   70.  -40.\n p2p0: 0 1. -9.\n", -40},
      {std::string(kHeader) + " lo: 0000   1.  -33.  -256\n", -33},
  };
  for (const auto &c : cases) {
    auto r = with_wireless(c.list, [] { printf("%d\n", net_rssi()); });
    EXPECT_EQ(r.out, std::to_string(c.want) + "\n") << c.list << r.err;
  }
}

TEST(Net, RssiWithoutTheInterfaceIsZero) {
  // The record names wlan0; the list is changed afterwards.
  Sandbox sb;
  auto r = run_child([&] {
    setenv("KELO_LOG_FILE", "-", 1);
    const char *info = dev_get_info();
    sb.write_file("wireless", std::string(kHeader) + " wlan1: 0000 70. -40. -256\n");
    int a = net_rssi();
    unlink(sb.wireless().c_str());
    int b = net_rssi();
    printf("%s %d %d\n", info + DEV_INFO_IFNAME, a, b);
  });
  EXPECT_EQ(r.out, "wlan0 0 0\n");
  EXPECT_NE(r.err.find("unable to open (/proc/net/wireless): No such file or directory\n"), std::string::npos)
      << r.err;
}

TEST(Net, HwaddrOfLoopback) {
  auto r = with_wireless(std::string(kHeader) + "    lo: 0000   0.  0.  0\n", [] {
    unsigned char out[20];
    memset(out, 0xee, sizeof out);
    int n16 = net_iw_hwaddr(out, sizeof out);
    uint16_t family;
    memcpy(&family, out, 2);
    bool zeros = true;
    for (int i = 2; i < 16; ++i) zeros = zeros && out[i] == 0;
    unsigned char six[8];
    memset(six, 0xee, sizeof six);
    int n6 = net_iw_hwaddr(six, 6);
    printf("%d %u %d %d %d %d\n", n16, family, zeros, out[16] == 0xee, n6, six[6] == 0xee);
  });
  EXPECT_EQ(r.out, "16 772 1 1 6 1\n") << r.err;
}

TEST(Net, IwStatOnAnInterfaceWithoutWirelessFails) {
  auto r = with_wireless(std::string(kHeader) + " lo: 0000 0. 0. 0\n", [] {
    struct iw_statistics st;
    memset(&st, 0, sizeof st);
    errno = 0;
    int a = net_iw_stat(&st);
    printf("%d %d\n", a, errno != 0);
  });
  EXPECT_EQ(r.out, "-1 1\n") << r.err;
}

TEST(Net, MissingInterfaceFailsTheIoctls) {
  auto r = with_wireless(std::string(kHeader) + " nosuchif0: 0000 0. 0. 0\n", [] {
    unsigned char out[16];
    struct iw_statistics st;
    errno = 0;
    int a = net_iw_hwaddr(out, sizeof out);
    int ea = errno;
    int b = net_iw_stat(&st);
    printf("%d %d %d\n", a, ea == ENODEV, b);
  });
  EXPECT_EQ(r.out, "-1 1 -1\n") << r.err;
}

TEST(Net, NoDeviceInformationIsNotACrash) {
  // The region cannot be made: its directory is missing.
  Sandbox sb;
  std::string shm = sb.path("shm");
  auto r = run_child([&] {
    setenv("KELO_LOG_FILE", "-", 1);
    rmdir(shm.c_str());
    unsigned char out[16];
    struct iw_statistics st;
    errno = 0;
    int a = net_iw_hwaddr(out, sizeof out);
    int ea = errno;
    printf("%d %d %d %d %d\n", dev_get_info() == nullptr, a, ea == ENODEV, net_iw_stat(&st), net_rssi());
  });
  EXPECT_EQ(r.out, "1 -1 1 -1 0\n") << r.err;
}

}  // namespace
