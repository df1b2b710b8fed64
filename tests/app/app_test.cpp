// Application start-up and teardown: descriptor defaults, options through the
// merged table, logging, the exit-time teardown, and a service with methods
// talking to an agent on the sandbox's port.
#include <arpa/inet.h>
#include <ev.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <netinet/in.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>

#include "kelo/app.h"
#include "kelo/log.h"
#include "kelo/otrpc.h"
#include "support/sandbox.h"

namespace {

using kelo::test::run_child;
using kelo::test::Sandbox;

char g_arg0[] = "svc";
char *g_argv[] = {g_arg0, nullptr};

TEST(App, DescriptorDefaults) {
  Sandbox sb;
  struct Case {
    const char *name;
    int32_t facility;
    const char *want_name;
    int32_t want_facility;
  } cases[] = {
      {"", 0, "abcdefghijklmno", 8},  // the thread's kernel name, all 15 characters
      {"mine", 24, "mine", 24},
      {"", 1, "abcdefghijklmno", 1},
  };
  for (auto &c : cases) {
    auto r = run_child([&] {
      prctl(PR_SET_NAME, "abcdefghijklmnopqrst", 0, 0, 0);  // the kernel keeps 15
      app_desc app{};
      strcpy(app.name, c.name);
      app.facility = c.facility;
      int rc = app_init(&app, 1, g_argv);
      printf("%d|%s|%d|%d|%d", rc, app.name, app.facility, app.state, app_current == &app);
    });
    EXPECT_EQ(r.out, "0|" + std::string(c.want_name) + "|" + std::to_string(c.want_facility) + "|1|1");
  }
}

TEST(App, ArgvIgnoredWithoutOptionTable) {
  Sandbox sb;
  auto r = run_child([] {
    app_desc app{};
    char a1[] = "--help", a2[] = "--bogus";
    char *argv[] = {g_arg0, a1, a2, nullptr};
    printf("rc=%d", app_init(&app, 3, argv));
  });
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.out, "rc=0");
  EXPECT_EQ(r.err, "");
}

int32_t g_hold = 0;
opt_record g_options[] = {
    {"hold", 'h', OPT_NOARG, &g_hold, opt_inc_int, "Hold.", 0},
    {"hold", 'o', OPT_NOARG, &g_hold, opt_inc_int, "Loses its long name.", 0},
    {nullptr, 0, 0, nullptr, nullptr, nullptr, 0},
};

TEST(App, OptionsParsedOnAMergedCopy) {
  Sandbox sb;
  auto r = run_child([] {
    app_desc app{0, g_options, 0, "optsvc", nullptr};
    char a1[] = "-h", a2[] = "-o", a3[] = "--nope", a4[] = "-h";
    char *argv[] = {g_arg0, a1, a2, a3, a4, nullptr};
    int rc = app_init(&app, 5, argv);
    // The clash was resolved in the copy; the service's table is untouched.
    // An unknown option ends parsing (the last -h is not reached) but not start-up.
    printf("rc=%d hold=%d second=%s", rc, g_hold, g_options[1].long_name);
  });
  EXPECT_EQ(r.out, "rc=0 hold=2 second=hold");
  EXPECT_NE(r.err.find("unrecognized option '--nope'"), std::string::npos) << r.err;

  auto help = run_child([] {
    app_desc app{0, g_options, 0, "optsvc", nullptr};
    char a1[] = "--help";
    char *argv[] = {g_arg0, a1, nullptr};
    app_init(&app, 2, argv);
    printf("not reached");
  });
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_EQ(help.out, "");
  EXPECT_EQ(help.err,
            "Usage:\n  optsvc [OPTIONS] ...\n\nOptional Options:\n"
            "  -h,--hold                Hold.\n"
            "  -o                       Loses its long name.\n"
            "  --help                   Display this message.\n");
}

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;  // the sanitizers reserve far more address space than any limit here
#else
constexpr bool kSanitized = false;
#endif

TEST(App, NoMemoryForTheMergedTableAborts) {
  if (kSanitized) GTEST_SKIP() << "address-space limit under a sanitizer";
  Sandbox sb;
  auto r = run_child([] {
    // A table big enough that its merged copy cannot fit under the limit.
    constexpr size_t n = 200000;
    auto *table = static_cast<opt_record *>(calloc(n + 1, sizeof(opt_record)));
    for (size_t i = 0; i < n; ++i) table[i] = {nullptr, 'z', OPT_NOARG, nullptr, nullptr, nullptr, 0};
    struct rlimit no_core = {0, 0};
    setrlimit(RLIMIT_CORE, &no_core);
    long pages = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr || fscanf(f, "%ld", &pages) != 1) _exit(5);
    fclose(f);
    struct rlimit lim;
    lim.rlim_cur = lim.rlim_max = static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (2u << 20);
    if (setrlimit(RLIMIT_AS, &lim) != 0) _exit(6);
    // Emulators (qemu-user) do not apply the limit to the guest: skip there.
    if (void *probe = malloc(16u << 20)) {
      printf("no limit");
      free(probe);
      return;
    }
    static app_desc app{0, table, 0, "big", nullptr};
    app_init(&app, 1, g_argv);
    printf("not reached");
  });
  if (r.out == "no limit") GTEST_SKIP() << "address-space limit not in force here";
  EXPECT_EQ(r.signal, SIGABRT) << r.err;
  EXPECT_EQ(r.err, "app_init: Fail to allocate memory.");
  EXPECT_EQ(r.out, "");
}

TEST(App, LoggingStartsFromTheEnvironment) {
  Sandbox sb;
  auto r = run_child([] {
    setenv("KELO_LOG_FILE", "-", 1);
    setenv("KELO_LOG_LEVEL", "info", 1);
    app_desc app{};
    app_init(&app, 1, g_argv);
    log_info("started %d", 1);
    log_debug("not shown");
  });
  EXPECT_NE(r.err.find("[  info] started 1\n"), std::string::npos) << r.err;
  EXPECT_EQ(r.err.find("not shown"), std::string::npos) << r.err;
}

// A log handler that reports its release, to see when logging is shut down.
void count_release(log_handler *) {
  if (write(1, "R", 1) != 1) _exit(3);
}
log_handler g_counting = {nullptr, count_release, nullptr, nullptr};

TEST(App, FiniRunsAtExitAndOnlyOnce) {
  Sandbox sb;
  auto at_exit = run_child([] {
    app_desc app{};
    app_init(&app, 1, g_argv);
    log_set_handler(0xff, &g_counting);
    exit(0);  // app_fini was registered with atexit
  });
  EXPECT_EQ(at_exit.out, "RRRRRRRR");

  auto twice = run_child([] {
    static app_desc app{};
    app_init(&app, 1, g_argv);
    log_set_handler(0xff, &g_counting);
    app_fini();
    if (write(1, app.state == 0 ? "|0|" : "|1|", 3) != 3) _exit(3);
    app_fini();  // state 0: nothing
    exit(0);     // and the exit-time call does nothing either
  });
  EXPECT_EQ(twice.out, "RRRRRRRR|0|");
}

TEST(App, FiniWithoutInitDoesNothing) {
  auto r = run_child([] {
    app_current = nullptr;
    app_fini();
    printf("ok");
  });
  EXPECT_EQ(r.out, "ok");
}

// ---- a service with methods, and a small agent on the same loop -------------

struct MiniAgent {
  int listen_fd = -1, fd = -1;
  ev_io accept_io{}, io{};
  ev_timer guard{};
  std::string received;
  bool asked = false, answered = false, timed_out = false;
};
MiniAgent g_agent;

int t_echo(void *, json_object *params, json_object *reply) {
  json_object_object_add(reply, "result", json_object_get(params));
  return OTRPC_RET_SEND_REPLY;
}

void agent_read(struct ev_loop *, ev_io *w, int) {
  char buf[4096];
  ssize_t n = read(w->fd, buf, sizeof buf);
  if (n <= 0) return;
  g_agent.received.append(buf, static_cast<size_t>(n));
  if (!g_agent.asked && g_agent.received.find("\"key\":\"t.echo\"") != std::string::npos) {
    g_agent.asked = true;
    const char req[] = "{\"method\":\"t.echo\",\"id\":7,\"params\":{\"a\":1}}";
    ASSERT_EQ(write(w->fd, req, sizeof req - 1), static_cast<ssize_t>(sizeof req - 1));
  }
  if (g_agent.received.find("{\"id\":7,\"result\":{\"a\":1}}") != std::string::npos) {
    g_agent.answered = true;
    app_break();
  }
}

void agent_guard(struct ev_loop *, ev_timer *, int) {
  g_agent.timed_out = true;
  app_break();
}

void agent_accept(struct ev_loop *loop, ev_io *w, int) {
  g_agent.fd = accept(w->fd, nullptr, nullptr);
  ev_io_init(&g_agent.io, agent_read, g_agent.fd, EV_READ);
  ev_io_start(loop, &g_agent.io);
}

TEST(App, ServiceWithMethodsAnswersTheAgent) {
  Sandbox sb;
  auto r = run_child([&] {
    struct ev_loop *loop = ev_default_loop(0);
    g_agent.listen_fd = socket(AF_INET, SOCK_STREAM, 0);
    int one = 1;
    setsockopt(g_agent.listen_fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(static_cast<uint16_t>(sb.agent_port()));
    if (bind(g_agent.listen_fd, reinterpret_cast<sockaddr *>(&a), sizeof a) < 0 || listen(g_agent.listen_fd, 4) < 0)
      _exit(4);
    ev_io_init(&g_agent.accept_io, agent_accept, g_agent.listen_fd, EV_READ);
    ev_io_start(loop, &g_agent.accept_io);
    ev_timer_init(&g_agent.guard, agent_guard, 10.0, 0.0);
    ev_timer_start(loop, &g_agent.guard);

    static const otrpc_method methods[] = {{"t.echo", t_echo, nullptr, 0}, {nullptr, nullptr, nullptr, 0}};
    static app_desc app{0, nullptr, 0, "rpcsvc", methods};
    app_init(&app, 1, g_argv);
    bool hooked = otrpc_on_state_changed != nullptr;  // the registry's hook
    app_run();
    app_fini();
    printf("hooked=%d asked=%d answered=%d timed_out=%d unhooked=%d", hooked, g_agent.asked, g_agent.answered,
           g_agent.timed_out, otrpc_on_state_changed == nullptr);
  });
  EXPECT_EQ(r.out, "hooked=1 asked=1 answered=1 timed_out=0 unhooked=1") << r.err;
}

}  // namespace
