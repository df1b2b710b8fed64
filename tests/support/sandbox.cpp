// Temporary trees behind the system-paths seam, and forked children.
#include "support/sandbox.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <sstream>

#include "common/sys_paths.h"

namespace kelo::test {

int free_port_once();

const char kWirelessHeader[] =
    "Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n"
    " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n";

Sandbox::Sandbox() {
  const char *tmp = getenv("TMPDIR");
  std::string tmpl = std::string(tmp && *tmp ? tmp : "/tmp") + "/kelo-t-XXXXXX";
  char *made = mkdtemp(tmpl.data());
  if (made == nullptr) abort();
  root_ = made;
  mkdir((root_ + "/shm").c_str(), 0777);
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

Sandbox::~Sandbox() {
  std::string cmd = "rm -rf '" + root_ + "'";
  if (system(cmd.c_str()) != 0) perror("rm");
}

void Sandbox::apply() {
  kelo::sys::set_paths_for_testing({prefix_.c_str(), os_release_.c_str(), wireless_.c_str(), font_.c_str(),
                                    "127.0.0.1", static_cast<uint16_t>(port_)});
}

void Sandbox::write_file(const std::string &rel, const std::string &content) const {
  std::ofstream f(path(rel), std::ios::binary | std::ios::trunc);
  f << content;
}

std::string Sandbox::read_file(const std::string &rel) const { return slurp(path(rel)); }

void Sandbox::set_font(const std::string &p) {
  font_ = p;
  apply();
}

void Sandbox::set_os_release_path(const std::string &p) {
  os_release_ = p;
  apply();
}

void Sandbox::set_wireless_path(const std::string &p) {
  wireless_ = p;
  apply();
}

std::string slurp(const std::string &p) {
  std::ifstream f(p, std::ios::binary);
  std::stringstream ss;
  ss << f.rdbuf();
  return ss.str();
}

int free_port() {
  for (;;) {
    int port = free_port_once();
    // Never hand out the real agent's port: a test on it may be running.
    if (port != 54320) return port;
  }
}

int free_port_once() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  a.sin_port = 0;
  socklen_t len = sizeof a;
  if (bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0 ||
      getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len) < 0)
    abort();
  int port = ntohs(a.sin_port);
  close(fd);
  return port;
}

namespace {

void drain(int fd, std::string &into) {
  char buf[4096];
  ssize_t n = read(fd, buf, sizeof buf);
  if (n > 0) into.append(buf, static_cast<size_t>(n));
}

}  // namespace

ChildResult run_child(const std::function<void()> &fn, int timeout_s) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) < 0 || pipe2(err, O_CLOEXEC) < 0) abort();
  fflush(stdout);
  fflush(stderr);
  pid_t pid = fork();
  if (pid < 0) abort();
  if (pid == 0) {
    dup2(out[1], 1);
    dup2(err[1], 2);
    close(out[0]);
    close(err[0]);
    fn();
    fflush(stdout);
    fflush(stderr);
    _exit(0);
  }
  close(out[1]);
  close(err[1]);
  ChildResult r;
  struct timespec start;
  clock_gettime(CLOCK_MONOTONIC, &start);
  bool out_open = true, err_open = true;
  while (out_open || err_open) {
    struct pollfd p[2] = {{out[0], POLLIN, 0}, {err[0], POLLIN, 0}};
    int rc = poll(p, 2, 200);
    if (rc > 0) {
      for (int i = 0; i < 2; ++i) {
        if (!(p[i].revents & (POLLIN | POLLHUP))) continue;
        std::string &into = i == 0 ? r.out : r.err;
        char buf[4096];
        ssize_t n = read(p[i].fd, buf, sizeof buf);
        if (n > 0)
          into.append(buf, static_cast<size_t>(n));
        else
          (i == 0 ? out_open : err_open) = false;
      }
    }
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    if (now.tv_sec - start.tv_sec > timeout_s) {
      kill(pid, SIGKILL);
      break;
    }
  }
  int status = 0;
  waitpid(pid, &status, 0);
  drain(out[0], r.out);
  drain(err[0], r.err);
  close(out[0]);
  close(err[0]);
  r.status = status;
  r.exited = WIFEXITED(status);
  if (r.exited) r.exit_code = WEXITSTATUS(status);
  if (WIFSIGNALED(status)) r.signal = WTERMSIG(status);
  return r;
}

}  // namespace kelo::test
