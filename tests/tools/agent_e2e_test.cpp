// ctest-labels: host-only
// ctest-lock: agent-port
// The agent simulator and the example service as processes: a scripted
// session on the agent's real port (the service's library connects there),
// the simulator's command checking, and its answers to a raw client.
#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "support/sandbox.h"

namespace {

using kelo::test::Sandbox;
using kelo::test::slurp;

const std::string kBin = KELO_BINARY_DIR;
const std::string kAgent = kBin + "/tools/kelo-agent";
const std::string kService = kBin + "/examples/demo_service";

// A program started with stdout and stderr in one file and, optionally, its
// standard input from a pipe the test writes to.
struct Proc {
  pid_t pid = -1;
  int in = -1;  // write end of the child's stdin, or -1
  std::string out_path;

  Proc(const std::vector<std::string> &args, const std::string &out, bool pipe_stdin,
       const std::vector<std::string> &env = {}) {
    out_path = out;
    int p[2] = {-1, -1};
    if (pipe_stdin && pipe2(p, O_CLOEXEC) < 0) abort();
    pid = fork();
    if (pid < 0) abort();
    if (pid == 0) {
      int fd = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
      dup2(fd, 1);
      dup2(fd, 2);
      if (pipe_stdin) dup2(p[0], 0);
      else {
        int null = open("/dev/null", O_RDONLY);
        dup2(null, 0);
      }
      for (auto &e : env) putenv(const_cast<char *>(e.c_str()));
      std::vector<char *> argv;
      for (auto &a : args) argv.push_back(const_cast<char *>(a.c_str()));
      argv.push_back(nullptr);
      execv(argv[0], argv.data());
      _exit(126);
    }
    if (pipe_stdin) {
      close(p[0]);
      in = p[1];
    }
  }
  ~Proc() {
    if (in >= 0) close(in);
    if (pid > 0) {
      kill(pid, SIGKILL);
      waitpid(pid, nullptr, 0);
    }
  }
  void send(const std::string &text) const { ASSERT_EQ(write(in, text.data(), text.size()), (ssize_t)text.size()); }
  void close_stdin() {
    close(in);
    in = -1;
  }
  // Exit status, or -1 (and the process killed) after timeout_s.
  int wait(double timeout_s) {
    for (int i = 0; i < timeout_s * 100; ++i) {
      int st = 0;
      if (waitpid(pid, &st, WNOHANG) == pid) {
        pid = -1;
        return WIFEXITED(st) ? WEXITSTATUS(st) : 128 + WTERMSIG(st);
      }
      usleep(10 * 1000);
    }
    return -1;
  }
  std::string output() const { return slurp(out_path); }
  bool wait_output(const std::string &text, double timeout_s) const {
    for (int i = 0; i < timeout_s * 100; ++i) {
      if (output().find(text) != std::string::npos) return true;
      usleep(10 * 1000);
    }
    return false;
  }
};

size_t count(const std::string &hay, const std::string &needle) {
  size_t n = 0;
  for (size_t p = hay.find(needle); p != std::string::npos; p = hay.find(needle, p + 1)) ++n;
  return n;
}

// The device record that statistics read is made once per boot by the first
// process asking; on a PC without a wireless list that process aborts (as on
// a camera without Wi-Fi), so let a throw-away run make it first.
void make_device_record(const Sandbox &sb) {
  struct stat st;
  if (stat("/proc/net/wireless", &st) == 0 || stat("/dev/shm/kelo-devinfo", &st) == 0) return;
  Proc prime({kService, "--name", "prime", "--interval", "1"}, sb.path("prime.out"), false,
             {"KELO_LOG_FILE=/dev/null"});
  prime.wait(10);
}

TEST(AgentE2E, ScriptedSessionWithTheDemoService) {
  Sandbox sb;
  make_device_record(sb);
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
                "restart 1200\n"
                "expect connected from\n"
                "expect \"key\":\"demo.time\"\n"
                "call demo.echo [2]\n"
                "expect \"result\":[2]\n"
                "quit\n");
  Proc agent({kAgent, "--script", sb.path("session")}, sb.path("agent.out"), false);
  ASSERT_TRUE(agent.wait_output("agent listening on 127.0.0.1:54320", 5)) << agent.output();
  // Logging's file and stream handlers are never freed (by design, they may
  // still be referenced), so a leak check at exit would only report that one.
  Proc service({kService, "--name", "e2e", "--interval", "1", "-v"}, sb.path("service.out"), false,
               {"KELO_LOG_FILE=-", "KELO_LOG_LEVEL=debug", "ASAN_OPTIONS=detect_leaks=0"});

  int agent_rc = agent.wait(40);
  std::string t = agent.output();
  EXPECT_EQ(agent_rc, 0) << t;
  EXPECT_NE(t.find("#1 127.0.0.1:"), std::string::npos) << t;
  EXPECT_NE(t.find("methods: demo.echo demo.time"), std::string::npos) << t;
  EXPECT_NE(t.find("#1 <- {\"id\":1,\"result\":{\"x\":1}}"), std::string::npos) << t;
  EXPECT_NE(t.find("\"params\":{\"model\":"), std::string::npos) << t;
  EXPECT_NE(t.find("\"name\":\"e2e\""), std::string::npos) << t;
  EXPECT_NE(t.find("-> {\"id\":"), std::string::npos) << t;  // the ping answered
  EXPECT_NE(t.find("\"result\":{\"pong\":true}"), std::string::npos) << t;
  EXPECT_NE(t.find("#2 connected from"), std::string::npos) << t;  // reconnected after the restart
  EXPECT_NE(t.find("#2 <- {\"id\":3,\"result\":[2]}"), std::string::npos) << t;
  EXPECT_EQ(count(t, "\"params\":{},\"key\":\"demo.echo\"}"), 2u) << t;  // announced once per connection
  EXPECT_EQ(t.find("FAILED"), std::string::npos) << t;

  // SIGTERM reaches app_break: the loop returns and the service exits 0.
  kill(service.pid, SIGTERM);
  EXPECT_EQ(service.wait(10), 0);
  std::string s = service.output();
  EXPECT_NE(s.find("agent.ping replied: {\"id\":"), std::string::npos) << s;
  EXPECT_NE(s.find("demo_service stopping"), std::string::npos) << s;
}

TEST(AgentE2E, DemoServiceOptions) {
  Sandbox sb;
  Proc help({kService, "--help"}, sb.path("help.out"), false);
  EXPECT_EQ(help.wait(10), 0);
  EXPECT_EQ(help.output().rfind("Usage:\n  demo_service [OPTIONS] ...\n\nRequired Options:\n  -n,--name=ARG", 0), 0u)
      << help.output();
  Proc missing({kService, "-v"}, sb.path("missing.out"), false);
  EXPECT_EQ(missing.wait(10), 127);
  EXPECT_EQ(missing.output().rfind("opt_parse: '--name' is required.Usage:\n", 0), 0u) << missing.output();
}

TEST(AgentE2E, MalformedCommandsAreRejectedAndTheSessionGoesOn) {
  Sandbox sb;
  int port = kelo::test::free_port();
  Proc agent({kAgent, "--port", std::to_string(port)}, sb.path("agent.out"), true);
  ASSERT_TRUE(agent.wait_output("agent listening", 5));
  agent.send(
      "bogus stuff\n"
      "wait soon\n"
      "call\n"
      "call nobody.has {}\n"
      "reply m {not json\n"
      "send #9 {}\n"
      "restart -5\n"
      "say still here\n"
      "list\n");
  agent.close_stdin();  // end of input ends the session
  EXPECT_EQ(agent.wait(10), 1);
  std::string t = agent.output();
  EXPECT_NE(t.find("error: unknown command \"bogus\""), std::string::npos) << t;
  EXPECT_NE(t.find("error: usage: wait MS"), std::string::npos) << t;
  EXPECT_NE(t.find("error: usage: call [#N] METHOD [JSON]"), std::string::npos) << t;
  EXPECT_NE(t.find("error: no connected service has registered nobody.has"), std::string::npos) << t;
  EXPECT_NE(t.find("error: reply is not JSON"), std::string::npos) << t;
  EXPECT_NE(t.find("error: no connection #9"), std::string::npos) << t;
  EXPECT_NE(t.find("error: usage: restart [MS]"), std::string::npos) << t;
  EXPECT_NE(t.find("-- still here"), std::string::npos) << t;
  EXPECT_NE(t.find("no connections"), std::string::npos) << t;
  EXPECT_NE(t.find("agent: 0 expectation(s) failed, 7 command(s) rejected"), std::string::npos) << t;
}

// A blocking client with a receive timeout.
int connect_to(int port) {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(static_cast<uint16_t>(port));
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  struct timeval tv = {5, 0};
  setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
  if (connect(fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0) return -1;
  return fd;
}

// Reads until text appears in what was read (or 5 s pass).
std::string read_until(int fd, const std::string &text) {
  std::string got;
  char buf[1024];
  while (got.find(text) == std::string::npos) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n <= 0) break;
    got.append(buf, static_cast<size_t>(n));
  }
  return got;
}

TEST(AgentE2E, AnswersCallsAndCallsRegisteredMethods) {
  Sandbox sb;
  int port = kelo::test::free_port();
  Proc agent({kAgent, "--port", std::to_string(port)}, sb.path("agent.out"), true);
  ASSERT_TRUE(agent.wait_output("agent listening", 5));
  agent.send("reply svc.cfg {\"level\":3}\nreply svc.quiet none\ntimeout 5000\n");
  int fd = connect_to(port);
  ASSERT_GE(fd, 0);
  // Two objects split across writes, a notification, a call with the default
  // answer, a configured answer, and one that is not answered.
  const std::string first = "{\"method\":\"register\",\"id\":10,\"params\":{},\"key\":\"svc.m\"}{\"method\":\"svc.cf";
  const std::string rest =
      "g\",\"id\":11,\"params\":{}}\n{\"method\":\"svc.quiet\",\"id\":12}{\"method\":\"svc.note\"}"
      "{\"method\":\"svc.other\",\"id\":13,\"params\":{}} junk {\"method\":\"register\",\"id\":14,\"key\":\"svc.n\"}";
  ASSERT_EQ(write(fd, first.data(), first.size()), (ssize_t)first.size());
  usleep(50 * 1000);
  ASSERT_EQ(write(fd, rest.data(), rest.size()), (ssize_t)rest.size());
  std::string got = read_until(fd, "{\"id\":13,");
  EXPECT_EQ(got, "{\"id\":11,\"result\":{\"level\":3}}{\"id\":13,\"result\":[\"OK\"]}");

  agent.send("expect svc.n\nlist\ncall svc.m {\"a\":[1,2]}\nnotify svc.n 5\n");
  got = read_until(fd, "\"params\":5}");
  EXPECT_EQ(got, "{\"method\":\"svc.m\",\"id\":1,\"params\":{\"a\":[1,2]}}{\"method\":\"svc.n\",\"params\":5}");
  const std::string reply = "{\"id\":1,\"result\":\"done\"}";
  ASSERT_EQ(write(fd, reply.data(), reply.size()), (ssize_t)reply.size());
  agent.send("expect \"result\":\"done\"\nquit\n");
  EXPECT_EQ(agent.wait(10), 0);
  close(fd);
  std::string t = agent.output();
  EXPECT_NE(t.find("#1 <- {\"method\":\"register\",\"id\":10,\"params\":{},\"key\":\"svc.m\"}\n"), std::string::npos)
      << t;
  EXPECT_NE(t.find("#1 malformed input skipped"), std::string::npos) << t;
  EXPECT_NE(t.find(" methods: svc.m svc.n\n"), std::string::npos) << t;
  EXPECT_NE(t.find("#1 <- {\"id\":1,\"result\":\"done\"}\n"), std::string::npos) << t;
  EXPECT_EQ(t.find("{\"id\":12"), std::string::npos) << t;  // "none": not answered
}

}  // namespace
