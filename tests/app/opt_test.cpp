// Command-line options: parsing, name clashes, additional arguments, the
// required check and the help text. Every parse runs in a forked child, since
// getopt_long keeps global state and help and missing options exit.
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

app_desc g_app = {1, nullptr, 8, "svc", nullptr};

// A store callback that prints what it got: "<long or letter or ...>=<arg>;".
void record_store(opt_record *rec, const char *arg, void *) {
  const char letter[2] = {rec->short_name, 0}, *name = rec->short_name ? letter : "...";
  printf("%s=%s;", rec->long_name ? rec->long_name : name, arg ? arg : "(null)");
}

void mark_seen(opt_record *rec, const char *arg, void *dest) {
  record_store(rec, arg, dest);
  rec->seen = 1;
}

const std::vector<opt_record> kService = {
    {"name", 'n', OPT_REQUIRED, nullptr, mark_seen, "Service name.", 0},
    {"level", 'l', OPT_OPTARG, nullptr, record_store, "Level, optional value.", 0},
    {nullptr, 'x', OPT_ARG | 4u, nullptr, record_store, "Letter only; high type bits ignored.", 0},
    {"a-very-long-option-name", 0, OPT_OPTARG, nullptr, record_store, "Cut at 24.", 0},
    {nullptr, 0, OPT_ARG, nullptr, record_store, "Files.", 0},
};

const std::string kUsage = "Usage:\n  svc [OPTIONS] ...\n\n";
const std::string kServiceHelp = kUsage +
                                 "Required Options:\n  -n,--name=ARG            Service name.\n"
                                 "Optional Options:\n  -l,--level[=ARG]         Level, optional value.\n"
                                 "  -x ARG                   Letter only; high type bits ignored.\n"
                                 "  --a-very-long-optio[=ARG Cut at 24.\n"
                                 "  ...                      Files.\n"
                                 "  -h,--help                Display this message.\n";

struct Case {
  std::vector<std::string> args;
  int exit;
  std::string out, err;
  std::vector<opt_record> table = kService;
};

// Parses c.args with c.table plus the built-in help, merged as app_init does,
// in a child that prints "rc=N" after the parse.
void run_cases(const std::vector<Case> &cases) {
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::PrintToString(c.args));
    std::vector<opt_record> service = c.table;
    service.push_back({nullptr, 0, 0, nullptr, nullptr, nullptr, 0});
    opt_record builtin[2];
    kelo::app::builtin_options(builtin);
    opt_record *table = kelo::app::opt_merge(service.data(), builtin);
    auto r = kelo::test::run_child([&] {
      app_current = &g_app;
      std::vector<std::string> args = c.args;
      std::vector<char *> argv = {g_app.name};
      for (auto &a : args) argv.push_back(a.data());
      argv.push_back(nullptr);
      printf("rc=%d", opt_parse(static_cast<int>(argv.size() - 1), argv.data(), table));
    });
    free(table);
    EXPECT_TRUE(r.exited && r.exit_code == c.exit) << r.status;
    EXPECT_EQ(r.out, c.out);
    // An error text ending in "Usage:" is the start of the standard error.
    EXPECT_EQ(c.err.ends_with("Usage:") ? r.err.substr(0, c.err.size()) : r.err, c.err);
  }
}

TEST(Options, ParseHelpUnknownRequiredAndNameClashes) {
  const opt_record files = {nullptr, 0, OPT_ARG, nullptr, record_store, "Files.", 0};
  const opt_record first = {"name", 'n', OPT_NOARG, nullptr, record_store, "First.", 0};
  const opt_record second = {"name", 'n', OPT_REQUIRED, nullptr, mark_seen, "Second.", 0};
  const opt_record hold = {"hold", 'h', OPT_NOARG, nullptr, record_store, "Hold.", 0};
  const opt_record own_help = {"help", 'e', OPT_NOARG, nullptr, record_store, "Own help.", 0};
  const std::string nameless =
      kUsage + "Optional Options:\n  ...                      Display this message.\n";
  run_cases({
      // getopt permutes: the additional arguments come last, in order; "--" ends the options
      {{"a", "-n", "c", "--level=3", "-x", "9", "b", "--", "-l"},
       0,
       "name=c;level=3;x=9;...=a;...=b;...=-l;rc=0",
       ""},
      // an optional argument is attached or absent
      {{"-n", "c", "-l", "7", "--na=d"}, 0, "name=c;level=(null);name=d;...=7;rc=0", ""},
      // options after the help are not reached
      {{"-n", "x", "-h", "-l"}, 0, "name=x;", kServiceHelp},
      // the rest of the options, the additional arguments and the required check are skipped
      {{"-l", "--bogus", "-n", "3", "file"}, 0, "level=(null);rc=-2", "svc: unrecognized option '--bogus'\n"},
      {{"-l"}, 127, "level=(null);", "opt_parse: '--name' is required." + kServiceHelp},
      // The second "name" loses both names; after a real additional-arguments
      // record it is never seen, and is reported as missing.
      {{"-n", "f"},
       127,
       "name=(null);...=f;",
       "opt_parse: additional arguments is required.Usage:",
       {files, first, second}},
      // A service option on 'h' keeps the letter.
      {{"-h"}, 0, "hold=(null);rc=0", "", {hold}},
      // Both names taken: the nameless built-in receives the additional
      // arguments and prints the help once per argument, without exiting.
      {{"--help", "a", "b"}, 0, "help=(null);rc=0", nameless + nameless, {hold, own_help}},
  });
}

}  // namespace
