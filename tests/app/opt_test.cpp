// Command-line options: parsing, name clashes, additional arguments, the
// required check and the help text. Every parse runs in a forked child, since
// getopt_long keeps global state and help and missing options exit.
#include <errno.h>
#include <getopt.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "app/opt_internal.h"
#include "kelo/app.h"
#include "support/sandbox.h"

namespace {

using kelo::test::ChildResult;
using kelo::test::run_child;

app_desc g_app = {1, nullptr, 8, "svc", nullptr};

// A store callback that prints what it got: "<long or letter or ...>=<arg>".
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

// The service's table with the built-in help appended, as app_init builds it.
std::vector<opt_record> merged(std::vector<opt_record> service) {
  service.push_back(kEnd);
  opt_record builtin[2];
  kelo::app::builtin_options(builtin);
  opt_record *m = kelo::app::opt_merge(service.data(), builtin);
  std::vector<opt_record> out;
  for (size_t i = 0;; ++i) {
    out.push_back(m[i]);
    if (kelo::app::is_terminator(m[i])) break;
  }
  free(m);
  return out;
}

// Parses args (argv[0] is added) with table in a child; the child prints
// "rc=N" after the parse.
ChildResult parse(std::vector<opt_record> table, std::vector<std::string> args, bool with_app = true) {
  return run_child([&] {
    app_current = with_app ? &g_app : nullptr;
    std::vector<char *> argv;
    std::string prog = "svc";
    argv.push_back(prog.data());
    for (auto &a : args) argv.push_back(a.data());
    argv.push_back(nullptr);
    optind = 0;  // full re-initialisation of getopt
    int rc = opt_parse(static_cast<int>(args.size() + 1), argv.data(), table.data());
    printf("rc=%d", rc);
  });
}

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

const char kServiceHelp[] =
    "Usage:\n"
    "  svc [OPTIONS] ...\n"
    "\n"
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
    "  --ignored                \n"
    "  -h,--help                Display this message.\n";

TEST(Options, HelpTextExactAndExitZero) {
  for (const char *flag : {"-h", "--help"}) {
    auto r = parse(merged(kService), {"-n", "x", flag, "-v"});
    ASSERT_TRUE(r.exited) << flag;
    EXPECT_EQ(r.exit_code, 0) << flag;
    EXPECT_EQ(r.err, kServiceHelp) << flag;
    EXPECT_EQ(r.out, "name=x;") << flag;  // options after --help are not reached
  }
}

TEST(Options, EmptyTableStillKnowsHelp) {
  for (const char *flag : {"-h", "--help"}) {
    auto r = parse(merged({}), {flag});
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.err,
              "Usage:\n  svc [OPTIONS] ...\n\nOptional Options:\n"
              "  -h,--help                Display this message.\n");
  }
}

TEST(Options, HelpWithoutDescriptorUsesProgramName) {
  auto r = parse(merged({}), {"--help"}, /*with_app=*/false);
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.err.rfind(std::string("Usage:\n  ") + program_invocation_short_name + " [OPTIONS] ...\n", 0), 0u)
      << r.err;
}

TEST(Options, ParsesAndDelivers) {
  struct Case {
    std::vector<std::string> args;
    std::string out;
  } cases[] = {
      {{"-n", "cam", "-i", "5", "--level=3", "-v", "--only-long", "o", "-x", "9"},
       "name=cam;interval=5;level=3;v=(null);only-long=o;x=9;rc=0"},
      // optional argument: attached value, bare long name, attached letter, detached letter
      {{"-n", "c", "--level"}, "name=c;level=(null);rc=0"},
      {{"-n", "c", "-l7"}, "name=c;level=7;rc=0"},
      {{"-n", "c", "-l", "7"}, "name=c;level=(null);...=7;rc=0"},
      {{"--a-very-long-option-name=z", "-n", "c"}, "a-very-long-option-name=z;name=c;rc=0"},
      // getopt permutes: the files come last, in order; "--" ends the options
      {{"a", "-n", "c", "b", "--", "-v"}, "name=c;...=a;...=b;...=-v;rc=0"},
      // a record without store is accepted and ignored
      {{"--ignored", "-n", "c"}, "name=c;rc=0"},
      // the long name given by an unambiguous prefix
      {{"--inter=4", "--na", "c"}, "interval=4;name=c;rc=0"},
  };
  for (auto &c : cases) {
    auto r = parse(merged(kService), c.args);
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.out, c.out) << c.args[0];
    EXPECT_EQ(r.err, "") << c.args[0];
  }
}

TEST(Options, UnknownOptionOrMissingArgumentStopsEarly) {
  struct Case {
    std::vector<std::string> args;
    std::string out, err;
  } cases[] = {
      // remaining options, the files and the required check are all skipped
      {{"-v", "--bogus", "-i", "3", "file"}, "v=(null);rc=-2", "unrecognized option '--bogus'"},
      {{"-q", "-v"}, "rc=-2", "invalid option -- 'q'"},
      {{"-v", "-i"}, "v=(null);rc=-2", "option requires an argument -- 'i'"},
      {{"--interval"}, "rc=-2", "option '--interval' requires an argument"},
      {{"--ignored=1"}, "rc=-2", "doesn't allow an argument"},
  };
  for (auto &c : cases) {
    auto r = parse(merged(kService), c.args);
    EXPECT_EQ(r.exit_code, 0);
    EXPECT_EQ(r.out, c.out) << c.args[0];
    EXPECT_NE(r.err.find(c.err), std::string::npos) << r.err;
    EXPECT_EQ(r.err.find("Usage:"), std::string::npos) << r.err;
  }
}

TEST(Options, RequiredMessagesThenHelpAndExit127) {
  auto missing = parse(merged(kService), {"-v"});
  EXPECT_EQ(missing.exit_code, 127);
  EXPECT_EQ(missing.out, "v=(null);");
  EXPECT_EQ(missing.err, std::string("opt_parse: '--name' is required.") + kServiceHelp);

  // The stock callbacks do not set seen: a present option still counts as missing.
  char *dest = nullptr;
  auto stock = parse(merged({{"name", 'n', OPT_REQUIRED, &dest, opt_store_string, "N.", 0}}), {"--name", "x"});
  EXPECT_EQ(stock.exit_code, 127);
  EXPECT_EQ(stock.err.rfind("opt_parse: '--name' is required.Usage:\n", 0), 0u) << stock.err;

  auto letter = parse(merged({{nullptr, 'k', OPT_REQUIRED, nullptr, record_store, "K.", 0}}), {});
  EXPECT_EQ(letter.exit_code, 127);
  EXPECT_EQ(letter.err.rfind("opt_parse: '-k' is required.Usage:\n", 0), 0u) << letter.err;
  EXPECT_NE(letter.err.find("Required Options:\n  -k ARG                   K.\n"), std::string::npos);

  // Only the first required record missing is reported.
  auto first = parse(merged({{"one", 0, OPT_REQUIRED, nullptr, nullptr, "", 0},
                             {"two", 0, OPT_REQUIRED, nullptr, nullptr, "", 0}}),
                     {});
  EXPECT_EQ(first.err.rfind("opt_parse: '--one' is required.Usage:", 0), 0u) << first.err;
}

TEST(Options, RecordLosingBothNamesBecomesAdditionalArguments) {
  // The second "name" record loses its long name and its letter; it follows a
  // real additional-arguments record, so it is never seen and is reported.
  std::vector<opt_record> t = {
      {nullptr, 0, OPT_ARG, nullptr, record_store, "Files.", 0},
      {"name", 'n', OPT_NOARG, nullptr, record_store, "First.", 0},
      {"name", 'n', OPT_REQUIRED, nullptr, mark_seen, "Second.", 0},
  };
  auto r = parse(merged(t), {"-n", "f"});
  EXPECT_EQ(r.exit_code, 127);
  EXPECT_EQ(r.out, "name=(null);...=f;");
  EXPECT_EQ(r.err.rfind("opt_parse: additional arguments is required.Usage:\n", 0), 0u) << r.err;
  EXPECT_NE(r.err.find("Required Options:\n  ...                      Second.\n"), std::string::npos) << r.err;

  // Without a real one before it, the nameless record takes the arguments.
  auto alone = parse(merged({t[1], t[2]}), {"x", "y"});
  EXPECT_EQ(alone.exit_code, 0);
  EXPECT_EQ(alone.out, "...=x;...=y;rc=0");
}

TEST(Options, ServiceTableTakingHelpNames) {
  int32_t held = 0;
  std::vector<opt_record> t = {{"hold", 'h', OPT_NOARG, &held, record_store, "Hold.", 0}};
  auto letter = parse(merged(t), {"-h"});
  EXPECT_EQ(letter.exit_code, 0);
  EXPECT_EQ(letter.out, "hold=(null);rc=0");
  EXPECT_EQ(letter.err, "");

  auto help = parse(merged(t), {"--help"});
  EXPECT_EQ(help.exit_code, 0);
  EXPECT_EQ(help.err,
            "Usage:\n  svc [OPTIONS] ...\n\nOptional Options:\n"
            "  -h,--hold                Hold.\n"
            "  --help                   Display this message.\n");

  // Both names taken: the built-in record is nameless, so it receives the
  // remaining arguments and prints the help once per argument, without exiting.
  t.push_back({"help", 'e', OPT_NOARG, nullptr, record_store, "Own help.", 0});
  auto both = parse(merged(t), {"--help", "a", "b"});
  EXPECT_EQ(both.exit_code, 0);
  EXPECT_EQ(both.out, "help=(null);rc=0");
  const std::string one =
      "Usage:\n  svc [OPTIONS] ...\n\nOptional Options:\n  ...                      Display this message.\n";
  EXPECT_EQ(both.err, one + one);
}

TEST(Options, DuplicateLongNamesFirstWins) {
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
    // The losers' names are cleared in the table that was passed in.
    printf("rc=%d;%s;%d;%d", rc, t[1].long_name == nullptr ? "cleared" : t[1].long_name, t[1].short_name,
           t[2].short_name);
  });
  EXPECT_EQ(r.out, "mode=1;b=2;rc=0;cleared;98;0");
}

TEST(Options, StoreCallbacks) {
  struct Case {
    const char *arg;
    int32_t want;
  } ints[] = {{"42", 42}, {"-7", -7}, {"12abc", 12}, {"abc", 0}, {"", 0}, {" 3", 3}, {nullptr, 99}};
  for (auto &c : ints) {
    int32_t v = 99;
    opt_store_int(nullptr, c.arg, &v);  // a bare optional option leaves the value alone
    EXPECT_EQ(v, c.want) << (c.arg ? c.arg : "(null)");
  }
  char *s = nullptr;
  opt_store_string(nullptr, "first", &s);
  char *kept = s;
  opt_store_string(nullptr, "second", &s);  // the earlier copy is not freed
  EXPECT_STREQ(kept, "first");
  EXPECT_STREQ(s, "second");
  opt_store_string(nullptr, nullptr, &s);
  EXPECT_STREQ(s, "second");
  free(kept);
  free(s);

  int32_t n = 0;
  opt_inc_int(nullptr, nullptr, &n);
  opt_inc_int(nullptr, "ignored", &n);
  EXPECT_EQ(n, 2);
  opt_store_int(nullptr, "1", nullptr);
  opt_inc_int(nullptr, nullptr, nullptr);
}

TEST(Options, CountingVerbosityThroughParse) {
  auto r = run_child([] {
    app_current = &g_app;
    int32_t verbose = 0, interval = 1;
    opt_record t[] = {{"verbose", 'v', OPT_NOARG, &verbose, opt_inc_int, "V.", 0},
                      {"interval", 'i', OPT_OPTARG, &interval, opt_store_int, "I.", 0},
                      kEnd};
    char a0[] = "svc", a1[] = "-vvv", a2[] = "--verbose", a3[] = "--interval";
    char *argv[] = {a0, a1, a2, a3, nullptr};
    optind = 0;
    int rc = opt_parse(4, argv, t);
    printf("%d %d %d", rc, verbose, interval);
  });
  EXPECT_EQ(r.out, "0 4 1");
}

TEST(Options, MergeAppendsBuiltinAndTerminator) {
  opt_record builtin[2];
  kelo::app::builtin_options(builtin);
  EXPECT_STREQ(builtin[0].long_name, "help");
  EXPECT_EQ(builtin[0].short_name, 'h');
  EXPECT_EQ(builtin[0].type, static_cast<uint32_t>(OPT_NOARG));
  EXPECT_STREQ(builtin[0].help, "Display this message.");

  opt_record svc[] = {{"a", 0, 0, nullptr, nullptr, nullptr, 0},
                      {nullptr, 'b', 0, nullptr, nullptr, nullptr, 5},
                      kEnd,
                      {"after", 0, 0, nullptr, nullptr, nullptr, 0}};
  opt_record *m = kelo::app::opt_merge(svc, builtin);
  ASSERT_NE(m, nullptr);
  EXPECT_STREQ(m[0].long_name, "a");
  EXPECT_EQ(m[1].seen, 5);
  EXPECT_STREQ(m[2].long_name, "help");
  opt_record zero;
  memset(&zero, 0, sizeof zero);
  EXPECT_EQ(memcmp(&m[3], &zero, sizeof zero), 0);
  free(m);

  m = kelo::app::opt_merge(nullptr, builtin);
  ASSERT_NE(m, nullptr);
  EXPECT_STREQ(m[0].long_name, "help");
  EXPECT_TRUE(kelo::app::is_terminator(m[1]));
  free(m);
}

}  // namespace
