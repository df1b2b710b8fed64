// Application start-up and teardown, each in a forked child: defaults,
// options through a merged table, the teardown that runs once, the abort when
// the table cannot be made, and a service answering an agent.
#include <errno.h>
#include <ev.h>
#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>
#include <stdio.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <tuple>

#include "kelo/app.h"
#include "kelo/log.h"
#include "kelo/otrpc.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

namespace {

using kelo::test::run_child;
using kelo::test::Sandbox;

char g_arg0[] = "svc";
char *g_argv[] = {g_arg0, nullptr};
int32_t g_hold = 0;
opt_record g_options[] = {{"hold", 'h', OPT_NOARG, &g_hold, opt_inc_int, "Hold.", 0},
                          {"hold", 'o', OPT_NOARG, &g_hold, opt_inc_int, "Loses its long name.", 0},
                          {nullptr, 0, 0, nullptr, nullptr, nullptr, 0}};

// A log handler that reports its release, to see when logging is shut down.
void count_release(log_handler *) {
  if (write(1, "R", 1) != 1) _exit(3);
}
log_handler g_counting = {nullptr, count_release, nullptr, nullptr};

// The empty name becomes the thread's, facility 0 becomes 8. Without a table
// the arguments are not looked at; with one, the clash is resolved in a copy
// (the service's table keeps both names) and an unknown option ends parsing
// (the last -h is not reached) but not start-up. Logging is shut down once,
// at exit or by app_fini; app_fini before app_init and app_init(NULL) do nothing.
TEST(App, StartUpAndTeardown) {
  Sandbox sb;
  for (auto [options, by_hand, want, err] :
       {std::tuple<opt_record *, bool, const char *, const char *>{nullptr, false,
                                                                   "0 thread 8 0 hold|RRRRRRRR", ""},
        {g_options, true, "0 thread 8 2 hold|RRRRRRRR0", "svc: unrecognized option '--nope'\n"}}) {
    auto r = run_child([&] {
      app_fini();
      if (app_init(nullptr, 1, g_argv) != -1 || errno != EINVAL) _exit(4);
      prctl(PR_SET_NAME, "thread", 0, 0, 0);
      static app_desc app;
      app = {0, options, 0, "", nullptr};
      char a1[] = "-h", a2[] = "-o", a3[] = "--nope", a4[] = "-h";
      char *argv[] = {g_arg0, a1, a2, a3, a4, nullptr};
      int rc = app_init(&app, 5, argv);
      printf("%d %s %d %d %s|", rc, app.name, app.facility, g_hold, g_options[1].long_name);
      fflush(stdout);
      log_set_handler(0xff, &g_counting);
      if (by_hand) app_fini();
      if (by_hand && write(1, app.state ? "1" : "0", 1) != 1) _exit(3);
      exit(0);  // app_fini was registered with atexit
    });
    EXPECT_EQ(r.out, want);
    EXPECT_EQ(r.err, err);
  }
}

TEST(App, NoMemoryForTheMergedTableAborts) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
  GTEST_SKIP() << "the sanitizers reserve far more address space than the limit here";
#endif
  Sandbox sb;
  auto r = run_child([] {
    constexpr size_t n = 200000;  // a merged copy that cannot fit under the limit
    auto *table = static_cast<opt_record *>(calloc(n + 1, sizeof(opt_record)));
    for (size_t i = 0; i < n; ++i) table[i] = {nullptr, 'z', OPT_NOARG, nullptr, nullptr, nullptr, 0};
    struct rlimit lim = {0, 0};
    setrlimit(RLIMIT_CORE, &lim);
    long pages = 0;
    FILE *f = fopen("/proc/self/statm", "r");
    if (f == nullptr || fscanf(f, "%ld", &pages) != 1) _exit(5);
    lim.rlim_cur = lim.rlim_max =
        static_cast<rlim_t>(pages) * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + (2u << 20);
    if (setrlimit(RLIMIT_AS, &lim) != 0) _exit(6);
    if (void *probe = malloc(16u << 20)) {  // emulators (qemu-user) do not apply the limit
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

int g_signal = 0;

// SIGTERM or SIGINT, caught before app_run starts or while it runs, ends
// app_run; main returns and app_fini releases every level's handler at exit,
// status 0. The first signal removes the watchers: a second one after the
// loop has its default effect again.
TEST(App, TermAndIntEndAppRunSoAppFiniRuns) {
  Sandbox sb;
  for (int sig : {SIGTERM, SIGINT})
    for (int when : {0, 1, 2}) {  // before app_run, during it, during it and once more after it
      g_signal = sig;
      auto r = run_child([when] {
        static app_desc app;
        app = {0, nullptr, 0, "sigsvc", nullptr};
        app_init(&app, 1, g_argv);
        log_set_handler(0xff, &g_counting);
        app_break_on_signals();
        app_break_on_signals();  // no second set of watchers
        static ev_timer send;
        ev_timer_init(
            &send, [](struct ev_loop *, ev_timer *, int) { kill(getpid(), g_signal); }, 0.05, 0.0);
        if (when == 0)
          kill(getpid(), g_signal);
        else
          ev_timer_start(ev_default_loop(0), &send);
        app_run();
        printf("ran|");
        fflush(stdout);
        if (when == 2) kill(getpid(), g_signal);
        exit(0);
      });
      if (when == 2) {
        EXPECT_EQ(r.signal, sig);
        EXPECT_EQ(r.out, "ran|");
      } else {
        EXPECT_TRUE(r.exited && r.exit_code == 0) << sig << " " << when << " status " << r.status;
        EXPECT_EQ(r.out, "ran|RRRRRRRR") << sig << " " << when;
      }
    }
}

int t_echo(void *, json_object *params, json_object *reply) {
  json_object_object_add(reply, "result", json_object_get(params));
  return OTRPC_RET_SEND_REPLY;
}

// app_init starts the RPC client and offers the methods; app_fini stops it.
TEST(App, ServiceWithMethodsAnswersTheAgent) {
  Sandbox sb;
  auto r = run_child([&] {
    kelo::test::FakeAgent agent(sb.agent_port());
    static const otrpc_method methods[] = {{"t.echo", t_echo, nullptr, 0}, {nullptr, nullptr, nullptr, 0}};
    static app_desc app{0, nullptr, 0, "rpcsvc", methods};
    app_init(&app, 1, g_argv);
    kelo::test::pump_until([&] { return !agent.with_method("register").empty(); }, 5);
    agent.send_raw(R"({"method":"t.echo","id":7,"params":{"a":1}})");
    kelo::test::pump_until([&] { return !agent.with_method("").empty(); }, 5);
    auto replies = agent.with_method("");
    json_object *reply = replies.empty() ? nullptr : replies.front().obj;
    app_fini();
    printf("%s unhooked=%d", reply ? json_object_to_json_string_ext(reply, 0) : "-",
           otrpc_on_state_changed == nullptr);  // the registry's state hook is gone
  });
  EXPECT_EQ(r.out, R"({"id":7,"result":{"a":1}} unhooked=1)") << r.err;
}

}  // namespace
