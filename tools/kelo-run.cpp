// kelo-run: runs one command in the camera's fixed world on a PC. The command
// gets a private loopback network (the agent's port 54320 is its own), an
// empty /dev/shm, an /etc/os-release carrying the firmware version, the device
// record filled as on a camera with Wi-Fi, and the camera's font path; and,
// on request, the agent simulator beside it.
//
//   kelo-run [--font FILE] [--firmware VERSION] [--ifname NAME]
//            [--agent | --agent-script FILE] [--] COMMAND [ARG...]
//
// How: unshare(2) and mount(2) here rather than bubblewrap. The command needs
// four mounts and one interface flag, not a new root: every other path stays
// the machine's, so the command, its build tree and its files are where the
// user left them. Doing it in this process also keeps exact what a command
// runner owes its caller: which kernel setting refused the namespaces, our own
// failures (125) told apart from the command's status, and the device record
// written by the library's own filler into the private /dev/shm before the
// command starts. With bwrap those would be guesses from its messages plus a
// second stage inside it, and a new dependency besides.
//
// Exit status: the command's (128+N when signal N ended it); with
// --agent-script the script's; 125 our own failure, 126 the command cannot be
// executed, 127 it is not found.
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <limits.h>
#include <net/if.h>
#include <sched.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "common/sys_paths.h"
#include "common/unique_fd.h"
#include "util/devinfo.h"

namespace {

constexpr int kOwnFailure = 125, kCannotExecute = 126, kNotFound = 127;
constexpr char kCameraFont[] = "/mnt/data/data/font/QZ_LanTing_Light_Camera.ttf";
constexpr char kDefaultFont[] = "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf";
constexpr char kOsRelease[] = "/etc/os-release";
constexpr char kVersionKey[] = "HOLVEN_VERSION=";
constexpr char kAgentPort[] = "54320";
constexpr int kGraceMs = 5000;  // between SIGTERM and SIGKILL when we stop a child

struct Options {
  const char *font = nullptr;  // nullptr: the default font, when installed
  const char *firmware = nullptr;
  const char *ifname = "wlan0";
  bool agent = false;
  const char *script = nullptr;
  char **command = nullptr;
};

[[noreturn]] __attribute__((format(printf, 1, 2))) void die(const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fputs("kelo-run: ", stderr);
  vfprintf(stderr, fmt, ap);
  fputc('\n', stderr);
  va_end(ap);
  exit(kOwnFailure);
}

void usage(FILE *to) {
  fputs(
      "usage: kelo-run [--font FILE] [--firmware VERSION] [--ifname NAME]\n"
      "                [--agent | --agent-script FILE] [--] COMMAND [ARG...]\n"
      "Runs COMMAND as on the camera: private loopback network, empty /dev/shm,\n"
      "the device record filled, the camera's font path served.\n"
      "  --font FILE          the font at the camera's font path (default: DejaVu Sans)\n"
      "  --firmware VERSION   HOLVEN_VERSION in /etc/os-release (default: none, \"Unknown\")\n"
      "  --ifname NAME        the wireless interface of the device record (default wlan0)\n"
      "  --agent              run kelo-agent on 127.0.0.1:54320 at this terminal\n"
      "  --agent-script FILE  run kelo-agent with this script; its status is ours\n"
      "Exit status: the command's (the script's with --agent-script); 125 kelo-run\n"
      "failed, 126 COMMAND cannot be executed, 127 COMMAND not found.\n",
      to);
}

// Interface names as the kernel takes them.
bool valid_ifname(const char *s) {
  size_t n = strlen(s);
  if (n == 0 || n >= IFNAMSIZ || strcmp(s, ".") == 0 || strcmp(s, "..") == 0) return false;
  for (const char *p = s; *p != '\0'; ++p)
    if (*p == '/' || *p == ':' || *p == ' ' || (*p >= '\t' && *p <= '\r')) return false;
  return true;
}

Options parse(int argc, char **argv) {
  static const struct option longopts[] = {{"font", required_argument, nullptr, 'f'},
                                           {"firmware", required_argument, nullptr, 'w'},
                                           {"ifname", required_argument, nullptr, 'i'},
                                           {"agent", no_argument, nullptr, 'a'},
                                           {"agent-script", required_argument, nullptr, 's'},
                                           {"help", no_argument, nullptr, 'h'},
                                           {nullptr, 0, nullptr, 0}};
  Options o;
  int c;
  // "+": the first operand is the command; everything after it is its own.
  while ((c = getopt_long(argc, argv, "+h", longopts, nullptr)) != -1) {
    switch (c) {
      case 'f': o.font = optarg; break;
      case 'w': o.firmware = optarg; break;
      case 'i': o.ifname = optarg; break;
      case 'a': o.agent = true; break;
      case 's': o.script = optarg; break;
      case 'h': usage(stdout); exit(0);
      default: usage(stderr); exit(kOwnFailure);
    }
  }
  if (o.agent && o.script != nullptr) die("--agent and --agent-script exclude each other");
  if (o.firmware != nullptr && strchr(o.firmware, '\n') != nullptr)
    die("--firmware: the version is one line of /etc/os-release; it cannot hold a line feed");
  if (!valid_ifname(o.ifname))
    die("--ifname: \"%s\" is not an interface name (1 to 15 bytes, no '/', ':' or blank)", o.ifname);
  if (optind >= argc) {
    usage(stderr);
    die("no command given");
  }
  o.command = argv + optind;
  return o;
}

bool read_all(int fd, std::string &into) {
  char buf[65536];
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return false;
    if (n == 0) return true;
    into.append(buf, static_cast<size_t>(n));
  }
}

void write_file(const std::string &path, const std::string &content, mode_t mode) {
  kelo::UniqueFd fd(open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode));
  if (!fd.valid()) die("cannot create %s: %s", path.c_str(), strerror(errno));
  for (size_t off = 0; off < content.size();) {
    ssize_t n = write(fd.get(), content.data() + off, content.size() - off);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) die("cannot write %s: %s", path.c_str(), strerror(errno));
    off += static_cast<size_t>(n);
  }
}

// execvp's search, done before anything is set up, so that a command that is
// missing (127) or cannot be run (126) is told at once, by name.
std::string resolve_command(const char *name) {
  std::vector<std::string> candidates;
  if (strchr(name, '/') != nullptr) {
    candidates.emplace_back(name);
  } else {
    const char *path = getenv("PATH");
    std::string dirs = path != nullptr ? path : "/bin:/usr/bin";
    size_t start = 0;
    for (;;) {
      size_t colon = dirs.find(':', start);
      std::string dir = dirs.substr(start, colon == std::string::npos ? std::string::npos : colon - start);
      candidates.push_back((dir.empty() ? std::string(".") : dir) + "/" + name);
      if (colon == std::string::npos) break;
      start = colon + 1;
    }
  }
  int found_errno = ENOENT;
  for (const std::string &c : candidates) {
    struct stat st;
    if (stat(c.c_str(), &st) != 0) continue;
    if (S_ISREG(st.st_mode) && access(c.c_str(), X_OK) == 0) return c;
    found_errno = S_ISDIR(st.st_mode) ? EISDIR : EACCES;
  }
  if (found_errno == ENOENT) {
    fprintf(stderr, "kelo-run: %s: %s\n", name,
            strchr(name, '/') != nullptr ? "No such file or directory" : "command not found");
    exit(kNotFound);
  }
  fprintf(stderr, "kelo-run: %s: cannot execute: %s\n", name, strerror(found_errno));
  exit(kCannotExecute);
}

// kelo-agent beside this program (the build tree, /usr/bin), else on PATH.
std::string find_agent() {
  char self[PATH_MAX];
  ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
  if (n > 0) {
    self[n] = '\0';
    std::string beside(self);
    beside = beside.substr(0, beside.rfind('/') + 1) + "kelo-agent";
    if (access(beside.c_str(), X_OK) == 0) return beside;
  }
  const char *path = getenv("PATH");
  std::string dirs = path != nullptr ? path : "/bin:/usr/bin";
  for (size_t start = 0; start <= dirs.size();) {
    size_t colon = dirs.find(':', start);
    if (colon == std::string::npos) colon = dirs.size();
    std::string p = dirs.substr(start, colon - start) + "/kelo-agent";
    if (colon > start && access(p.c_str(), X_OK) == 0) return p;
    start = colon + 1;
  }
  die("cannot find kelo-agent beside kelo-run or on PATH");
}

// ---- namespaces ---------------------------------------------------------------

int read_sysctl(const char *path) {
  FILE *f = fopen(path, "re");
  if (f == nullptr) return -1;
  int v = -1;
  if (fscanf(f, "%d", &v) != 1) v = -1;
  fclose(f);
  return v;
}

// The kernel setting that keeps an ordinary user out of user namespaces.
std::string userns_refusal() {
  if (read_sysctl("/proc/sys/kernel/unprivileged_userns_clone") == 0)
    return "kernel.unprivileged_userns_clone is 0 (sysctl -w kernel.unprivileged_userns_clone=1, or run as "
           "root)";
  if (read_sysctl("/proc/sys/user/max_user_namespaces") == 0)
    return "user.max_user_namespaces is 0 (sysctl -w user.max_user_namespaces=10000, or run as root)";
  if (read_sysctl("/proc/sys/kernel/apparmor_restrict_unprivileged_userns") == 1)
    return "AppArmor restricts unprivileged user namespaces "
           "(kernel.apparmor_restrict_unprivileged_userns is 1; give kelo-run an AppArmor profile, or run as "
           "root)";
  return "kernel.unprivileged_userns_clone, user.max_user_namespaces and AppArmor allow them here; "
         "a container's seccomp profile or a chroot may refuse them";
}

void write_proc(const char *path, const std::string &text) {
  kelo::UniqueFd fd(open(path, O_WRONLY | O_CLOEXEC));
  if (!fd.valid() || write(fd.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    die("cannot write %s: %s", path, strerror(errno));
}

bool g_in_userns = false;

// Root (with CAP_SYS_ADMIN) needs only a mount and a network namespace; an
// ordinary user, or root in a container that may not mount, gets a user
// namespace first in which the same ids map to themselves, so the command
// runs as its user, without capabilities, and its files belong to that user.
void enter_namespaces() {
  const int own = CLONE_NEWNS | CLONE_NEWNET;
  if (geteuid() == 0 && unshare(own) == 0) return;
  uid_t uid = geteuid();
  gid_t gid = getegid();
  if (unshare(CLONE_NEWUSER | own) != 0) {
    int e = errno;  // the settings are read first: keep the refusal's own error
    if (e == EPERM || e == ENOSPC || e == EUSERS)
      die("the kernel refused a private user namespace (%s): %s", strerror(e), userns_refusal().c_str());
    die("cannot make private namespaces: %s (a kernel without user namespaces?)", strerror(e));
  }
  g_in_userns = true;
  write_proc("/proc/self/setgroups", "deny");
  write_proc("/proc/self/uid_map", std::to_string(uid) + " " + std::to_string(uid) + " 1");
  write_proc("/proc/self/gid_map", std::to_string(gid) + " " + std::to_string(gid) + " 1");
}

[[noreturn]] void die_mount(const char *what, const char *where) {
  int e = errno;
  if (e == EPERM && g_in_userns)
    die("cannot %s %s: %s (%s)", what, where, strerror(e), userns_refusal().c_str());
  die("cannot %s %s: %s", what, where, strerror(e));
}

void mount_tmpfs(const char *where, const char *opts) {
  if (mount("tmpfs", where, "tmpfs", MS_NOSUID | MS_NODEV, opts) != 0) die_mount("mount a tmpfs on", where);
}

void bind(const std::string &from, const std::string &to) {
  if (mount(from.c_str(), to.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
    die_mount(("bind " + from + " onto").c_str(), to.c_str());
}

void bring_up_loopback() {
  kelo::UniqueFd s(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  struct ifreq req {};
  strcpy(req.ifr_name, "lo");
  if (!s.valid() || ioctl(s.get(), SIOCGIFFLAGS, &req) != 0)
    die("cannot read the loopback's flags: %s", strerror(errno));
  req.ifr_flags = static_cast<short>(req.ifr_flags | IFF_UP);
  if (ioctl(s.get(), SIOCSIFFLAGS, &req) != 0) die("cannot bring the loopback up: %s", strerror(errno));
}

std::string parent_of(const std::string &p) {
  size_t slash = p.rfind('/');
  return slash == 0 || slash == std::string::npos ? "/" : p.substr(0, slash);
}

// Covers dir with a tmpfs that shows the same entries (each bound back from
// the machine's directory), so that new names can be made in it privately.
void shadow_dir(const std::string &stage, const std::string &dir) {
  static int count = 0;
  std::string keep = stage + "/keep" + std::to_string(count++);
  struct stat st;
  if (mkdir(keep.c_str(), 0700) != 0 || stat(dir.c_str(), &st) != 0)
    die("cannot stage %s: %s", dir.c_str(), strerror(errno));
  bind(dir, keep);
  char opts[32];
  snprintf(opts, sizeof opts, "mode=%04o", st.st_mode & 07777);
  mount_tmpfs(dir.c_str(), opts);
  DIR *d = opendir(keep.c_str());
  if (d == nullptr) die("cannot read %s: %s", dir.c_str(), strerror(errno));
  while (struct dirent *e = readdir(d)) {
    if (strcmp(e->d_name, ".") == 0 || strcmp(e->d_name, "..") == 0) continue;
    std::string from = keep + "/" + e->d_name, to = dir + "/" + e->d_name;
    struct stat es;
    if (lstat(from.c_str(), &es) != 0) continue;
    if (S_ISLNK(es.st_mode)) {
      char target[PATH_MAX];
      ssize_t n = readlink(from.c_str(), target, sizeof target - 1);
      if (n < 0) continue;
      target[n] = '\0';
      if (symlink(target, to.c_str()) != 0) die("cannot stage %s: %s", to.c_str(), strerror(errno));
      continue;
    }
    if (S_ISDIR(es.st_mode) ? mkdir(to.c_str(), 0755) != 0 : mknod(to.c_str(), S_IFREG | 0644, 0) != 0)
      die("cannot stage %s: %s", to.c_str(), strerror(errno));
    bind(from, to);
  }
  closedir(d);
}

// Makes target show the staged file source. An existing target is covered by
// a bind mount; a missing one is made in a tmpfs over the deepest directory
// of its path that exists, the machine's entries there staying visible.
void serve_file(const std::string &stage, const std::string &source, const std::string &target) {
  struct stat st;
  if (stat(target.c_str(), &st) != 0) {
    std::string dir = parent_of(target);
    while (dir != "/" && stat(dir.c_str(), &st) != 0) dir = parent_of(dir);
    if (dir == "/") die("cannot serve %s: none of its directories exists", target.c_str());
    if (!S_ISDIR(st.st_mode)) die("cannot serve %s: %s is not a directory", target.c_str(), dir.c_str());
    shadow_dir(stage, dir);
    for (size_t slash = dir.size() + 1; (slash = target.find('/', slash)) != std::string::npos; ++slash)
      if (mkdir(target.substr(0, slash).c_str(), 0755) != 0 && errno != EEXIST)
        die("cannot stage %s: %s", target.substr(0, slash).c_str(), strerror(errno));
    write_file(target, "", 0644);
  }
  bind(source, target);
}

// /etc/os-release as the machine has it, with the camera's version line first
// (or none at all): the library reads only the first HOLVEN_VERSION= it finds.
std::string camera_os_release(const char *firmware) {
  std::string host, out;
  kelo::UniqueFd fd(open(kOsRelease, O_RDONLY | O_CLOEXEC));
  if (fd.valid() && !read_all(fd.get(), host)) host.clear();
  if (firmware != nullptr) out = std::string(kVersionKey) + firmware + "\n";
  for (size_t start = 0; start < host.size();) {
    size_t nl = host.find('\n', start);
    std::string line = host.substr(start, nl == std::string::npos ? std::string::npos : nl - start + 1);
    start += line.size();
    if (line.find(kVersionKey) == std::string::npos) out += line;
  }
  if (!out.empty() && out.back() != '\n') out += '\n';
  return out;
}

// The device record, made in the private /dev/shm by the library's own filler
// before the command starts. /proc/net/wireless itself cannot be faked:
// procfs takes no new files, and /proc/net is each process's own view
// (/proc/<pid>/net), so a mount there would cover one process only. The
// filler reads a list in the kernel's format instead; the command's
// processes then find the region made and only map it.
void make_device_record(const char *ifname) {
  kelo::UniqueFd list(memfd_create("wireless", MFD_CLOEXEC));
  if (!list.valid()) die("cannot make the wireless list: %s", strerror(errno));
  char line[160];
  snprintf(line, sizeof line, "%6s: %04x  %3d%c  %3d%c  %3d%c  %6d %6d %6d %6d %6d   %6d\n", ifname, 0, 70,
           '.', -40, '.', -256, '.', 0, 0, 0, 0, 0, 0);
  std::string text =
      std::string("Inter-| sta-|   Quality        |   Discarded packets               | Missed | WE\n") +
      " face | tus | link level noise |  nwid  crypt   frag  retry   misc | beacon | 22\n" + line;
  if (write(list.get(), text.data(), text.size()) != static_cast<ssize_t>(text.size()))
    die("cannot make the wireless list: %s", strerror(errno));
  std::string path = "/proc/self/fd/" + std::to_string(list.get());
  kelo::sys::Paths p = kelo::sys::paths();
  p.proc_wireless = path.c_str();
  kelo::sys::set_paths_for_testing(p);
  if (kelo::devinfo::get() == nullptr)
    die("cannot make the device record in the private /dev/shm: %s", strerror(errno));
}

// ---- running ----------------------------------------------------------------------

volatile sig_atomic_t g_command = 0, g_agent = 0;

// Passes signals sent to kelo-run on to its children. A terminal's signals
// (Ctrl-C) already reach the whole foreground group, so those are not sent twice.
void forward_signal(int sig, siginfo_t *si, void *) {
  if (si != nullptr && si->si_code == SI_KERNEL) return;
  if (g_command > 0) kill(g_command, sig);
  if (g_agent > 0) kill(g_agent, sig);
}

pid_t spawn(const std::string &path, char *const argv[], bool null_input) {
  fflush(nullptr);
  pid_t pid = fork();
  if (pid < 0) die("cannot fork: %s", strerror(errno));
  if (pid == 0) {
    for (int s : {SIGINT, SIGTERM, SIGHUP, SIGQUIT}) signal(s, SIG_DFL);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (null_input) {
      int fd = open("/dev/null", O_RDONLY);
      if (fd > 0) dup2(fd, 0), close(fd);
    }
    execv(path.c_str(), argv);
    fprintf(stderr, "kelo-run: cannot execute %s: %s\n", path.c_str(), strerror(errno));
    _exit(errno == ENOENT ? kNotFound : kCannotExecute);
  }
  return pid;
}

int status_code(int st) { return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st); }

void sleep_ms(long ms) {
  struct timespec ts = {ms / 1000, (ms % 1000) * 1000000};
  while (nanosleep(&ts, &ts) != 0 && errno == EINTR) continue;
}

// SIGTERM, then SIGKILL after the grace time; returns the child's status.
int stop_child(pid_t pid) {
  kill(pid, SIGTERM);
  int st = 0;
  for (int waited = 0; waited < kGraceMs; waited += 20) {
    pid_t r = waitpid(pid, &st, WNOHANG);
    if (r == pid) return status_code(st);
    if (r < 0 && errno != EINTR) return kOwnFailure;
    sleep_ms(20);
  }
  kill(pid, SIGKILL);
  while (waitpid(pid, &st, 0) < 0)
    if (errno != EINTR) return kOwnFailure;
  return status_code(st);
}

// True once something listens on port 54320 in this network: only the agent
// can. Read from the kernel's socket list, so the agent sees no probe connection.
bool agent_listening() {
  FILE *f = fopen("/proc/self/net/tcp", "re");
  if (f == nullptr) return false;
  char line[256];
  bool found = false;
  while (!found && fgets(line, sizeof line, f) != nullptr)
    found = strstr(line, ":D430 00000000:0000 0A") != nullptr;
  fclose(f);
  return found;
}

int run_with_agent(const Options &o, const std::string &command) {
  struct sigaction sa {};
  sa.sa_sigaction = forward_signal;
  sa.sa_flags = SA_SIGINFO;
  sigemptyset(&sa.sa_mask);
  for (int s : {SIGINT, SIGTERM, SIGHUP}) sigaction(s, &sa, nullptr);

  std::string agent_path = find_agent();
  std::vector<char *> agent_argv = {const_cast<char *>("kelo-agent"), const_cast<char *>("--port"),
                                    const_cast<char *>(kAgentPort)};
  if (o.script != nullptr) {
    agent_argv.push_back(const_cast<char *>("--script"));
    agent_argv.push_back(const_cast<char *>(o.script));
  }
  agent_argv.push_back(nullptr);
  pid_t agent = spawn(agent_path, agent_argv.data(), false);
  g_agent = agent;
  int st = 0;
  // The command starts once the agent listens, so that its first connect succeeds.
  for (int waited = 0; !agent_listening(); waited += 10) {
    pid_t r = waitpid(agent, &st, WNOHANG);
    if (r == agent) {
      g_agent = 0;
      fprintf(stderr, "kelo-run: kelo-agent ended before it listened (status %d)\n", status_code(st));
      return o.script != nullptr ? status_code(st) : kOwnFailure;
    }
    if (waited > 10000) {
      g_agent = 0;
      stop_child(agent);
      die("kelo-agent did not listen on 127.0.0.1:%s within 10 s", kAgentPort);
    }
    sleep_ms(10);
  }
  // At the terminal the agent reads the keyboard; the command does not.
  pid_t cmd = spawn(command, o.command, o.agent);
  g_command = cmd;
  for (;;) {
    pid_t p = waitpid(-1, &st, 0);
    if (p < 0) {
      if (errno == EINTR) continue;
      die("waitpid: %s", strerror(errno));
    }
    if (p == agent) {
      g_agent = 0;
      if (g_command > 0) {
        g_command = 0;
        stop_child(cmd);
      }
      return status_code(st);
    }
    if (p == cmd) {
      g_command = 0;
      // A script decides for itself whether the command's end is expected.
      if (o.script != nullptr) continue;
      g_agent = 0;
      stop_child(agent);
      return status_code(st);
    }
  }
}

}  // namespace

int main(int argc, char **argv) {
  Options o = parse(argc, argv);

  // Everything the user named is checked before anything is set up.
  kelo::UniqueFd font;
  if (o.font != nullptr) {
    font.reset(open(o.font, O_RDONLY | O_CLOEXEC));
    if (!font.valid()) die("cannot read the font %s: %s", o.font, strerror(errno));
  } else {
    font.reset(open(kDefaultFont, O_RDONLY | O_CLOEXEC));  // not installed: no font, as on a bare camera
  }
  if (o.script != nullptr) {
    kelo::UniqueFd s(open(o.script, O_RDONLY | O_CLOEXEC));
    std::string text;
    if (!s.valid() || !read_all(s.get(), text))
      die("cannot read the agent script %s: %s", o.script, strerror(errno));
  }
  if (o.agent || o.script != nullptr) (void)find_agent();
  std::string command = resolve_command(o.command[0]);
  std::string os_release = camera_os_release(o.firmware);
  std::string font_data;
  if (font.valid() && !read_all(font.get(), font_data))
    die("cannot read the font %s: %s", o.font, strerror(errno));

  enter_namespaces();
  // Nothing mounted below may reach the machine's mount table.
  if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
    die_mount("make private", "the mounts");
  bring_up_loopback();

  // A staging tmpfs on /dev/shm holds the served files; a fresh one then
  // covers it, and the bind mounts keep what they were given.
  mount_tmpfs("/dev/shm", "mode=0700");
  const std::string stage = "/dev/shm";
  write_file(stage + "/os-release", os_release, 0644);
  serve_file(stage, stage + "/os-release", kOsRelease);
  if (font.valid()) {
    write_file(stage + "/font.ttf", font_data, 0644);
    serve_file(stage, stage + "/font.ttf", kCameraFont);
  }
  mount_tmpfs("/dev/shm", "mode=1777");
  make_device_record(o.ifname);

  if (!o.agent && o.script == nullptr) {
    execv(command.c_str(), o.command);
    fprintf(stderr, "kelo-run: cannot execute %s: %s\n", command.c_str(), strerror(errno));
    return errno == ENOENT ? kNotFound : kCannotExecute;
  }
  return run_with_agent(o, command);
}
