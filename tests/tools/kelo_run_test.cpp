// kelo-run: the camera's world around one command, checked from inside by a
// probe service and against the library's own filler and renderer run on the
// same files here.
// ctest-labels: host-only
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "support/sandbox.h"

extern "C" void kelo_probe_report(void);

namespace {

using kelo::test::ChildResult;
using kelo::test::run_child;
using kelo::test::Sandbox;

const std::string kBin = KELO_BINARY_DIR;
const std::string kRun = kBin + "/tools/kelo-run";
const std::string kService = kBin + "/examples/demo_service";
const std::string kProbe = KELO_RUN_PROBE;

ChildResult run(const std::vector<std::string> &args, const std::vector<std::string> &prefix = {}) {
  return run_child([&] {
    std::vector<char *> argv;
    for (const auto *list : {&prefix, &args})
      for (const std::string &a : *list) argv.push_back(const_cast<char *>(a.c_str()));
    argv.push_back(nullptr);
    setenv("KELO_LOG_FILE", "/dev/null", 1);
    execv(argv[0], argv.data());
    _exit(99);
  });
}

// A host without user namespaces for ordinary users cannot run these; say so.
bool refused(const ChildResult &r) {
  return r.exit_code == 125 && r.err.find("refused a private user namespace") != std::string::npos;
}

// What the probe prints of the record and the stamp, made here by the
// library from the given os-release, wireless line and font.
std::string reference(const std::string &os_release, const std::string &ifname, const std::string &font) {
  Sandbox sb;
  sb.write_file("os-release", os_release);
  sb.write_file("wireless", std::string(kelo::test::kWirelessHeader) + " " + ifname +
                                ": 0000   70.  -40.  -256        0      0      0      0      0        0\n");
  sb.set_font(font);
  return run_child(kelo_probe_report).out;
}

// The record and the stamp inside are those the library makes on a camera
// with these files: the firmware line or "Unknown", the interface, the font.
TEST(KeloRun, TheDeviceRecordAndTheStampAreTheCamerasInside) {
  struct Case {
    std::vector<std::string> options;
    std::string os_release, ifname, font;
  } cases[] = {
      {{"--firmware", "7.1.0_0100", "--ifname", "wlp3s0"},
       "HOLVEN_VERSION=7.1.0_0100\n",
       "wlp3s0",
       KELO_TEST_FONT},
      {{"--font", KELO_TEST_FONT_MONO}, "NAME=x\n", "wlan0", KELO_TEST_FONT_MONO},
  };
  for (const Case &c : cases) {
    std::vector<std::string> args = {kRun};
    args.insert(args.end(), c.options.begin(), c.options.end());
    args.push_back(kProbe);
    ChildResult r = run(args);
    if (refused(r)) GTEST_SKIP() << r.err;
    ASSERT_EQ(r.exit_code, 0) << r.err;
    std::string want = reference(c.os_release, c.ifname, c.font);
    EXPECT_NE(want.find("osd 140x16 "), std::string::npos) << want;
    EXPECT_EQ(r.out, "shm kelo-devinfo\n" + want);
  }
}

// A region made inside is not the machine's, and a port that listens here is
// not reachable from inside.
TEST(KeloRun, LeavesTheMachinesShmAndNetworkAlone) {
  const std::string name = "kelo-run-test-" + std::to_string(getpid());
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof a;
  ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&a), sizeof a), 0);
  ASSERT_EQ(listen(fd, 1), 0);
  ASSERT_EQ(getsockname(fd, reinterpret_cast<sockaddr *>(&a), &len), 0);
  const std::string port = std::to_string(ntohs(a.sin_port));

  ChildResult r = run({kRun, "sh", "-c", "touch /dev/shm/" + name + " && exec \"$0\" " + port, kProbe});
  close(fd);
  if (refused(r)) GTEST_SKIP() << r.err;
  EXPECT_EQ(r.exit_code, 0) << r.err;
  EXPECT_NE(r.out.find("shm " + name + " kelo-devinfo\n"), std::string::npos) << r.out;
  EXPECT_NE(r.out.find("port " + port + " refused\n"), std::string::npos) << r.out;
  struct stat st;
  EXPECT_NE(stat(("/dev/shm/" + name).c_str(), &st), 0);
}

// The statuses of a command runner (env, timeout): the command's own, 125,
// 126, 127; "--" ends kelo-run's options.
TEST(KeloRun, ExitStatuses) {
  Sandbox sb;
  sb.write_file("plain", "#!/bin/sh\n");  // not executable
  const std::string missing = sb.path("missing");
  struct Case {
    std::vector<std::string> args;
    int status;
    const char *message;
  } cases[] = {
      {{"sh", "-c", "exit 7"}, 7, ""},
      {{"sh", "-c", "kill -9 $$"}, 128 + 9, ""},
      {{"--", "--agent"}, 127, "--agent: command not found"},
      {{missing}, 127, "missing: No such file or directory"},
      {{sb.path("plain")}, 126, "plain: cannot execute: Permission denied"},
      {{sb.root()}, 126, "cannot execute: Is a directory"},
      {{"--font", missing, "true"}, 125, "cannot read the font .*missing: No such file"},
      {{"--agent-script", missing, "true"}, 125, "cannot read the agent script .*missing"},
      {{"--agent", "--agent-script", sb.path("plain"), "true"}, 125, "exclude each other"},
      {{"--ifname", "wl an0", "true"}, 125, "not an interface name"},
      {{"--bogus", "true"}, 125, "unrecognized option"},
      {{}, 125, "no command given"},
  };
  for (const Case &c : cases) {
    std::vector<std::string> args = {kRun};
    args.insert(args.end(), c.args.begin(), c.args.end());
    ChildResult r = run(args);
    if (refused(r)) GTEST_SKIP() << r.err;
    // As a shell reports it: kelo-run becomes the command, so a signal ends kelo-run itself.
    EXPECT_EQ(r.exited ? r.exit_code : 128 + r.signal, c.status) << args.back() << ": " << r.err;
    EXPECT_TRUE(std::regex_search(r.err, std::regex(c.message))) << r.err;
  }
}

// With --agent-script the status is the script's: 0 when every expectation
// was met, the agent's failure otherwise; the command is stopped after it.
TEST(KeloRun, AgentScriptStatusIsKeloRuns) {
  Sandbox sb;
  sb.write_file("ok",
                "timeout 5000\nexpect \"key\":\"demo.echo\"\ncall demo.echo [3]\nexpect \"result\":[3]\n");
  sb.write_file("bad", "timeout 300\nexpect \"key\":\"demo.nothing\"\n");
  for (const char *script : {"ok", "bad"}) {
    ChildResult r = run({kRun, "--agent-script", sb.path(script), kService, "--name", "t"});
    if (refused(r)) GTEST_SKIP() << r.err;
    EXPECT_EQ(r.exit_code, script[0] == 'o' ? 0 : 1) << r.out << r.err;
    EXPECT_NE(r.out.find("agent listening on 127.0.0.1:54320"), std::string::npos) << r.out;
  }
}

// An ordinary user gets the same world, where the kernel lets it.
TEST(KeloRun, AsAnOrdinaryUser) {
  if (getuid() != 0 || access("/usr/bin/setpriv", X_OK) != 0) GTEST_SKIP() << "needs root and setpriv";
  const std::vector<std::string> as_nobody = {"/usr/bin/setpriv", "--reuid=65534", "--regid=65534",
                                              "--clear-groups"};
  ChildResult user = run({kRun, "--firmware", "2.0", kProbe}, as_nobody);
  if (refused(user)) GTEST_SKIP() << user.err;
  ChildResult root = run({kRun, "--firmware", "2.0", kProbe});
  ASSERT_EQ(user.exit_code, 0) << user.err;
  EXPECT_EQ(user.out, root.out);
}

// The refusal names the kernel setting. Inside a user namespace whose
// user.max_user_namespaces is 0 an ordinary user meets what a host with
// that setting gives it.
TEST(KeloRun, NamesTheSettingThatRefusesNamespaces) {
  if (getuid() != 0) GTEST_SKIP() << "needs root to map a second user";
  ChildResult r = run_child([] {
    int ready[2], go[2];
    if (pipe(ready) != 0 || pipe(go) != 0) _exit(98);
    pid_t kid = fork();
    char c = 0;
    if (kid == 0) {
      if (unshare(CLONE_NEWUSER) != 0 || write(ready[1], "r", 1) != 1 || read(go[0], &c, 1) != 1) _exit(97);
      int fd = open("/proc/sys/user/max_user_namespaces", O_WRONLY);
      if (fd < 0 || write(fd, "0", 1) != 1 || setresgid(65534, 65534, 65534) != 0 ||
          setresuid(65534, 65534, 65534) != 0)
        _exit(96);
      execl(kRun.c_str(), kRun.c_str(), "true", nullptr);
      _exit(95);
    }
    if (read(ready[0], &c, 1) != 1) _exit(94);
    for (const char *map : {"uid_map", "gid_map"}) {
      std::string path = "/proc/" + std::to_string(kid) + "/" + map, text = "0 0 1\n65534 65534 1\n";
      int fd = open(path.c_str(), O_WRONLY);
      if (fd < 0 || write(fd, text.data(), text.size()) != static_cast<ssize_t>(text.size())) _exit(93);
      close(fd);
    }
    int st = 0;
    if (write(go[1], "g", 1) != 1 || waitpid(kid, &st, 0) != kid) _exit(92);
    _exit(WIFEXITED(st) ? WEXITSTATUS(st) : 91);
  });
  if (r.exit_code > 90 && r.exit_code < 99)
    GTEST_SKIP() << "cannot nest user namespaces here: " << r.exit_code;
  EXPECT_EQ(r.exit_code, 125) << r.err;
  EXPECT_NE(r.err.find("refused a private user namespace (No space left on device)"), std::string::npos)
      << r.err;
  EXPECT_NE(r.err.find("user.max_user_namespaces is 0"), std::string::npos) << r.err;
}

}  // namespace
