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

// "<priority>Mmm dd hh:mm:ss ident[pid]: text"
SyslogMessage parse(const std::string &d) {
  SyslogMessage m;
  size_t colon = d.find("]: "), open = d.rfind('[', colon), sp = d.rfind(' ', open);
  if (d.empty() || d[0] != '<' || colon == std::string::npos || open == std::string::npos) return m;
  return {atoi(d.c_str() + 1), d.substr(sp + 1, open - sp - 1), d.substr(colon + 3)};
}

}  // namespace

bool drop_to_nobody() {
  return geteuid() == 0 && setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
}

SyslogCapture capture_syslog(const std::function<void()> &fn, int timeout_s) {
  SyslogCapture cap;
  if (geteuid() != 0) {
    cap.why = "needs root for a private mount namespace";
    return cap;
  }
  ChildResult r = run_child(
      [&] {
        auto unavailable = [](const char *what) {
          printf("%s: %s", what, strerror(errno));
          fflush(stdout);
          _exit(kUnavailable);
        };
        if (unshare(CLONE_NEWNS) < 0) unavailable("unshare(CLONE_NEWNS)");
        if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) < 0) unavailable("make / private");
        if (mount("kelo-test-dev", "/dev", "tmpfs", 0, "mode=0755") < 0) unavailable("tmpfs on /dev");
        int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un a{};
        a.sun_family = AF_UNIX;
        strcpy(a.sun_path, "/dev/log");
        if (fd < 0 || bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0) unavailable("bind /dev/log");
        chmod("/dev/log", 0666);
        int big = 1 << 20;  // large enough that syslog(3) never blocks on a full queue
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &big, sizeof big);
        fn();
        fflush(stderr);
        char buf[8192];
        for (ssize_t n; (n = recv(fd, buf, sizeof buf - 1, MSG_DONTWAIT)) >= 0;) {
          buf[n] = kSep;
          fwrite(buf, 1, static_cast<size_t>(n) + 1, stdout);
        }
        fflush(stdout);
        _exit(0);
      },
      timeout_s);
  cap.err = r.err;
  cap.exit_code = r.exited ? r.exit_code : -1;
  if (r.exited && r.exit_code == kUnavailable) {
    cap.why = r.out;
    return cap;
  }
  cap.available = true;
  for (size_t pos = 0, sep; (sep = r.out.find(kSep, pos)) != std::string::npos; pos = sep + 1)
    cap.messages.push_back(parse(r.out.substr(pos, sep - pos)));
  return cap;
}

}  // namespace kelo::test
