// The logging core: line format, levels, masks, handler counting, sinks and
// the device-wide system-log threshold.
// ctest-labels: threads
#include <gtest/gtest.h>
#include <stdarg.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <syslog.h>
#include <time.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "kelo/app.h"
#include "kelo/log.h"
#include "log/log_internal.h"
#include "support/sandbox.h"
#include "support/system_log.h"

namespace {

using kelo::test::run_child;
using kelo::test::Sandbox;

// KELO_LOG_FILE / KELO_LOG_LEVEL for a child; nullptr unsets.
void env(const char *file, const char *level) {
  file ? setenv("KELO_LOG_FILE", file, 1) : unsetenv("KELO_LOG_FILE");
  level ? setenv("KELO_LOG_LEVEL", level, 1) : unsetenv("KELO_LOG_LEVEL");
}

std::vector<std::string> lines(const std::string &s) {
  std::vector<std::string> out;
  size_t pos = 0;
  for (size_t nl; (nl = s.find('\n', pos)) != std::string::npos; pos = nl + 1)
    out.push_back(s.substr(pos, nl - pos));
  if (pos < s.size()) out.push_back(s.substr(pos));
  return out;
}

// One call per level through the plain shape, "m<level>" as the message.
void log_every_level() {
  void (*const plain[])(const char *, ...) = {log_emerg,   log_alert,  log_crit, log_err,
                                              log_warning, log_notice, log_info, log_debug};
  for (int i = 0; i < 8; ++i) plain[i]("m%d", i);
}

// Which "m<level>" messages made it into text, as a bit mask.
unsigned levels_seen(const std::string &text) {
  unsigned seen = 0;
  for (int i = 0; i < 8; ++i)
    if (text.find("] m" + std::to_string(i) + "\n") != std::string::npos) seen |= 1u << i;
  return seen;
}

// The v and vp shapes and a handler's write, with any format and prefix.
void vp(void (*fn)(const char *, const char *, va_list), const char *prefix, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fn(prefix, fmt, ap);
  va_end(ap);
}
void handler_write(log_handler *h, int level, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  h->write(h, level, "", fmt, ap);
  va_end(ap);
}

const std::regex kHeader(R"(^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\.\d{3} (\[[ a-z]{6,7}\] ))");

// Each line as "[level] message" (date and time checked), or as it is
// without them. The header alone goes through the regex: long lines would
// exhaust its recursion.
std::vector<std::string> bodies(const std::string &text) {
  std::vector<std::string> out;
  for (const auto &l : lines(text)) {
    std::smatch m;
    std::string head = l.substr(0, 34);
    out.push_back(std::regex_search(head, m, kHeader) ? m[2].str() + l.substr(m.length(0)) : l);
  }
  return out;
}

TEST(LogLine, LevelNamesUtcTimePrefixesAndNewlines) {
  Sandbox sb;
  time_t before = time(nullptr);
  auto r = run_child([] {
    setenv("TZ", "JST-9", 1);  // local time must not leak into the line
    tzset();
    env("-", nullptr);
    log_every_level();
    log_handler *h = kelo::log::stream_create(stderr);  // a level without a display name
    h->acquire(h);
    handler_write(h, 9, "m%d", 9);
    vp(log_vpinfo, "[%s:%d] ", "%s=%d", "cam", 7, "fps", 25);  // the prefix consumes the first arguments
    vp(log_vpwarning, "", "plain %s", "v");
    log_pnotice("pre: ", "ends in newline\n");
    log_err("two\nlines");
    log_info("%s", "");
    vp(log_vpinfo, nullptr, "null prefix");
  });
  std::vector<std::string> want = {
      "[ emerg] m0",      "[ alert] m1",
      "[  crit] m2",      "[   err] m3",
      "[  warn] m4",      "[notice] m5",
      "[  info] m6",      "[ debug] m7",
      "[unknown] m9",     "[  info] [cam:7] fps=25",
      "[  warn] plain v", "[notice] pre: ends in newline",
      "[   err] two",     "lines",
      "[  info] ",        "[  info] null prefix",
  };
  EXPECT_EQ(bodies(r.err), want) << r.err;
  EXPECT_EQ(r.err.find("\n\n"), std::string::npos);
  std::smatch m;
  std::string first = lines(r.err).at(0);
  ASSERT_TRUE(std::regex_search(first, m, kHeader));
  struct tm tm = {};
  ASSERT_NE(strptime(m[1].str().c_str(), "%Y-%m-%d %H:%M:%S", &tm), nullptr);
  EXPECT_GE(timegm(&tm), before);
  EXPECT_LE(timegm(&tm), time(nullptr));
}

// Around the sizes where the sink stops formatting on the stack.
TEST(LogLine, LongPrefixesAndMessagesComeOutWhole) {
  static const size_t kPrefixes[] = {0, 300}, kLengths[] = {0, 1, 988, 989, 990, 991, 2000, 70000};
  Sandbox sb;
  auto r = run_child([] {
    env("-", nullptr);
    for (size_t pre : kPrefixes)
      for (size_t len : kLengths)
        for (const char *nl : {"", "\n"})
          log_pinfo(std::string(pre, 'p').c_str(), "%s%s", std::string(len, 'm').c_str(), nl);
  });
  std::vector<std::string> want;
  for (size_t pre : kPrefixes)
    for (size_t len : kLengths)
      want.insert(want.end(), 2, "[  info] " + std::string(pre, 'p') + std::string(len, 'm'));
  EXPECT_TRUE(bodies(r.err) == want);  // not printed: 70 kB lines
  EXPECT_EQ(r.err.find("\n\n"), std::string::npos);
}

TEST(LogLevel, ParseNamesAndNumbers) {
  struct Case {
    const char *text;
    int want;
  } cases[] = {
      {"err", 3},      {"ERR", 3},  {"eRr", 3},     {"error", 3},  {"emerg", 0}, {"panic", 0}, {"alert", 1},
      {"crit", 2},     {"warn", 4}, {"WARNING", 4}, {"notice", 5}, {"info", 6},  {"debug", 7}, {"none", 16},
      {"0x5", 5},      {"016", 14}, {"9", 9},       {"-3", -3},    {"7abc", 7},  {" 4", 4},    {"0", 0},
      {"garbage", -1}, {"", -1},    {"errx", -1},   {"0x", 0},     {"-", -1},
  };
  for (const auto &c : cases) EXPECT_EQ(kelo::log::level_parse(c.text), c.want) << '"' << c.text << '"';
}

// The start-up level decides which levels get the sink: bits 0..level, all
// of them for anything unset, unknown or out of 0..7.
TEST(LogLevel, StartupMaskFromEnvironment) {
  struct Case {
    const char *level;
    unsigned mask;
  } cases[] = {
      {nullptr, 0xff}, {"", 0xff},    {"garbage", 0xff}, {"-3", 0xff},         {"err", 0x0f},
      {"Err", 0x0f},   {"0x5", 0x3f}, {"0", 0x01},       {"6", 0x7f},          {"none", 0xff},
      {"016", 0xff},   {"31", 0xff},  {"32", 0xff},      {"2147483647", 0xff},
  };
  Sandbox sb;
  for (const auto &c : cases) {
    auto r = run_child([&] {
      env("-", c.level);
      log_every_level();
    });
    EXPECT_EQ(levels_seen(r.err), c.mask) << (c.level ? c.level : "(unset)") << "\n" << r.err;
  }
}

TEST(LogLevel, InvalidOptionExits254WithTheNameList) {
  EXPECT_EQ(run_child([] { printf("%d", kelo::log::level_option("Warning")); }).out, "4");
  for (bool named : {true, false}) {
    auto r = run_child([named] {
      static app_desc desc = {};
      strcpy(desc.name, "camd");
      app_current = named ? &desc : nullptr;
      kelo::log::level_option(named ? "loud" : "-1");
    });
    EXPECT_EQ(r.exit_code, 254);
    EXPECT_EQ(r.err,
              std::string(named ? "camd: Invalid log option 'loud'. " : "(null): Invalid log option '-1'. ") +
                  "\nAvailable log level: alert crit debug emerg err error info none notice panic warn "
                  "warning\n");
  }
}

// A handler that tells its story on stdout: "A" acquired, "R" released,
// "<level:prefix|message>" written.
void tell_write(log_handler *, int level, const char *prefix, const char *fmt, va_list ap) {
  printf("<%d:%s|", level, prefix);
  vprintf(fmt, ap);
  printf(">");
}
void tell_acquire(log_handler *) { printf("A"); }
void tell_release(log_handler *) { printf("R"); }
log_handler g_telling = {tell_write, tell_release, tell_acquire, nullptr};

TEST(LogHandler, AcquireAndReleaseAreCountedPerLevel) {
  Sandbox sb;
  auto r = run_child([] {
    env("-", "1");
    log_set_handler(0x0f, &g_telling);  // does not start logging
    log_set_handler(0x03, nullptr);
    log_set_handler(0x310, &g_telling);  // bits above 7 are ignored
    log_set_handler(0x10, &g_telling);   // over itself: release, then acquire
    log_warning("w%d", 1);               // first log call: stderr at 0..1 only
    log_pcrit("p:", "c%d", 2);
    log_emerg("m0");
    setenv("KELO_LOG_LEVEL", "3", 1);  // a second start takes over 0..3
    kelo::log::init();
    log_warning("kept");
    kelo::log::fini();
    log_handler nowrite{nullptr, nullptr, nullptr, nullptr};
    log_set_handler(0x80, &nowrite);
    log_debug("dropped");  // starts again over 0..3; level 7 has no write: silence
  });
  EXPECT_EQ(r.out, "AAAARRARA<4:|w1><2:p:|c2>RR<4:|kept>R");
  EXPECT_EQ(levels_seen(r.err), 0x01u) << r.err;

  auto second = run_child([] {
    env("-", "2");
    kelo::log::init();                  // stderr at 0..2
    log_set_handler(0xf8, &g_telling);  // ours at 3..7
    setenv("KELO_LOG_LEVEL", "4", 1);
    kelo::log::init();  // a new stderr handler at 0..4; 5..7 stay ours
    log_every_level();
    env("", "err");  // "" counts as unset: the system log, acquired once per level
    kelo::log::init();
    printf(" %d", kelo::log::syslog_handler.refs);
    kelo::log::init();  // never drops to zero on a restart
    printf(" %d", kelo::log::syslog_handler.refs);
    kelo::log::fini();  // every level released, ours too
    printf(" %d", kelo::log::syslog_handler.refs);
  });
  EXPECT_EQ(second.out, "AAAAARR<5:|m5><6:|m6><7:|m7> 4 4RRR 0");
  EXPECT_EQ(levels_seen(second.err), 0x1fu) << second.err;
}

TEST(LogFile, AppendsLinesAndIgnoresTheSystemLogThreshold) {
  Sandbox sb;
  sb.write_file("svc.log", "earlier\n");
  std::string path = sb.path("svc.log");
  auto r = run_child([&] {
    env(path.c_str(), "info");
    if (log_set_syslog_level(0) != 0) _exit(3);
    log_info("first %d", 1);
    log_perr("cam0: ", "second");
    log_debug("not in the mask");
    kelo::log::fini();     // closes the file
    log_info("reopened");  // lazy start again: a new handler, the file again
  });
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(r.err, "");
  std::vector<std::string> want = {"earlier", "[  info] first 1", "[   err] cam0: second",
                                   "[  info] reopened"};
  EXPECT_EQ(bodies(sb.read_file("svc.log")), want);
}

TEST(LogFile, UnopenableFileComplainsOncePerAcquisitionAndDropsLines) {
  Sandbox sb;
  std::string path = sb.path("missing-dir/svc.log");
  auto r = run_child([&] {
    env(path.c_str(), "2");  // three levels: three acquisitions
    log_crit("lost");
    log_set_handler(0x80, log_file_create(path.c_str()));  // one more acquisition, one more try
    log_debug("lost too");
  });
  EXPECT_EQ(r.exit_code, 0);
  EXPECT_EQ(log_file_create(nullptr), nullptr);
  std::string msg = "kelo_util: log: Fail to open \"" + path + "\": No such file or directory.\n";
  EXPECT_EQ(r.err, msg + msg + msg + msg);
}

TEST(LogFile, ConcurrentLinesNeverInterleave) {
  Sandbox sb;
  std::string path = sb.path("t.log");
  auto r = run_child([&] {
    env(path.c_str(), nullptr);
    log_info("start");
    std::vector<std::thread> threads;
    for (char k = 'a'; k < 'e'; ++k)
      threads.emplace_back([k] {
        for (int i = 0; i < 200; ++i) log_info("%s", std::string(300, k).c_str());
      });
    for (auto &t : threads) t.join();
  });
  auto got = bodies(sb.read_file("t.log"));
  ASSERT_EQ(got.size(), 801u);
  for (size_t i = 1; i < got.size(); ++i)
    ASSERT_EQ(got[i], "[  info] " + std::string(300, got[i].back())) << i;
}

TEST(LogControl, ThresholdSetByOneProcessIsSeenByAnother) {
  Sandbox sb;
  std::string shm = sb.path("shm");
  auto level = [] { return kelo::log::control() ? kelo::log::control()->syslog_level : -100; };
  auto first = run_child([&] {
    env("-", nullptr);
    rmdir(shm.c_str());  // no directory: the region cannot be created
    log_info("no region");
    printf("%d ", level());
    printf("%d ", log_set_syslog_level(7));
    mkdir(shm.c_str(), 0755);
    printf("%d ", log_set_syslog_level(7));  // maps the region now that it can be made
    printf("%d", level());
  });
  EXPECT_EQ(first.out, "-100 -1 0 7");
  EXPECT_NE(first.err.find("] no region\n"), std::string::npos);
  EXPECT_EQ(kelo::test::slurp(sb.region("log-control")).size(), sizeof(kelo::log::Control));
  auto setter = run_child([] {
    env("-", nullptr);
    printf("%d", log_set_syslog_level(5));  // starts logging itself
  });
  EXPECT_EQ(setter.out, "0");
  auto reader = run_child([&] {
    env("-", nullptr);
    log_info("x");
    printf("%d", level());
  });
  EXPECT_EQ(reader.out, "5");
}

// Through a private /dev/log: what the system log actually receives.
TEST(LogSyslog, IdentFacilityThresholdAndReopen) {
  Sandbox sb;
  auto cap = kelo::test::capture_syslog([] {
    static app_desc desc = {};
    app_current = nullptr;
    log_set_facility(LOG_LOCAL3);  // without a descriptor: harmless
    fprintf(stderr, "%d ", log_get_facility());
    strcpy(desc.name, "camd");
    app_current = &desc;
    log_set_facility(LOG_DAEMON);
    fprintf(stderr, "%d %d", log_get_facility(), desc.facility);
    env(nullptr, nullptr);
    log_debug("dropped at 6");
    log_info("hello %d", 1);
    vp(log_vpwarning, "%s: ", "x%d", "pre", 2);
    vp(log_vpnotice, nullptr, "no prefix");
    pid_t p = fork();
    if (p == 0) _exit(log_set_syslog_level(7) == 0 ? 0 : 1);  // another process
    waitpid(p, nullptr, 0);
    log_debug("shown at 7");
    log_set_facility(LOG_LOCAL0);
    kelo::log::init();  // the count never reaches 0: the first opening stays
    log_info("old facility");
    kelo::log::fini();             // closelog
    strcpy(desc.name, "renamed");  // syslog keeps the ident pointer: rename only while closed
    kelo::log::init();             // openlog with the new name and facility
    log_err("new ident");
    log_set_syslog_level(-1);
    log_emerg("below every level");
  });
  if (!cap.available) GTEST_SKIP() << "no private /dev/log: " << cap.why;
  ASSERT_EQ(cap.exit_code, 0) << cap.err;
  EXPECT_EQ(cap.err, "0 24 24");
  std::vector<std::string> got,
      want = {"30 camd: hello 1",    "28 camd: pre: x2",      "29 camd: no prefix",
              "31 camd: shown at 7", "30 camd: old facility", "131 renamed: new ident"};
  for (auto &m : cap.messages) got.push_back(std::to_string(m.priority) + " " + m.ident + ": " + m.text);
  EXPECT_EQ(got, want);  // LOG_DAEMON is 24, LOG_LOCAL0 128
}

}  // namespace
