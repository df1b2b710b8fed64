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

using kelo::test::ChildResult;
using kelo::test::run_child;
using kelo::test::Sandbox;

// KELO_LOG_FILE / KELO_LOG_LEVEL for a child; nullptr unsets.
struct Env {
  const char *file;
  const char *level;
};

void apply(const Env &e) {
  if (e.file)
    setenv("KELO_LOG_FILE", e.file, 1);
  else
    unsetenv("KELO_LOG_FILE");
  if (e.level)
    setenv("KELO_LOG_LEVEL", e.level, 1);
  else
    unsetenv("KELO_LOG_LEVEL");
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
  log_emerg("m%d", 0);
  log_alert("m%d", 1);
  log_crit("m%d", 2);
  log_err("m%d", 3);
  log_warning("m%d", 4);
  log_notice("m%d", 5);
  log_info("m%d", 6);
  log_debug("m%d", 7);
}

// Which "m<level>" messages made it into text, as a bit mask.
unsigned levels_seen(const std::string &text) {
  unsigned seen = 0;
  for (int i = 0; i < 8; ++i)
    if (text.find("] m" + std::to_string(i) + "\n") != std::string::npos) seen |= 1u << i;
  return seen;
}

// The v and vp shapes take any format: calls through them keep the printf
// checks of the plain shapes out of the way of prefixes with conversions.
void vp(void (*fn)(const char *, const char *, va_list), const char *prefix, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fn(prefix, fmt, ap);
  va_end(ap);
}

void handler_write(log_handler *h, int level, const char *prefix, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  h->write(h, level, prefix, fmt, ap);
  va_end(ap);
}

const std::regex kLine(R"(^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\.(\d{3}) \[([ a-z]{6,7})\] (.*)$)");

TEST(LogLine, EveryLevelHasItsDisplayNameRightAligned) {
  Sandbox sb;
  auto r = run_child([] {
    apply({"-", nullptr});
    log_every_level();
    // A level without a display name, straight through the stream handler.
    log_handler *h = kelo::log::stream_create(stderr);
    h->acquire(h);
    handler_write(h, 9, "", "m%d", 9);
  });
  ASSERT_TRUE(r.exited && r.exit_code == 0) << r.err;
  const char *expect[] = {" emerg", " alert", "  crit", "   err", "  warn",
                          "notice", "  info", " debug", "unknown"};
  const int nums[] = {0, 1, 2, 3, 4, 5, 6, 7, 9};
  auto ls = lines(r.err);
  ASSERT_EQ(ls.size(), 9u) << r.err;
  for (size_t i = 0; i < ls.size(); ++i) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(ls[i], m, kLine)) << ls[i];
    EXPECT_EQ(m[3].str(), expect[i]);
    EXPECT_EQ(m[4].str(), "m" + std::to_string(nums[i]));
  }
}

TEST(LogLine, TimeIsUtcWithMilliseconds) {
  Sandbox sb;
  time_t before = time(nullptr);
  auto r = run_child([] {
    setenv("TZ", "JST-9", 1);  // local time must not leak into the line
    tzset();
    apply({"-", nullptr});
    log_info("x");
  });
  time_t after = time(nullptr);
  std::smatch m;
  std::string line = lines(r.err).at(0);
  ASSERT_TRUE(std::regex_match(line, m, kLine)) << line;
  struct tm tm = {};
  ASSERT_NE(strptime(m[1].str().c_str(), "%Y-%m-%d %H:%M:%S", &tm), nullptr);
  time_t stamped = timegm(&tm);
  EXPECT_GE(stamped, before);
  EXPECT_LE(stamped, after);
  EXPECT_LT(std::stoi(m[2].str()), 1000);
}

TEST(LogLine, PrefixIsPartOfTheFormatAndNewlinesAreNotDoubled) {
  Sandbox sb;
  auto r = run_child([] {
    apply({"-", nullptr});
    vp(log_vpinfo, "[%s:%d] ", "%s=%d", "cam", 7, "fps", 25);  // the prefix consumes the first arguments
    vp(log_vpwarning, "", "plain %s", "v");
    log_pnotice("pre: ", "ends in newline\n");
    log_err("two\nlines");
    log_info("%s", "");
    vp(log_vpinfo, nullptr, "null prefix");
  });
  auto ls = lines(r.err);
  ASSERT_EQ(ls.size(), 7u) << r.err;
  std::smatch m;
  ASSERT_TRUE(std::regex_match(ls[0], m, kLine));
  EXPECT_EQ(m[4].str(), "[cam:7] fps=25");
  ASSERT_TRUE(std::regex_match(ls[1], m, kLine));
  EXPECT_EQ(m[4].str(), "plain v");
  ASSERT_TRUE(std::regex_match(ls[2], m, kLine));
  EXPECT_EQ(m[4].str(), "pre: ends in newline");
  ASSERT_TRUE(std::regex_match(ls[3], m, kLine));
  EXPECT_EQ(m[4].str(), "two");
  EXPECT_EQ(ls[4], "lines");
  ASSERT_TRUE(std::regex_match(ls[5], m, kLine));
  EXPECT_EQ(m[3].str(), "  info");
  EXPECT_EQ(m[4].str(), "");
  ASSERT_TRUE(std::regex_match(ls[6], m, kLine));
  EXPECT_EQ(m[4].str(), "null prefix");
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

// The start-up level decides which levels get the sink: bits 0..level.
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
      apply({"-", c.level});
      log_every_level();
    });
    EXPECT_EQ(levels_seen(r.err), c.mask) << (c.level ? c.level : "(unset)") << "\n" << r.err;
  }
}

TEST(LogLevel, InvalidOptionExits254WithTheNameList) {
  Sandbox sb;
  auto ok = run_child([] { printf("%d", kelo::log::level_option("Warning")); });
  EXPECT_EQ(ok.out, "4");
  auto r = run_child([] {
    static app_desc desc = {};
    strcpy(desc.name, "camd");
    app_current = &desc;
    kelo::log::level_option("loud");
  });
  EXPECT_EQ(r.exit_code, 254);
  EXPECT_EQ(
      r.err,
      "camd: Invalid log option 'loud'. \nAvailable log level: alert crit debug emerg err error info none "
      "notice panic warn warning\n");
  auto anon = run_child([] { kelo::log::level_option("-1"); });
  EXPECT_EQ(anon.exit_code, 254);
  EXPECT_EQ(anon.err.rfind("(null): Invalid log option '-1'. \n", 0), 0u) << anon.err;
}

struct Counting {
  log_handler base;
  int acquires, releases, writes;
  int last_level;
  std::string last;
};

void counting_write(log_handler *h, int level, const char *prefix, const char *fmt, va_list ap) {
  auto *c = reinterpret_cast<Counting *>(h);
  char buf[256];
  vsnprintf(buf, sizeof buf, fmt, ap);
  c->writes++;
  c->last_level = level;
  c->last = std::string(prefix) + "|" + buf;
}
void counting_acquire(log_handler *h) { reinterpret_cast<Counting *>(h)->acquires++; }
void counting_release(log_handler *h) { reinterpret_cast<Counting *>(h)->releases++; }

// Runs in a child: gtest assertions would not reach the parent, so the child
// reports the counters on stdout and the parent compares the whole story.
TEST(LogHandler, AcquireAndReleaseAreCountedPerLevel) {
  Sandbox sb;
  auto r = run_child([] {
    Counting c{{counting_write, counting_release, counting_acquire, nullptr}, 0, 0, 0, -1, {}};
    auto report = [&](const char *step) {
      printf("%s a%d r%d w%d\n", step, c.acquires, c.releases, c.writes);
    };
    apply({"-", "1"});
    log_set_handler(0x0f, &c.base);  // does not start logging
    report("set0-3");
    log_set_handler(0x03, nullptr);
    report("off0-1");
    log_set_handler(0x310, &c.base);  // bits above 7 are ignored
    report("set4");
    log_set_handler(0x10, &c.base);  // over itself: release, then acquire
    report("again4");
    log_warning("w%d", 1);  // first log call: stderr at 0..1 only
    log_pcrit("p:", "c%d", 2);
    log_emerg("m0");
    report("logged");
    printf("last %d %s\n", c.last_level, c.last.c_str());
    setenv("KELO_LOG_LEVEL", "3", 1);  // a second start takes over 0..3
    kelo::log::init();
    report("reinit");
    log_warning("kept");
    report("warn");
    kelo::log::fini();
    report("fini");
    log_handler nowrite{nullptr, nullptr, nullptr, nullptr};
    log_set_handler(0x80, &nowrite);
    log_debug("dropped");  // starts again over 0..3; level 7 has no write: silence
  });
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.out,
            "set0-3 a4 r0 w0\n"
            "off0-1 a4 r2 w0\n"
            "set4 a5 r2 w0\n"
            "again4 a6 r3 w0\n"
            "logged a6 r3 w2\n"
            "last 2 p:|c2\n"
            "reinit a6 r5 w2\n"
            "warn a6 r5 w3\n"
            "fini a6 r6 w3\n");
  EXPECT_EQ(levels_seen(r.err), 0x01u) << r.err;
}

TEST(LogHandler, SecondStartKeepsLevelsOutsideItsMask) {
  Sandbox sb;
  auto r = run_child([] {
    Counting c{{counting_write, counting_release, counting_acquire, nullptr}, 0, 0, 0, -1, {}};
    apply({"-", "2"});
    kelo::log::init();               // stderr at 0..2
    log_set_handler(0xf8, &c.base);  // ours at 3..7
    setenv("KELO_LOG_LEVEL", "4", 1);
    kelo::log::init();  // a new stderr handler at 0..4; 5..7 stay ours
    log_every_level();
    printf("a%d r%d w%d last%d\n", c.acquires, c.releases, c.writes, c.last_level);
  });
  EXPECT_EQ(r.out, "a5 r2 w3 last7\n");
  EXPECT_EQ(levels_seen(r.err), 0x1fu) << r.err;
}

TEST(LogHandler, SyslogSinkIsAcquiredOncePerLevelAndNeverDropsToZeroOnRestart) {
  Sandbox sb;
  auto r = run_child([] {
    apply({"", "err"});  // "" counts as unset: the system log
    kelo::log::init();
    printf("%d ", kelo::log::syslog_handler.refs);
    kelo::log::init();
    printf("%d ", kelo::log::syslog_handler.refs);
    kelo::log::fini();
    printf("%d", kelo::log::syslog_handler.refs);
  });
  EXPECT_EQ(r.out, "4 4 0");
}

TEST(LogFile, AppendsLinesAndIgnoresTheSystemLogThreshold) {
  Sandbox sb;
  sb.write_file("svc.log", "earlier\n");
  std::string path = sb.path("svc.log");
  auto r = run_child([&] {
    apply({path.c_str(), "info"});
    if (log_set_syslog_level(0) != 0) _exit(3);
    log_info("first %d", 1);
    log_perr("cam0: ", "second");
    log_debug("not in the mask");
    kelo::log::fini();     // closes the file
    log_info("reopened");  // lazy start again: a new handler, the file again
  });
  ASSERT_EQ(r.exit_code, 0) << r.err;
  EXPECT_EQ(r.err, "");
  auto ls = lines(sb.read_file("svc.log"));
  ASSERT_EQ(ls.size(), 4u);
  EXPECT_EQ(ls[0], "earlier");
  std::smatch m;
  ASSERT_TRUE(std::regex_match(ls[1], m, kLine));
  EXPECT_EQ(m[3].str() + "|" + m[4].str(), "  info|first 1");
  ASSERT_TRUE(std::regex_match(ls[2], m, kLine));
  EXPECT_EQ(m[3].str() + "|" + m[4].str(), "   err|cam0: second");
  ASSERT_TRUE(std::regex_match(ls[3], m, kLine));
  EXPECT_EQ(m[4].str(), "reopened");
}

TEST(LogFile, UnopenableFileComplainsOncePerAcquisitionAndDropsLines) {
  Sandbox sb;
  std::string path = sb.path("missing-dir/svc.log");
  auto r = run_child([&] {
    apply({path.c_str(), "2"});  // three levels: three acquisitions
    log_crit("lost");
    log_handler *h = log_file_create(path.c_str());
    log_set_handler(0x80, h);  // one more acquisition, one more try
    log_debug("lost too");
  });
  ASSERT_EQ(r.exit_code, 0);
  EXPECT_EQ(log_file_create(nullptr), nullptr);
  std::string msg = "kelo_util: log: Fail to open \"" + path + "\": No such file or directory.\n";
  EXPECT_EQ(r.err, msg + msg + msg + msg);
}

TEST(LogFile, ConcurrentLinesNeverInterleave) {
  Sandbox sb;
  std::string path = sb.path("t.log");
  auto r = run_child([&] {
    apply({path.c_str(), nullptr});
    log_info("start");
    std::vector<std::thread> threads;
    for (int k = 0; k < 4; ++k)
      threads.emplace_back([k] {
        std::string body(300, static_cast<char>('a' + k));
        for (int i = 0; i < 200; ++i) log_info("%s", body.c_str());
      });
    for (auto &t : threads) t.join();
  });
  ASSERT_EQ(r.exit_code, 0);
  auto ls = lines(sb.read_file("t.log"));
  ASSERT_EQ(ls.size(), 801u);
  std::smatch m;
  for (size_t i = 1; i < ls.size(); ++i) {
    ASSERT_TRUE(std::regex_match(ls[i], m, kLine)) << ls[i];
    ASSERT_EQ(m[4].str(), std::string(300, m[4].str()[0]));
  }
}

TEST(LogControl, ThresholdSetByOneProcessIsSeenByAnother) {
  Sandbox sb;
  auto first = run_child([] {
    apply({"-", nullptr});
    log_info("x");  // lazy start creates the region
    printf("%d", kelo::log::control() ? kelo::log::control()->syslog_level : -1);
  });
  EXPECT_EQ(first.out, "6");
  EXPECT_EQ(kelo::test::slurp(sb.region("log-control")).size(), sizeof(kelo::log::Control));
  auto setter = run_child([] {
    apply({"-", nullptr});
    printf("%d", log_set_syslog_level(7));  // starts logging itself
  });
  EXPECT_EQ(setter.out, "0");
  auto reader = run_child([] {
    apply({"-", nullptr});
    log_info("x");
    printf("%d", kelo::log::control()->syslog_level);
  });
  EXPECT_EQ(reader.out, "7");
}

// Through a private /dev/log: what the system log actually receives.
TEST(LogSyslog, IdentFacilityThresholdAndReopen) {
  Sandbox sb;
  auto cap = kelo::test::capture_syslog([] {
    static app_desc desc = {};
    strcpy(desc.name, "camd");
    desc.facility = LOG_DAEMON;
    app_current = &desc;
    apply({nullptr, nullptr});
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
  ASSERT_EQ(cap.messages.size(), 6u);
  struct Want {
    int pri;
    const char *ident, *text;
  } want[] = {
      {LOG_DAEMON | 6, "camd", "hello 1"},      {LOG_DAEMON | 4, "camd", "pre: x2"},
      {LOG_DAEMON | 5, "camd", "no prefix"},    {LOG_DAEMON | 7, "camd", "shown at 7"},
      {LOG_DAEMON | 6, "camd", "old facility"}, {LOG_LOCAL0 | 3, "renamed", "new ident"},
  };
  for (size_t i = 0; i < 6; ++i) {
    const std::string &d = cap.messages[i];
    EXPECT_EQ(kelo::test::syslog_priority(d), want[i].pri) << d;
    EXPECT_EQ(kelo::test::syslog_ident(d), want[i].ident) << d;
    EXPECT_EQ(kelo::test::syslog_text(d), want[i].text) << d;
  }
}

TEST(LogFacility, WithoutDescriptorIsHarmless) {
  auto r = run_child([] {
    app_current = nullptr;
    log_set_facility(LOG_LOCAL3);
    printf("%d ", log_get_facility());
    static app_desc desc = {};
    app_current = &desc;
    log_set_facility(LOG_LOCAL3);
    printf("%d %d", log_get_facility(), desc.facility);
  });
  EXPECT_EQ(r.out, "0 152 152");
}

}  // namespace

namespace {

TEST(LogControl, SetSyslogLevelMapsTheRegionOnceItCanBeMade) {
  Sandbox sb;
  std::string shm = sb.path("shm");
  auto r = run_child([&] {
    apply({"-", nullptr});
    rmdir(shm.c_str());  // no directory: the region cannot be created
    log_info("no region");
    printf("%d ", kelo::log::control() == nullptr);
    printf("%d ", log_set_syslog_level(7));
    mkdir(shm.c_str(), 0755);
    printf("%d ", log_set_syslog_level(7));
    printf("%d", kelo::log::control() ? kelo::log::control()->syslog_level : -100);
  });
  EXPECT_EQ(r.out, "1 -1 0 7");
  EXPECT_NE(r.err.find("] no region\n"), std::string::npos);
}

}  // namespace

namespace {

// Lines of every length come out whole, with exactly one newline: around
// the sizes where the sink stops formatting on the stack.
TEST(LogLine, LongPrefixesAndMessagesComeOutWhole) {
  Sandbox sb;
  const size_t header = std::string("2026-01-01 00:00:00.000 [  info] ").size();
  std::vector<std::string> prefixes = {"", std::string(300, 'p')};
  std::vector<size_t> sizes = {0, 1, 988, 989, 990, 991, 2000, 70000};
  auto r = run_child([&] {
    apply({"-", nullptr});
    for (const auto &pre : prefixes)
      for (size_t len : sizes)
        for (bool nl : {false, true}) {
          std::string msg(len, 'm');
          if (nl) msg += '\n';
          log_pinfo(pre.c_str(), "%s", msg.c_str());
        }
  });
  ASSERT_EQ(r.exit_code, 0);
  auto ls = lines(r.err);
  ASSERT_EQ(ls.size(), prefixes.size() * sizes.size() * 2);
  size_t i = 0;
  for (const auto &pre : prefixes)
    for (size_t len : sizes)
      for (int nl = 0; nl < 2; ++nl, ++i) {
        ASSERT_EQ(ls[i].size(), header + pre.size() + len) << "prefix " << pre.size() << " len " << len;
        EXPECT_EQ(ls[i].substr(header), pre + std::string(len, 'm'));
      }
  EXPECT_EQ(r.err.find("\n\n"), std::string::npos);
}

}  // namespace
