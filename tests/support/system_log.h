// Test support for code that needs another user or the system log: dropping
// a forked child to an unprivileged user, and catching what syslog(3) sends
// through a private /dev/log in a mount namespace of its own.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace kelo::test {

// Switches this process to the user and group "nobody" (65534). Only for
// forked children. False when not running as root or when it fails.
bool drop_to_nobody();

// One datagram "<priority>Mmm dd hh:mm:ss ident[pid]: text", taken apart.
struct SyslogMessage {
  int priority = -1;
  std::string ident, text;
};

struct SyslogCapture {
  bool available = false;               // false: no private /dev/log (see why)
  std::string why;                      // reason when not available
  std::vector<SyslogMessage> messages;  // in the order sent
  std::string err;                      // standard error of the child
  int exit_code = -1;                   // of the child running fn
};

// Forks a child that enters a new mount namespace, mounts a tmpfs on /dev,
// binds a datagram socket at /dev/log (mode 0666), runs fn and then returns
// every datagram the socket received. Needs root; never touches the real
// /dev. fn must not write to standard output.
SyslogCapture capture_syslog(const std::function<void()> &fn, int timeout_s = 30);

}  // namespace kelo::test
