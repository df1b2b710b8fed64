// Command-line options: parsing, name clashes, additional arguments, the
// required check and the help text. Every parse runs in a forked child, since
// getopt_long keeps global state and help and missing options exit.
#include <errno.h>
#include <getopt.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>
#include <vector>

#include "app/opt_internal.h"
#include "kelo/app.h"
#include "support/sandbox.h"

namespace {

using kelo::test::run_child;

app_desc g_app = {1, nullptr, 8, "svc", nullptr};

// A store callback that prints what it got: "<long or letter or ...>=<arg>;".
void record_store(opt_record *rec, const char *arg, void *) {
  if (rec->long_name != nullptr)
    printf("%s", rec->long_name);
  else if (rec->short_name != 0)
    printf("%c", rec->short_name);
  else
    printf("...");
  printf("=%s;", arg != nullptr ? arg : "(null)");
}

void mark_seen(opt_record *rec, const char *arg, void *dest) {
  record_store(rec, arg, dest);
  rec->seen = 1;
}

constexpr opt_record kEnd = {nullptr, 0, 0, nullptr, nullptr, nullptr, 0};
char *g_dest = nullptr;

const std::vector<opt_record> kService = {
    {"name", 'n', OPT_REQUIRED, nullptr, mark_seen, "Service name.", 0},
    {"interval", 'i', OPT_ARG, nullptr, record_store, "Seconds between reports.", 0},
    {"level", 'l', OPT_OPTARG, nullptr, record_store, "Level, optional value.", 0},
    {nullptr, 'v', OPT_NOARG, nullptr, record_store, "Verbose.", 0},
    {"only-long", 0, OPT_ARG, nullptr, record_store, "Long name only.", 0},
    {nullptr, 'x', OPT_ARG | 4u, nullptr, record_store, "Letter only; high type bits ignored.", 0},
    {"a-very-long-option-name", 0, OPT_OPTARG, nullptr, record_store, "Cut at 24.", 0},
    {nullptr, 0, OPT_ARG, nullptr, record_store, "Files.", 0},
    {"ignored", 0, OPT_NOARG, nullptr, nullptr, nullptr, 0},
};

const std::string kUsage = "Usage:\n  svc [OPTIONS] ...\n\n";
const std::string kBuiltinHelp = "  -h,--help                Display this message.\n";
const std::string kServiceHelp = kUsage +
                                 "Required Options:\n"
                                 "  -n,--name=ARG            Service name.\n"
                                 "Optional Options:\n"
                                 "  -i,--interval=ARG        Seconds between reports.\n"
                                 "  -l,--level[=ARG]         Level, optional value.\n"
                                 "  -v                       Verbose.\n"
                                 "  --only-long=ARG          Long name only.\n"
                                 "  -x ARG                   Letter only; high type bits ignored.\n"
                                 "  --a-very-long-optio[=ARG Cut at 24.\n"
                                 "  ...                      Files.\n"
                                 "  --ignored                \n" +
                                 kBuiltinHelp;

struct Case {
  std::vector<std::string> args;
  int exit;
  std::string out, err;
  bool err_prefix = false;  // err is only the start of the standard error
  std::vector<opt_record> table = kService;
  bool with_app = true;
};

// Parses c.args (argv[0] is added) with c.table plus the built-in help, merged
// as app_init does, in a child that prints "rc=N" after the parse.
void run_cases(const std::vector<Case> &cases) {
  for (const auto &c : cases) {
    SCOPED_TRACE(c.args.empty() ? "(no arguments)"
                                : c.args[0] + " ... (" + std::to_string(c.args.size()) + ")");
    std::vector<opt_record> service = c.table;
    service.push_back(kEnd);
    opt_record builtin[2];
    kelo::app::builtin_options(builtin);
    opt_record *table = kelo::app::opt_merge(service.data(), builtin);
    auto r = run_child([&] {
      app_current = c.with_app ? &g_app : nullptr;
      std::vector<std::string> args = c.args;
      std::vector<char *> argv = {const_cast<char *>("svc")};
      for (auto &a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      optind = 0;  // full re-initialisation of getopt
      printf("rc=%d", opt_parse(static_cast<int>(argv.size() - 1), argv.data(), table));
    });
    free(table);
    EXPECT_TRUE(r.exited && r.exit_code == c.exit) << r.status;
    EXPECT_EQ(r.out, c.out);
    EXPECT_EQ(c.err_prefix ? r.err.substr(0, c.err.size()) : r.err, c.err);
  }
}

TEST(Options, ParsesAndDelivers) {
  run_cases({
      {{"-n", "cam", "-i", "5", "--level=3", "-v", "--only-long", "o", "-x", "9"},
       0,
       "name=cam;interval=5;level=3;v=(null);only-long=o;x=9;rc=0",
       ""},
      // optional argument: attached value, bare long name, attached letter, detached letter
      {{"-n", "c", "--level"}, 0, "name=c;level=(null);rc=0", ""},
      {{"-n", "c", "-l7"}, 0, "name=c;level=7;rc=0", ""},
      {{"-n", "c", "-l", "7"}, 0, "name=c;level=(null);...=7;rc=0", ""},
      {{"--a-very-long-option-name=z", "-n", "c"}, 0, "a-very-long-option-name=z;name=c;rc=0", ""},
      // getopt permutes: the additional arguments come last, in order; "--" ends the options
      {{"a", "-n", "c", "b", "--", "-v"}, 0, "name=c;...=a;...=b;...=-v;rc=0", ""},
      {{"--ignored", "-n", "c"}, 0, "name=c;rc=0", ""},               // a record without store is ignored
      {{"--inter=4", "--na", "c"}, 0, "interval=4;name=c;rc=0", ""},  // unambiguous prefixes
  });
}

TEST(Options, HelpAndUnknownOptions) {
  const std::string anon = std::string("Usage:\n  ") + program_invocation_short_name + " [OPTIONS] ...\n";
  const std::string empty_help = kUsage + "Optional Options:\n" + kBuiltinHelp;
  run_cases({
      // options after the help are not reached
      {{"-n", "x", "-h", "-v"}, 0, "name=x;", kServiceHelp},
      {{"-n", "x", "--help", "-v"}, 0, "name=x;", kServiceHelp},
      {{"--help"}, 0, "", empty_help, false, {}},
      {{"-h"}, 0, "", anon, true, {}, false},
      // the rest of the options, the additional arguments and the required check are skipped
      {{"-v", "--bogus", "-i", "3", "file"}, 0, "v=(null);rc=-2", "svc: unrecognized option '--bogus'\n"},
      {{"-q", "-v"}, 0, "rc=-2", "svc: invalid option -- 'q'\n"},
      {{"-v", "-i"}, 0, "v=(null);rc=-2", "svc: option requires an argument -- 'i'\n"},
      {{"--interval"}, 0, "rc=-2", "svc: option '--interval' requires an argument\n"},
      {{"--ignored=1"}, 0, "rc=-2", "svc: option '--ignored' doesn't allow an argument\n"},
  });
}

TEST(Options, RequiredMessagesThenHelpAndExit127) {
  const opt_record stock = {"name", 'n', OPT_REQUIRED, &g_dest, opt_store_string, "N.", 0};
  const opt_record letter = {nullptr, 'k', OPT_REQUIRED, nullptr, record_store, "K.", 0};
  const opt_record one = {"one", 0, OPT_REQUIRED, nullptr, nullptr, "", 0};
  const opt_record two = {"two", 0, OPT_REQUIRED, nullptr, nullptr, "", 0};
  const std::string name = "opt_parse: '--name' is required.";
  const std::string stock_help = kUsage + "Required Options:\n  -n,--name=ARG            N.\n";
  const std::string letter_help = kUsage + "Required Options:\n  -k ARG                   K.\n";
  run_cases({
      {{"-v"}, 127, "v=(null);", name + kServiceHelp},
      // the stock callbacks do not set seen: a present option still counts as missing
      {{"--name", "x"}, 127, "", name + stock_help + "Optional Options:\n" + kBuiltinHelp, false, {stock}},
      {{}, 127, "", "opt_parse: '-k' is required." + letter_help, true, {letter}},
      // only the first missing record is reported
      {{}, 127, "", "opt_parse: '--one' is required.Usage:", true, {one, two}},
  });
}

TEST(Options, NameClashes) {
  const opt_record files = {nullptr, 0, OPT_ARG, nullptr, record_store, "Files.", 0};
  const opt_record first = {"name", 'n', OPT_NOARG, nullptr, record_store, "First.", 0};
  const opt_record second = {"name", 'n', OPT_REQUIRED, nullptr, mark_seen, "Second.", 0};
  const opt_record hold = {"hold", 'h', OPT_NOARG, nullptr, record_store, "Hold.", 0};
  const opt_record own_help = {"help", 'e', OPT_NOARG, nullptr, record_store, "Own help.", 0};
  const std::string lost = "opt_parse: additional arguments is required." + kUsage +
                           "Required Options:\n  ...                      Second.\n";
  const std::string hold_help = kUsage +
                                "Optional Options:\n  -h,--hold                Hold.\n  --help               "
                                "    Display this message.\n";
  const std::string nameless_help =
      kUsage + "Optional Options:\n  ...                      Display this message.\n";
  run_cases({
      // The second "name" loses both names; after a real additional-arguments
      // record it is never seen, and is reported as missing.
      {{"-n", "f"}, 127, "name=(null);...=f;", lost, true, {files, first, second}},
      // Without a real one before it, the nameless record takes the arguments.
      {{"x", "y"}, 0, "...=x;...=y;rc=0", "", false, {first, second}},
      // A service option on 'h' keeps the letter; the help keeps its long name.
      {{"-h"}, 0, "hold=(null);rc=0", "", false, {hold}},
      {{"--help"}, 0, "", hold_help, false, {hold}},
      // Both names taken: the nameless built-in receives the additional
      // arguments and prints the help once per argument, without exiting.
      {{"--help", "a", "b"}, 0, "help=(null);rc=0", nameless_help + nameless_help, false, {hold, own_help}},
  });
}

TEST(Options, DuplicateLongNamesFirstWinsInTheCallersTable) {
  auto r = run_child([] {
    app_current = &g_app;
    opt_record t[] = {{"mode", 'a', OPT_ARG, nullptr, record_store, "A.", 0},
                      {"mode", 'b', OPT_ARG, nullptr, record_store, "B.", 0},
                      {nullptr, 'a', OPT_NOARG, nullptr, record_store, "C.", 0},
                      kEnd};
    char a0[] = "svc", a1[] = "--mode=1", a2[] = "-b", a3[] = "2";
    char *argv[] = {a0, a1, a2, a3, nullptr};
    optind = 0;
    int rc = opt_parse(4, argv, t);
    printf("rc=%d;%s;%d;%d", rc, t[1].long_name == nullptr ? "cleared" : t[1].long_name, t[1].short_name,
           t[2].short_name);
  });
  EXPECT_EQ(r.out, "mode=1;b=2;rc=0;cleared;98;0");
}

TEST(Options, StoreCallbacks) {
  struct {
    const char *arg;
    int32_t want;
  } ints[] = {{"42", 42}, {"-7", -7}, {"12abc", 12}, {"abc", 0}, {" 3", 3}, {nullptr, 99}};
  for (auto &c : ints) {
    int32_t v = 99;
    opt_store_int(nullptr, c.arg, &v);  // a bare optional option leaves the value alone
    EXPECT_EQ(v, c.want) << (c.arg ? c.arg : "(null)");
  }
  char *s = nullptr;
  opt_store_string(nullptr, "first", &s);
  char *kept = s;
  opt_store_string(nullptr, "second", &s);  // the earlier copy is not freed
  opt_store_string(nullptr, nullptr, &s);
  EXPECT_STREQ(kept, "first");
  EXPECT_STREQ(s, "second");
  free(kept);
  free(s);
  int32_t n = 0;
  opt_inc_int(nullptr, nullptr, &n);
  opt_inc_int(nullptr, "ignored", &n);
  EXPECT_EQ(n, 2);
  opt_store_int(nullptr, "1", nullptr);  // no destination: nothing happens
  opt_inc_int(nullptr, nullptr, nullptr);
}

}  // namespace
