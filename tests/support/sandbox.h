// Test support: a private temporary tree that the library's system paths point
// at (shared regions, os-release, wireless list, font, agent port), and
// helpers to run code in a forked child with its output captured.
#pragma once

#include <functional>
#include <string>

namespace kelo::test {

// The two header lines of the kernel's wireless list; interface lines follow.
extern const char kWirelessHeader[];

class Sandbox {
 public:
  // Makes the tree (readable by every user) and points the library's paths
  // at it. The region prefix is "<root>/shm/kelo-"; os-release and the
  // wireless list get ordinary contents (HOLVEN_VERSION=1.2.3_0045,
  // interface wlan0); the font is Debian's DejaVu Sans; the agent port is a
  // free loopback port.
  Sandbox();
  ~Sandbox();  // removes the tree
  Sandbox(const Sandbox &) = delete;
  Sandbox &operator=(const Sandbox &) = delete;

  const std::string &root() const { return root_; }
  std::string path(const std::string &rel) const { return root_ + "/" + rel; }
  // Full path of the region file of name.
  std::string region(const std::string &name) const { return root_ + "/shm/kelo-" + name; }
  const std::string &wireless() const { return wireless_; }
  int agent_port() const { return port_; }

  void write_file(const std::string &rel, const std::string &content) const;
  std::string read_file(const std::string &rel) const;
  void set_font(const std::string &path);

 private:
  void apply();
  std::string root_, prefix_, os_release_, wireless_, font_;
  int port_ = 0;
};

// A TCP port on 127.0.0.1 that nothing listens on right now.
int free_port();

struct ChildResult {
  int status = -1;  // raw wait status
  bool exited = false;
  int exit_code = -1;    // when exited
  int signal = 0;        // when killed by a signal
  std::string out, err;  // captured standard output and error
};

// Forks; the child runs fn with stdout and stderr captured, then _exit(0)
// unless fn exited itself. After timeout_s seconds the child dies of SIGALRM.
ChildResult run_child(const std::function<void()> &fn, int timeout_s = 30);

// Reads a whole file; empty when it cannot be read.
std::string slurp(const std::string &path);

}  // namespace kelo::test
