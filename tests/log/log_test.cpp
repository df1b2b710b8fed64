// The logging core: line format, start-up, handler counting, sinks and the
// device-wide system-log threshold.
// ctest-labels: threads
#include <errno.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdarg.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <functional>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "kelo/app.h"
#include "kelo/devinfo.h"
#include "kelo/file.h"
#include "kelo/log.h"
#include "kelo/net.h"
#include "kelo/otrpc.h"
#include "kelo/time.h"
#include "log/log_internal.h"
#include "otrpc/otconn.h"
#include "otrpc/otsocket.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"
#include "support/system_log.h"

namespace {

using kelo::test::run_child;
using kelo::test::Sandbox;

// KELO_LOG_FILE / KELO_LOG_LEVEL; nullptr unsets.
void env(const char *file, const char *level) {
  file ? setenv("KELO_LOG_FILE", file, 1) : unsetenv("KELO_LOG_FILE");
  level ? setenv("KELO_LOG_LEVEL", level, 1) : unsetenv("KELO_LOG_LEVEL");
}

void vp(void (*fn)(const char *, const char *, va_list), const char *prefix, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  fn(prefix, fmt, ap);
  va_end(ap);
}

// Each line as "[level] message" once its date and time are checked to be
// now in UTC. Only the head goes through the regex (long lines would exhaust
// its recursion).
std::string bodies(const std::string &text, time_t since) {
  static const std::regex header(R"(^(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d)\.\d{3} (\[[ a-z]{6,7}\] ))");
  std::string out;
  for (size_t pos = 0, nl; (nl = text.find('\n', pos)) != std::string::npos; pos = nl + 1) {
    std::string l = text.substr(pos, nl - pos), head = l.substr(0, 34);
    std::smatch m;
    struct tm tm = {};
    bool now = std::regex_search(head, m, header) && strptime(m[1].str().c_str(), "%F %T", &tm) &&
               timegm(&tm) >= since && timegm(&tm) <= time(nullptr);
    out += (now ? m[2].str() + l.substr(m.length(0)) : l) + "\n";
  }
  return out;
}

// Names, the prefix as part of the format, newlines, and lengths around the
// sizes where the sink stops formatting on the stack.
TEST(LogLine, Format) {
  Sandbox sb;
  time_t before = time(nullptr);
  auto r = run_child([] {
    setenv("TZ", "JST-9", 1);  // local time must not leak into the line
    tzset();
    env("-", "2147483647");  // level + 1 overflows: every level, no trap
    void (*const plain[])(const char *, ...) = {log_emerg,   log_alert,  log_crit, log_err,
                                                log_warning, log_notice, log_info, log_debug};
    for (int i = 0; i < 8; ++i) plain[i]("m%d", i);
    vp(log_vpinfo, "[%s:%d] ", "%s=%d", "cam", 7, "fps", 25);  // the prefix consumes the first arguments
    log_pnotice("pre: ", "ends in newline\n");
    log_err("two\nlines");
    vp(log_vpinfo, nullptr, "null prefix");
    for (size_t pre : {0, 300})
      for (size_t len : {988, 989, 990, 991, 70000})
        log_pinfo(std::string(pre, 'p').c_str(), "%s", std::string(len, 'm').c_str());
  });
  std::string want =
      "[ emerg] m0\n[ alert] m1\n[  crit] m2\n[   err] m3\n[  warn] m4\n[notice] m5\n[  info] m6\n"
      "[ debug] m7\n[  info] [cam:7] fps=25\n[notice] pre: ends in newline\n[   err] two\nlines\n"
      "[  info] null prefix\n";
  for (size_t pre : {0, 300})
    for (size_t len : {988, 989, 990, 991, 70000})
      want += "[  info] " + std::string(pre, 'p') + std::string(len, 'm') + "\n";
  EXPECT_TRUE(bodies(r.err, before) == want) << r.err.substr(0, 600);
}

// Threads that log first at once start logging once: every level's sink is
// acquired once per start (an unopenable log file says so at each acquisition).
TEST(LogStart, ThreadsLoggingFirstStartItOnce) {
  Sandbox sb;
  std::string path = sb.path("no-dir/svc.log");
  auto r = run_child([&] {
    env(path.c_str(), nullptr);
    for (int round = 0; round < 20; ++round) {
      std::atomic<int> ready{0};
      std::vector<std::thread> threads;
      for (int i = 0; i < 4; ++i)
        threads.emplace_back([&] {
          for (ready++; ready < 4;) continue;
          log_info("lost");
        });
      for (auto &t : threads) t.join();
      kelo::log::fini();  // not started again until the next log call
    }
  });
  std::string msg = "kelo_util: log: Fail to open \"" + path + "\": No such file or directory.\n", want;
  for (int i = 0; i < 20 * 8; ++i) want += msg;
  EXPECT_EQ(r.err, want);
}

// A handler that tells its story: "A" acquired, "R" released,
// "<level:prefix|message>" written.
log_handler g_telling = {[](log_handler *, int level, const char *prefix, const char *fmt, va_list ap) {
                           printf("<%d:%s|", level, prefix), vprintf(fmt, ap), printf(">");
                         },
                         [](log_handler *) { printf("R"); }, [](log_handler *) { printf("A"); }, nullptr};

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
    env("", "err");  // "" counts as unset: the system log, acquired once per level
    kelo::log::init();
    kelo::log::init();  // never drops to zero on a restart
    printf(" %d", kelo::log::syslog_handler.refs);
    kelo::log::fini();
    printf(" %d", kelo::log::syslog_handler.refs);
  });
  EXPECT_EQ(r.out, "AAAARRARA<4:|w1><2:p:|c2>RR<4:|kept>R 4 0");
  EXPECT_EQ(bodies(r.err, 0), "[ emerg] m0\n");
}

// A service handler may call any library function from its callbacks, the
// threshold setter and the log calls included: at the first start (its
// acquire starts logging, which replaces it), at app_init and at app_fini.
// A line logged meanwhile goes through the table as it stands.
TEST(LogHandler, CallbacksMayChangeTheThresholdAtStartAndFini) {
  Sandbox sb;
  auto r = run_child(
      [] {
        env("-", nullptr);
        static log_handler h = {nullptr,
                                [](log_handler *) {
                                  printf("R%d", log_set_syslog_level(3));
                                  log_emerg("from release");
                                },
                                [](log_handler *) { printf("A%d", log_set_syslog_level(5)); }, nullptr};
        static app_desc app = {};
        log_set_handler(0x01, &h);  // R0 (the start replaces it) before A0
        log_set_handler(0x01, &h);
        app_init(&app, 0, nullptr);
        log_set_handler(0x02, &h);
        app_init(&app, 0, nullptr);  // logging starts again: replaced
        log_set_handler(0x02, &h);
        app_fini();
        printf(" %d", kelo::log::syslog_threshold());
      },
      5);
  EXPECT_EQ(r.out, "R0A0A0R0A0R0A0R0 3") << "signal " << r.signal << r.err;
  // Only the release from level 1 finds a sink at level 0: from level 0 the
  // handler is still h itself (no write), and app_fini has emptied it first.
  EXPECT_EQ(bodies(r.err, 0), "[ emerg] from release\n");
}

// Failing calls that log, each first thing in a fresh process (so that its
// log call starts logging), with every sink: errno is what the same system
// call gives when made directly, and "%m" in the line is its text.
TEST(LogErrno, FailingCallsLeaveTheSystemsErrnoWithEverySink) {
  Sandbox sb;
  const std::string f_x = sb.path("f/x"), dir = sb.path("d"), shm = sb.path("shm"),
                    logfile = sb.path("svc.log");
  auto open_errno = [](const std::string &p, int flags) {
    int fd = open(p.c_str(), flags, 0644);
    return fd < 0 ? errno : (close(fd), 0);
  };
  struct Case {
    int want;                     // the errno the setup provokes
    long failed;                  // the library's result on failure
    std::function<long()> call;   // the library's failing call
    std::function<int()> direct;  // errno of the system call made directly
    bool quoted;                  // its line carries "%m" or strerror
  };
  const Case cases[] = {
      {ENOTDIR, -1,
       [&] {
         char b[16];
         return long(file_read_string(b, sizeof b, f_x.c_str()));
       },
       [&] { return open_errno(f_x, O_RDONLY); }, true},
      {EISDIR, -1,
       [&] {
         char b[16];
         return long(file_read_string(b, sizeof b, dir.c_str()));
       },
       [&] {
         char b[16];
         return read(open(dir.c_str(), O_RDONLY), b, sizeof b) < 0 ? errno : 0;
       },
       true},
      {ENOTDIR, -1, [&] { return long(file_write_string("1", f_x.c_str())); },
       [&] { return open_errno(f_x, O_WRONLY | O_CREAT); }, true},
      {EISDIR, -1, [&] { return long(file_write_string("1", dir.c_str())); },
       [&] { return open_errno(dir, O_WRONLY | O_CREAT); }, true},
      {EINVAL, -1, [] { return long(timer_start(timerfd_create(CLOCK_MONOTONIC, 0), -1500, 0)); },
       [] {
         struct itimerspec its = {{0, 0}, {-1, -500000000}};
         return timerfd_settime(timerfd_create(CLOCK_MONOTONIC, 0), 0, &its, nullptr) < 0 ? errno : 0;
       },
       true},
      {ENOTSOCK, -1, [] { return long(general_send_one(dup(2), "x", 1)); },
       [] { return send(2, "x", 1, MSG_DONTWAIT | MSG_NOSIGNAL) < 0 ? errno : 0; }, true},
      {ENOENT, 0,  // net_rssi reports 0 for "no reading"
       [&] {
         dev_get_info();  // the device record needs the wireless list; it does not log
         unlink(sb.wireless().c_str());
         return long(net_rssi());
       },
       [&] { return open_errno(sb.wireless(), O_RDONLY); }, true},
      {ENOENT, -1,
       [&] {
         rmdir(shm.c_str());
         return long(log_set_syslog_level(7));
       },
       [&] { return open_errno(sb.region("log-control"), O_RDWR | O_CREAT | O_EXCL); }, false},
      {EPIPE, -1,  // on the loop thread the failed send closes and reconnects at once
       [&] {
         kelo::test::FakeAgent agent(sb.agent_port());
         otrpc_init();
         otrpc_start();
         kelo::test::pump_until([] { return kelo::otrpc::otconn_get_state() == OTCONN_CONNECTED; }, 5);
         shutdown(kelo::otrpc::otsocket_fd(), SHUT_WR);
         json_object *m = otrpc_create_message("m");
         long rc = otrpc_send_immediate(m);
         return json_object_put(m), rc;
       },
       [] {
         int sv[2];
         socketpair(AF_UNIX, SOCK_STREAM, 0, sv);
         shutdown(sv[0], SHUT_WR);
         return send(sv[0], "x", 1, MSG_NOSIGNAL) < 0 ? errno : 0;
       },
       false},
  };
  for (const char *sink : {"", "-", logfile.c_str(), "/nonexistent/svc.log"})
    for (const Case &c : cases) {
      // A fresh tree: no regions, the wireless list back, no log file.
      for (const char *region : {"log-control", "devinfo"}) unlink(sb.region(region).c_str());
      mkdir(shm.c_str(), 0755);
      mkdir(dir.c_str(), 0755);
      sb.write_file("f", "x");
      sb.write_file("wireless",
                    kelo::test::kWirelessHeader + std::string(" wlan0: 0000   70.  -40.  -256\n"));
      unlink(logfile.c_str());
      auto r = run_child([&] {
        env(sink, nullptr);
        errno = 0;
        long rc = c.call();
        int got = errno;
        printf("%ld %d %d", rc, got, c.direct());
      });
      std::string where = std::string(strerrorname_np(c.want)) + " with sink \"" + sink + "\"";
      EXPECT_EQ(r.out, std::to_string(c.failed) + " " + std::to_string(c.want) + " " + std::to_string(c.want))
          << where << ": signal " << r.signal << ", " << r.err;
      std::string lines = sink == logfile ? kelo::test::slurp(logfile) : sink[0] == '-' ? r.err : "";
      EXPECT_TRUE(!c.quoted || lines.empty() || lines.find(strerror(c.want)) != std::string::npos)
          << where << lines;
    }
}

TEST(LogFile, AppendsWholeLinesAndIgnoresTheSystemLogThreshold) {
  Sandbox sb;
  sb.write_file("svc.log", "earlier\n");
  std::string path = sb.path("svc.log");
  auto r = run_child([&] {
    env(path.c_str(), "info");
    if (log_set_syslog_level(0) != 0) _exit(3);
    log_perr("cam0: ", "first");
    log_debug("not in the mask");
    std::vector<std::thread> threads;
    for (char k = 'a'; k < 'e'; ++k)
      threads.emplace_back([k] {
        for (int i = 0; i < 200; ++i) log_info("%s", std::string(300, k).c_str());
      });
    for (auto &t : threads) t.join();
    kelo::log::fini();     // closes the file
    log_info("reopened");  // lazy start again: a new handler, the file again
  });
  std::string got = bodies(sb.read_file("svc.log"), 0), line = "[  info] " + std::string(300, 'x') + "\n";
  ASSERT_EQ(r.err + std::to_string(got.size()), std::to_string(29 + 800 * line.size() + 18));  // no report
  EXPECT_EQ(got.substr(0, 29) + got.substr(got.size() - 18),
            "earlier\n[   err] cam0: first\n[  info] reopened\n");
  for (size_t pos = 29; pos < got.size() - 18; pos += line.size())
    ASSERT_EQ(got.substr(pos, line.size()), "[  info] " + std::string(300, got[pos + 9]) + "\n") << pos;
}

// The threshold one process sets is the one every other process reads; a
// process that could not map the region maps it at the next change, and one
// that may only read it cannot change it.
TEST(LogControl, ThresholdSharedByEveryProcess) {
  Sandbox sb;
  auto setter = run_child([&] {
    env("-", nullptr);
    rmdir(sb.path("shm").c_str());  // no directory: the region cannot be created
    printf("%d %d ", log_set_syslog_level(7), kelo::log::syslog_threshold());
    mkdir(sb.path("shm").c_str(), 0755);
    printf("%d", log_set_syslog_level(5));
  });
  EXPECT_EQ(setter.out, "-1 6 0");
  ASSERT_EQ(chmod(sb.region("log-control").c_str(), 0644), 0);
  if (geteuid() != 0) GTEST_SKIP() << "needs root to hand the region to an unprivileged user";
  auto reader = run_child([] {
    if (!kelo::test::drop_to_nobody()) _exit(10);
    errno = 0;
    int rc = log_set_syslog_level(-1);
    printf("%d %d ", rc, errno == EACCES || errno == EPERM);
    printf("%d", kelo::log::syslog_threshold());
  });
  EXPECT_EQ(reader.out, "-1 1 5") << "signal " << reader.signal;
}

}  // namespace
