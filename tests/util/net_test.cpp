// Socket helpers (a socket pair, a loopback connect) and the wireless readers
// (with a fake wireless list).
#include <arpa/inet.h>
#include <errno.h>
#include <linux/wireless.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <string>

#include "kelo/net.h"
#include "support/sandbox.h"

namespace {

TEST(Net, SocketHelpers) {
  kelo::test::Sandbox sb;  // failures are logged
  setenv("KELO_LOG_FILE", "-", 1);
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  EXPECT_EQ(wait_sock_timeout(sv[0], 0, 1, 0), -ETIMEDOUT);  // nothing to read
  EXPECT_EQ(wait_sock_timeout(sv[0], 0, 1, 1), 0);           // writable at once
  // Descriptors an fd_set cannot hold are refused instead of written past the set.
  EXPECT_EQ(wait_sock_timeout(FD_SETSIZE, 0, 1, 0), -EBADF);
  static char buf[1 << 20];
  EXPECT_EQ(general_send_one(0, buf, 10), -1);  // descriptor 0 counts as not ready
  // A small send buffer: the first send takes part, the next fails with
  // EAGAIN and ends it; the last chunk's result is returned.
  int small = 4096;
  setsockopt(sv[0], SOL_SOCKET, SO_SNDBUF, &small, sizeof small);
  EXPECT_EQ(general_send_one(sv[0], buf, sizeof buf), -1);
  close(sv[1]);
  EXPECT_EQ(general_send_one(sv[0], buf, 8), -1);  // peer gone: EPIPE, and no SIGPIPE kills us
  close(sv[0]);
  // A non-blocking connect to a loopback port nothing listens on: the pending error.
  struct sockaddr_in a = {};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = htons(static_cast<uint16_t>(kelo::test::free_port()));
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK, 0);
  connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
  errno = 0;
  EXPECT_EQ(wait_sock_timeout(fd, 5, 0, 1), -ECONNREFUSED);
  EXPECT_EQ(errno, ECONNREFUSED);
  close(fd);
}

// net_rssi reads the level column of the interface's line (without a '.'
// nothing). Without a device record (the region cannot be made) every reader
// fails cleanly.
TEST(Net, WirelessReadersWithAFakeList) {
  const std::pair<std::string, std::string> cases[] = {
      {" wlan0: 0000   70.  -40.  -256        0      0      0      0      0        0\n", "-40"},
      {" wlan0: 0000   70   -40   -256\n", "0"},
      {"", "0 -1 -1"},
  };
  for (const auto &[line, want] : cases) {
    kelo::test::Sandbox sb;
    sb.write_file("wireless", kelo::test::kWirelessHeader + line);
    std::string shm = sb.path("shm");
    auto r = kelo::test::run_child([&] {
      setenv("KELO_LOG_FILE", "-", 1);
      if (!line.empty()) return (void)printf("%d", net_rssi());
      rmdir(shm.c_str());
      unsigned char mac[16];
      struct iw_statistics st;
      printf("%d %d %d", net_rssi(), net_iw_hwaddr(mac, sizeof mac), net_iw_stat(&st));
    });
    EXPECT_EQ(r.out, want) << line << r.err;
  }
}

}  // namespace
