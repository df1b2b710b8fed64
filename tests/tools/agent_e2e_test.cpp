// ctest-labels: host-only
// The agent simulator and the example service as processes: a scripted
// session on the agent's fixed port (the service's library connects there)
// and the simulator's command checking, both inside kelo-run, whose private
// network and /dev/shm make that port and the device record their own.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "kelo/encoding.h"
#include "kelo/md5.h"
#include "kelo/osd.h"
#include "support/sandbox.h"

namespace {

using kelo::test::Sandbox;

const std::string kBin = KELO_BINARY_DIR;
const std::string kAgent = kBin + "/tools/kelo-agent";
const std::string kRun = kBin + "/tools/kelo-run";
const std::string kService = kBin + "/examples/demo_service";

// A program with stdout and stderr in one file and, optionally, its standard
// input from a pipe the test writes to.
struct Proc {
  pid_t pid = -1;
  int in = -1;  // write end of the child's stdin, or -1
  std::string out_path;

  Proc(const std::vector<std::string> &args, const std::string &out, bool pipe_stdin,
       const std::vector<std::string> &env = {})
      : out_path(out) {
    int p[2] = {-1, -1};
    if (pipe_stdin && pipe2(p, O_CLOEXEC) < 0) abort();
    pid = fork();
    if (pid < 0) abort();
    if (pid == 0) {
      int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(fd, 1);
      dup2(fd, 2);
      dup2(pipe_stdin ? p[0] : open("/dev/null", O_RDONLY), 0);
      for (auto &e : env) putenv(const_cast<char *>(e.c_str()));
      std::vector<char *> argv;
      for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(126);
    }
    if (pipe_stdin) close(p[0]);
    in = p[1];
  }
  ~Proc() {
    if (in >= 0) close(in);
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  // Exit status, or -1 after timeout_s.
  int wait(double timeout_s) {
    for (int i = 0, st = 0; i < timeout_s * 100; ++i, usleep(10 * 1000))
      if (waitpid(pid, &st, WNOHANG) == pid) {
        pid = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
      }
    return -1;
  }
  std::string output() const { return kelo::test::slurp(out_path); }
  bool wait_output(const std::string &text, double timeout_s) const {
    for (int i = 0; i < timeout_s * 100; ++i, usleep(10 * 1000))
      if (output().find(text) != std::string::npos) return true;
    return false;
  }
};

// MD5 (hex) of the NV12 stamp the library draws from the sandbox's font.
std::string stamp_md5(const char *text) {
  int w = 0, h = 0;
  unsigned char *yuv = Ascii2yuv(text, &w, &h, 16, 1);
  unsigned char digest[16];
  char hex[33] = "";
  MD5_CTX ctx;
  MD5Init(&ctx);
  MD5Update(&ctx, yuv, yuv != nullptr ? static_cast<unsigned>(w * h * 3 / 2) : 0);
  MD5Final(&ctx, digest);
  hex_stringify(digest, sizeof digest, hex, sizeof hex);
  free(yuv);
  return hex;
}

void expect_all(const std::string &t, std::initializer_list<const char *> wanted) {
  for (const char *w : wanted) EXPECT_NE(t.find(w), std::string::npos) << w << "\n" << t;
}

TEST(AgentE2E, ScriptedSessionWithTheDemoService) {
  Sandbox sb;
  // The stamp the service draws with --font must be the library's own.
  const std::string osd_md5 = stamp_md5("2018:01:05 15:24:59");
  sb.write_file("session",
                "timeout 8000\n"
                "reply agent.ping {\"pong\":true}\n"
                "expect connected from\n"
                "expect \"key\":\"demo.echo\"\n"
                "expect \"key\":\"demo.time\"\n"
                "expect \"method\":\"agent.ping\"\n"
                "list\n"
                "call demo.echo {\"x\":1}\n"
                "expect \"result\":{\"x\":1}\n"
                "call demo.time\n"
                "expect \"utc\":\n"
                "expect \"_async.stat\"\n"
                "reply agent.ping {\"error\":{\"code\":-5}}\n"
                "restart 1200\n"
                "expect connected from\n"
                "expect \"key\":\"demo.time\"\n"
                "call demo.echo [2]\n"
                "expect \"result\":[2]\n"
                "call demo.osd {\"text\":\"2018:01:05 15:24:59\"}\n"
                "expect \"md5\":\"" +
                    osd_md5 + "\"\nquit\n");
  // kelo-run starts the service once the agent listens on 54320, and stops it
  // (SIGTERM) after the script. Logging's file and stream handlers are never
  // freed (they may still be referenced), so a leak check at exit would only
  // report that one.
  Proc agent({kRun, "--firmware", "1.2.3_0045", "--agent-script", sb.path("session"), "--", "/bin/sh", "-c",
              "exec \"$0\" \"$@\" >" + sb.path("service.out") + " 2>&1", kService, "--name", "e2e",
              "--interval", "1", "--font", KELO_TEST_FONT, "-v"},
             sb.path("agent.out"), false,
             {"KELO_LOG_FILE=-", "KELO_LOG_LEVEL=debug", "ASAN_OPTIONS=detect_leaks=0"});
  EXPECT_EQ(agent.wait(40), 0) << agent.output();
  std::string t = agent.output();
  expect_all(
      t, {"#1 127.0.0.1:", "methods: demo.echo demo.time", "#1 <- {\"id\":1,\"result\":{\"x\":1}}",
          "\"params\":{\"model\":\"tarsa.camera.v4\",\"fw_ver\":\"1.2.3_0045\"", "\"name\":\"e2e\"",
          "-> {\"id\":", "\"result\":{\"pong\":true}", "#2 connected from", "#2 <- {\"id\":3,\"result\":[2]}",
          "\"width\":140,\"height\":16", ",\"error\":{\"code\":-5}}"});
  // Announced once per connection.
  size_t announced = 0;
  for (size_t p = 0; (p = t.find("\"params\":{},\"key\":\"demo.echo\"}", p)) != std::string::npos; ++p)
    ++announced;
  EXPECT_EQ(announced, 2u) << t;
  EXPECT_EQ(t.find("FAILED"), std::string::npos) << t;

  // SIGTERM reaches app_break: the loop returns and app_fini runs.
  expect_all(kelo::test::slurp(sb.path("service.out")),
             {"agent.ping replied: {\"id\":", ",\"error\":{\"code\":-5}}", "demo_service stopping"});
}

TEST(AgentE2E, MalformedCommandsAreRejectedAndTheSessionGoesOn) {
  Sandbox sb;
  Proc agent({kRun, kAgent}, sb.path("agent.out"), true);
  ASSERT_TRUE(agent.wait_output("agent listening", 5));
  const std::string cmds =
      "bogus stuff\nwait soon\ncall\ncall nobody.has {}\nreply m {not json\nsend #9 {}\nrestart -5\n"
      "say still here\nlist\n";
  ASSERT_EQ(write(agent.in, cmds.data(), cmds.size()), static_cast<ssize_t>(cmds.size()));
  close(agent.in);  // end of input ends the session
  agent.in = -1;
  EXPECT_EQ(agent.wait(10), 1);
  expect_all(
      agent.output(),
      {"error: unknown command \"bogus\"", "error: usage: wait MS", "error: usage: call [#N] METHOD [JSON]",
       "error: no connected service has registered nobody.has", "error: reply is not JSON",
       "error: no connection #9", "error: usage: restart [MS]", "-- still here", "no connections",
       "agent: 0 expectation(s) failed, 7 command(s) rejected"});
}

}  // namespace
