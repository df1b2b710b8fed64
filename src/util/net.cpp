// Socket helpers and wireless-interface readers.
#include "kelo/net.h"

#include <errno.h>
#include <linux/wireless.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include "common/errno_saver.h"
#include "common/sys_paths.h"
#include "common/unique_fd.h"
#include "log/log_internal.h"
#include "util/devinfo.h"

static_assert(sizeof(struct iw_statistics) == 32, "iw_statistics is 32 bytes");

namespace kelo::net {
namespace {

// The wireless interface's name (bounded by the end of the shared record),
// or an empty view with a NULL data pointer (and ENODEV) when the device
// information cannot be mapped.
std::string_view wireless_ifname() {
  const devinfo::Record *rec = devinfo::get();
  if (rec == nullptr) {
    errno = ENODEV;
    return {};
  }
  return devinfo::field(rec, rec->ifname);
}

// strncpy(dst, name, IFNAMSIZ) into a cleared request: at most 16 bytes, no
// terminator added when the name fills them (the kernel adds its own).
void copy_ifname(char (&dst)[IFNAMSIZ], std::string_view name) {
  memcpy(dst, name.data(), name.size() < IFNAMSIZ ? name.size() : IFNAMSIZ);
}

}  // namespace
}  // namespace kelo::net

using namespace kelo::net;

extern "C" {

KELO_EXPORT int wait_sock_timeout(int fd, int timeout_s, int want_read, int want_write) {
  fprintf(stderr, "%s is deprecated.\n", "wait_sock_timeout");
  // FD_SET outside 0..FD_SETSIZE-1 writes past the set.
  if (fd < 0 || fd >= FD_SETSIZE) {
    errno = EBADF;
    return -EBADF;
  }
  fd_set set;
  FD_ZERO(&set);
  FD_SET(fd, &set);
  struct timeval tv = {timeout_s, 0};
  int r = select(fd + 1, want_read ? &set : nullptr, want_write ? &set : nullptr, nullptr, &tv);
  if (r < 0) return -errno;
  if (r == 0) {
    errno = ETIMEDOUT;
    return -ETIMEDOUT;
  }
  int err = 0;
  socklen_t len = sizeof err;
  getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len);
  if (err != 0) {
    errno = err;
    return -err;
  }
  return 0;
}

KELO_EXPORT int general_send_one(int fd, const void *buf, int len) {
  fprintf(stderr, "%s is deprecated.\n", "general_send_one");
  // Descriptor 0 counts as not ready: callers use 0 for "no socket".
  if (fd <= 0) {
    kelo::log::lib_log(LOG_WARNING, "sock not ready: %d\n", fd);
    return -1;
  }
  if (len == 0) return 0;
  const auto *p = static_cast<const char *>(buf);
  int left = len;
  ssize_t r = 0;
  while (left > 0) {
    r = send(fd, p, static_cast<size_t>(left), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (r < 0) {
      kelo::log::lib_log(LOG_ERR, "%s: send error: %m\n", "net");
      break;
    }
    if (r < left) kelo::log::lib_log(LOG_WARNING, "Partial written\n");
    if (r == 0) break;  // nothing taken: retrying at once would spin forever
    p += r;
    left -= static_cast<int>(r);
  }
  return static_cast<int>(r);
}

KELO_EXPORT int net_rssi(void) {
  std::string_view ifname = wireless_ifname();
  if (ifname.data() == nullptr) return 0;
  char prefix[20];
  int n = snprintf(prefix, sizeof prefix, " %.*s", static_cast<int>(ifname.size()), ifname.data());
  if (n < 0) return 0;
  if (static_cast<size_t>(n) >= sizeof prefix) n = sizeof prefix - 1;  // never compare past the buffer
  const char *path = kelo::sys::paths().proc_wireless;
  FILE *f = fopen(path, "re");
  if (f == nullptr) {
    kelo::log::lib_log(LOG_ERR, "unable to open (%s): %m\n", "/proc/net/wireless");
    return 0;
  }
  int level = 0;
  for (;;) {
    // A fresh buffer per line; the lines passed over are not freed (a few
    // hundred bytes per call). Known and left as released.
    char *line = nullptr;
    size_t cap = 0;
    if (getline(&line, &cap, f) < 0) {
      free(line);
      break;
    }
    if (strncmp(line, prefix, static_cast<size_t>(n)) != 0) continue;
    char head[32];
    char col[8] = {};
    sscanf(line, "%31[^.].%7[^.]", head, col);
    level = atoi(col);
    free(line);
    break;
  }
  fclose(f);
  return level;
}

KELO_EXPORT int net_iw_stat(struct iw_statistics *stats) {
  std::string_view ifname = wireless_ifname();
  if (ifname.data() == nullptr) return -1;
  struct iwreq wrq;
  memset(&wrq, 0, sizeof wrq);
  wrq.u.data.pointer = stats;
  wrq.u.data.length = sizeof(struct iw_statistics);
  wrq.u.data.flags = 0;
  copy_ifname(wrq.ifr_name, ifname);
  kelo::UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock.valid()) return -1;
  if (ioctl(sock.get(), SIOCGIWSTATS, &wrq) < 0) return -1;
  return 0;
}

KELO_EXPORT int net_iw_hwaddr(void *out, size_t outlen) {
  std::string_view ifname = wireless_ifname();
  if (ifname.data() == nullptr) return -1;
  struct ifreq ifr;
  memset(&ifr, 0, sizeof ifr);
  kelo::UniqueFd sock(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!sock.valid()) return -1;
  copy_ifname(ifr.ifr_name, ifname);
  if (ioctl(sock.get(), SIOCGIFHWADDR, &ifr) < 0) return -1;
  size_t n = outlen < sizeof ifr.ifr_hwaddr ? outlen : sizeof ifr.ifr_hwaddr;
  memcpy(out, &ifr.ifr_hwaddr, n);
  return static_cast<int>(n);
}

}  // extern "C"
