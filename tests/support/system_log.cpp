// Unprivileged children and a private /dev/log for tests.
#include "support/system_log.h"

#include <errno.h>
#include <grp.h>
#include <sched.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>

#include "support/sandbox.h"

namespace kelo::test {
namespace {

constexpr char kSep = '\x1e';  // between datagrams on the child's stdout
constexpr int kUnavailable = 77;

[[noreturn]] void unavailable(const char *what) {
  printf("UNAVAILABLE %s: %s", what, strerror(errno));
  fflush(stdout);
  _exit(kUnavailable);
}

}  // namespace

bool drop_to_nobody() {
  if (geteuid() != 0) return false;
  return setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
}

SyslogCapture capture_syslog(const std::function<void()> &fn, int timeout_s) {
  SyslogCapture cap;
  if (geteuid() != 0) {
    cap.why = "needs root for a private mount namespace";
    return cap;
  }
  ChildResult r = run_child(
      [&] {
        if (unshare(CLONE_NEWNS) < 0) unavailable("unshare(CLONE_NEWNS)");
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) unavailable("make / private");
        if (mount("kelo-test-dev", "/dev", "tmpfs", 0, "mode=0755") < 0) unavailable("tmpfs on /dev");
        int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        if (fd < 0) unavailable("socket");
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        strcpy(a.sun_path, "/dev/log");
        if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0) unavailable("bind /dev/log");
        chmod("/dev/log", 0666);
        // Large enough that syslog(3) never blocks on a full queue.
        int big = 1 << 20;
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        fn();
        fflush(stderr);
        char buf[8192];
        for (;;) {
          ssize_t n = recv(fd, buf, sizeof buf, MSG_DONTWAIT);
          if (n < 0) break;
          fwrite(buf, 1, static_cast<size_t>(n), stdout);
          fputc(kSep, stdout);
        }
        fflush(stdout);
        _exit(0);
      },
      timeout_s);
  cap.err = r.err;
  cap.exit_code = r.exited ? r.exit_code : -1;
  if (r.exited && r.exit_code == kUnavailable && r.out.rfind("UNAVAILABLE ", 0) == 0) {
    cap.why = r.out.substr(12);
    return cap;
  }
  cap.available = true;
  size_t pos = 0;
  for (size_t sep; (sep = r.out.find(kSep, pos)) != std::string::npos; pos = sep + 1)
    cap.messages.push_back(r.out.substr(pos, sep - pos));
  return cap;
}

std::string syslog_text(const std::string &d) {
  size_t p = d.find("]: ");
  return p == std::string::npos ? "" : d.substr(p + 3);
}

int syslog_priority(const std::string &d) {
  if (d.empty() || d[0] != '<') return -1;
  return atoi(d.c_str() + 1);
}

std::string syslog_ident(const std::string &d) {
  // "<N>Mmm dd hh:mm:ss ident[pid]: text"
  size_t br = d.find("]: ");
  if (br == std::string::npos) return "";
  size_t open = d.rfind('[', br);
  if (open == std::string::npos) return "";
  size_t sp = d.rfind(' ', open);
  size_t start = sp == std::string::npos ? 0 : sp + 1;
  return d.substr(start, open - start);
}

}  // namespace kelo::test
