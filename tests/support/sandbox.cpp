// Temporary trees behind the system-paths seam, and forked children.
#include "support/sandbox.h"

#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <iterator>

#include "common/sys_paths.h"

namespace kelo::test {

const char kWirelessHeader[] =
    "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
    " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n";

Sandbox::Sandbox() {
  const char *tmp = getenv("TMPDIR");
  std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/kelo-t-XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr) abort();
  root_ = tmpl;
  chmod(root_.c_str(), 0755);  // children that drop to another user still reach the tree
  mkdir((root_ + "/shm").c_str(), 0755);
  prefix_ = root_ + "/shm/kelo-";
  os_release_ = path("os-release");
  wireless_ = path("wireless");
  write_file("os-release", "NAME=Camera\nHOLVEN_VERSION=1.2.3_0045\n");
  write_file("wireless",
             std::string(kWirelessHeader) +
                 " wlan0: 0000   70.  -40.  -256        0      0      0      0      0        0\n");
  font_ = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
  port_ = free_port();
  apply();
}

Sandbox::~Sandbox() { (void)!system(("rm -rf '" + root_ + "'").c_str()); }

void Sandbox::apply() {
  kelo::sys::set_paths_for_testing({prefix_.c_str(), os_release_.c_str(), wireless_.c_str(), font_.c_str(),
                                    "127.0.0.1", static_cast<uint16_t>(port_)});
}

void Sandbox::write_file(const std::string &rel, const std::string &content) const {
  std::ofstream(path(rel), std::ios::binary | std::ios::trunc) << content;
}

std::string Sandbox::read_file(const std::string &rel) const { return slurp(path(rel)); }

void Sandbox::set_font(const std::string &p) { font_ = p, apply(); }

std::string slurp(const std::string &p) {
  std::ifstream f(p, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(f), {});
}

// Below the kernel's ephemeral range: connect() never gives such a port to a
// client socket, so no other test's connection can take it while a fake
// agent is between two listens (bind(0) would draw from that very range).
int free_port() {
  unsigned low = 32768, high = 60999;
  if (FILE *f = fopen("/proc/sys/net/ipv4/ip_local_port_range", "re")) {
    if (fscanf(f, "%u %u", &low, &high) != 2) low = 32768;
    fclose(f);
  }
  const unsigned first = 10000, span = low > first + 1000 ? low - first : 20000;
  static unsigned calls = 0;  // several sandboxes in one process get different ports
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  unsigned seed =
      (static_cast<unsigned>(getpid()) * 2654435761u) ^ static_cast<unsigned>(now.tv_nsec) ^ (++calls << 20);
  for (int tries = 0; tries < 1000; ++tries) {
    seed = seed * 1103515245u + 12345u;
    unsigned port = first + (seed >> 8) % span;
    if (port == 54320) continue;  // the real agent's: a test on it may be running
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(port));
    if (fd < 0) abort();
    int rc = bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a);
    close(fd);
    if (rc == 0) return static_cast<int>(port);
  }
  abort();
}

ChildResult run_child(const std::function<void()> &fn, int timeout_s) {
  // Output goes to unlinked files: nothing to drain while the child runs, and
  // grandchildren that keep a copy open do not hold the parent up.
  FILE *out = tmpfile(), *err = tmpfile();
  if (out == nullptr || err == nullptr) abort();
  fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) abort();
  if (pid == 0) {
    dup2(fileno(out), 1);
    dup2(fileno(err), 2);
    alarm(static_cast<unsigned>(timeout_s));  // a hanging child dies of SIGALRM
    fn();
    fflush(nullptr);
    _exit(0);
  }
  ChildResult r;
  while (waitpid(pid, &r.status, 0) < 0 && errno == EINTR) continue;
  r.exited = WIFEXITED(r.status);
  if (r.exited) r.exit_code = WEXITSTATUS(r.status);
  if (WIFSIGNALED(r.status)) r.signal = WTERMSIG(r.status);
  // The files are unlinked; their descriptors still name them.
  r.out = slurp("/proc/self/fd/" + std::to_string(fileno(out)));
  r.err = slurp("/proc/self/fd/" + std::to_string(fileno(err)));
  fclose(out);
  fclose(err);
  return r;
}

}  // namespace kelo::test
