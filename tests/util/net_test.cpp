// Socket helpers (a real TCP peer on loopback) and the wireless readers (with
// a fake wireless list).
#include <arpa/inet.h>
#include <errno.h>
#include <linux/wireless.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>
#include <vector>

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

// Prints net_rssi, then the hardware address into 16 bytes (the count, ENODEV?,
// the bytes and a guard) and into 6 bytes (count, guard), then net_iw_stat
// (result, errno set?).
void wireless_calls() {
  unsigned char out[17];
  memset(out, 0xee, sizeof out);
  printf("%d ", net_rssi());
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
  printf(" %d %d\n", n, errno != 0);
}

TEST(Net, WirelessReadersWithAFakeList) {
  const std::string ee(34, 'e'), none = " -1 1 " + ee + " -1 ee -1 1\n";
  // The interface's line ("" without region directory), what rssi reads (the
  // level column; without a second '.' the rest of the line; without a '.'
  // nothing) and what the ioctl helpers give.
  const std::pair<std::string, std::string> cases[] = {
      {" wlan0: 0000   70.  -40.  -256        0      0      0      0      0        0\n", "-40" + none},
      {" wlan0: 0000   70.  12   -256\n", "12" + none},
      {" wlan0: 0000   70   -40   -256\n", "0" + none},
      // Loopback: ARPHRD_LOOPBACK (772) and a zero address; no wireless statistics.
      {" lo: 0000   1.  -33.  0\n", "-33 16 0 0403" + std::string(28, '0') + "ee 6 ee -1 1\n"},
      {"", "0" + none},  // the region cannot be made: no record, no crash
  };
  for (const auto &[line, want] : cases) {
    Sandbox sb;
    sb.write_file("wireless", kHeader + line);
    std::string shm = sb.path("shm");
    auto r = run_child([&] {
      setenv("KELO_LOG_FILE", "-", 1);
      if (line.empty()) rmdir(shm.c_str());
      wireless_calls();
    });
    EXPECT_EQ(r.out, want) << line << r.err;
  }
}

}  // namespace
