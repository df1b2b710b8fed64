// Application start-up and teardown, each in a forked child: descriptor
// defaults, options through the merged table, logging, the exit-time teardown,
// and a service with methods talking to an agent on the sandbox's port.
#include <errno.h>

#include <gtest/gtest.h>
#include <json-c/json.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

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

TEST(App, DescriptorDefaults) {
  Sandbox sb;
  for (auto [name, facility, want] :
       {std::tuple{"", 0, "0|abcdefghijklmno|8|1|1"}, {"mine", 24, "0|mine|24|1|1"}}) {
    auto r = run_child([&] {
      prctl(PR_SET_NAME, "abcdefghijklmnopqrst", 0, 0, 0);  // the kernel keeps 15
      app_desc app{};
      strcpy(app.name, name);
      app.facility = facility;
      int rc = app_init(&app, 1, g_argv);
      printf("%d|%s|%d|%d|%d", rc, app.name, app.facility, app.state, app_current == &app);
    });
    EXPECT_EQ(r.out, want);
  }
}

int32_t g_hold = 0;
opt_record g_options[] = {
    {"hold", 'h', OPT_NOARG, &g_hold, opt_inc_int, "Hold.", 0},
    {"hold", 'o', OPT_NOARG, &g_hold, opt_inc_int, "Loses its long name.", 0},
    {nullptr, 0, 0, nullptr, nullptr, nullptr, 0},
};

// Runs app_init in a child with args after argv[0] and then prints "rc=N".
kelo::test::ChildResult init_with(opt_record *options, std::vector<std::string> args) {
  return run_child([&] {
    static app_desc app;
    app = {0, options, 0, "optsvc", nullptr};
    std::vector<char *> argv = {g_arg0};
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    printf("rc=%d", app_init(&app, static_cast<int>(args.size() + 1), argv.data()));
    printf(" hold=%d second=%s", g_hold, g_options[1].long_name);
  });
}

TEST(App, OptionsParsedOnAMergedCopy) {
  Sandbox sb;
  // Without a table the arguments are not looked at.
  auto ignored = init_with(nullptr, {"--help", "--bogus"});
  EXPECT_EQ(ignored.out, "rc=0 hold=0 second=hold");
  EXPECT_EQ(ignored.err, "");
  // The clash is resolved in the copy; the service's table is untouched. An
  // unknown option ends parsing (the last -h is not reached) but not start-up.
  auto r = init_with(g_options, {"-h", "-o", "--nope", "-h"});
  EXPECT_EQ(r.out, "rc=0 hold=2 second=hold");
  EXPECT_EQ(r.err, "svc: unrecognized option '--nope'\n");
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

// A log handler that reports its release, to see when logging is shut down.
void count_release(log_handler *) {
  if (write(1, "R", 1) != 1) _exit(3);
}
log_handler g_counting = {nullptr, count_release, nullptr, nullptr};

TEST(App, LoggingStartsAndFiniRunsAtExitOnlyOnce) {
  Sandbox sb;
  auto at_exit = run_child([] {
    setenv("KELO_LOG_FILE", "-", 1);
    static app_desc app{};
    app_init(&app, 1, g_argv);
    log_info("started %d", 1);
    log_set_handler(0xff, &g_counting);
    exit(0);  // app_fini was registered with atexit
  });
  EXPECT_EQ(at_exit.out, "RRRRRRRR");
  EXPECT_NE(at_exit.err.find("[  info] started 1\n"), std::string::npos) << at_exit.err;

  auto twice = run_child([] {
    app_fini();  // before app_init: nothing
    if (app_init(nullptr, 1, g_argv) != -1 || errno != EINVAL) _exit(4);
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

int t_echo(void *, json_object *params, json_object *reply) {
  json_object_object_add(reply, "result", json_object_get(params));
  return OTRPC_RET_SEND_REPLY;
}

// app_init starts the RPC client and offers the methods; app_fini stops it.
TEST(App, ServiceWithMethodsAnswersTheAgent) {
  Sandbox sb;
  auto r = run_child([&] {
    kelo::test::FakeAgent agent(sb.agent_port());
    agent.start_listening();
    static const otrpc_method methods[] = {{"t.echo", t_echo, nullptr, 0}, {nullptr, nullptr, nullptr, 0}};
    static app_desc app{0, nullptr, 0, "rpcsvc", methods};
    app_init(&app, 1, g_argv);
    bool hooked = otrpc_on_state_changed != nullptr;  // the registry's hook
    kelo::test::pump_until([&] { return !agent.with_method("register").empty(); }, 5);
    agent.send_raw(R"({"method":"t.echo","id":7,"params":{"a":1}})");
    kelo::test::pump_until([&] { return agent.reply_for(7) != nullptr; }, 5);
    json_object *reply = agent.reply_for(7);
    app_fini();
    printf("hooked=%d %s unhooked=%d", hooked, reply ? json_object_to_json_string_ext(reply, 0) : "-",
           otrpc_on_state_changed == nullptr);
  });
  EXPECT_EQ(r.out, R"(hooked=1 {"id":7,"result":{"a":1}} unhooked=1)") << r.err;
}

}  // namespace
