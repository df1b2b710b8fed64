// The logging core: level table, handler table, stock sinks and the line format.
#include "log/log_internal.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <time.h>

#include <atomic>
#include <new>

#include "common/free_ptr.h"
#include "common/mutex_lock.h"
#include "common/shm_region.h"
#include "kelo/app.h"

namespace kelo::log {
namespace {

struct LevelName {
  const char *name;
  int value;
};

// The system's priority-name table, searched in this order; the first name of
// a value is its display name.
constexpr LevelName kLevelNames[] = {
    {"alert", 1}, {"crit", 2},  {"debug", 7},  {"emerg", 0}, {"err", 3},  {"error", 3},
    {"info", 6},  {"none", 16}, {"notice", 5}, {"panic", 0}, {"warn", 4}, {"warning", 4},
};

constexpr int kDefaultSyslogLevel = 6;

// The start gate: one thread at a time starts or stops logging (the lazy
// start, log_init, log_fini); the others wait for it. The owner runs the
// handlers' callbacks with no lock held (the gate's own mutex is held only
// while its state changes), so a callback may call back into logging: on the
// owner's thread the gate is passed through (see t_gate_owner).
constinit thread_local bool t_gate_owner = false;

class CAPABILITY("start gate") StartGate {
 public:
  // Becomes the owner, waiting while another thread is; whether logging was
  // on at that moment.
  bool enter() ACQUIRE() {
    MutexLock lock(&mu_);
    while (state_.load(std::memory_order_relaxed) == kBusy) {
      ++waiters_;
      mu_.wait(&cv_);
      --waiters_;
    }
    bool on = state_.load(std::memory_order_relaxed) == kOn;
    state_.store(kBusy, std::memory_order_relaxed);
    t_gate_owner = true;
    return on;
  }
  // Publishes the result: whatever the start installed is seen whole by a
  // thread that then sees logging on (release here, acquire in is_on).
  void leave(bool on) RELEASE() {
    t_gate_owner = false;
    MutexLock lock(&mu_);
    state_.store(on ? kOn : kOff, std::memory_order_release);
    // Nobody waiting is the rule (the start runs once, on the main thread):
    // then the wake-up is skipped, and with it a call every process would
    // make at start for nothing.
    if (waiters_ != 0) pthread_cond_broadcast(&cv_);
  }
  // A callback run by the owner re-enters: the gate is this thread's already.
  // The analysis cannot see ownership through the handler's function pointer.
  void assert_owned() ASSERT_CAPABILITY(this) {}
  bool is_on() const { return state_.load(std::memory_order_acquire) == kOn; }

 private:
  enum : int { kOff, kBusy, kOn };
  std::atomic<int> state_{kOff};
  Mutex mu_;
  int waiters_ GUARDED_BY(mu_) = 0;
  pthread_cond_t cv_ = PTHREAD_COND_INITIALIZER;
};

constinit StartGate g_gate;

// One pointer per level, NULL = level off. Stored with release and loaded
// with acquire: a thread that finds a handler here sees it fully built (the
// sinks a start creates are filled in on another thread), also on ARM.
constinit std::atomic<log_handler *> g_handlers[8] = {};

// The region is mapped once, under g_map_lock (never held around a callback).
constinit Mutex g_map_lock;
constinit std::atomic<Control *> g_control{nullptr};
constinit bool g_control_writable GUARDED_BY(g_map_lock) = false;
// Every sink that a start-up created. They are never freed: a thread that
// read the table just before a restart may still be writing through one.
// The list only keeps them reachable (leak checkers see no loss).
constinit FileHandler *g_startup_sinks GUARDED_BY(g_gate) = nullptr;

// The threshold word is shared with other processes and read without lock.
int load_threshold(const Control *c) {
  return std::atomic_ref<const int32_t>(c->syslog_level).load(std::memory_order_relaxed);
}

// Maps the region if it is not mapped yet; the mapping, or NULL with errno
// from the failed open.
Control *map_control(bool *writable) EXCLUDES(g_map_lock) {
  MutexLock lock(&g_map_lock);
  Control *c = g_control.load(std::memory_order_relaxed);
  if (c == nullptr) {
    bool w = false;
    c = static_cast<Control *>(shm_region_open("log-control", sizeof(Control), control_init, &w));
    g_control_writable = w;
    g_control.store(c, std::memory_order_release);
  }
  if (writable != nullptr) *writable = g_control_writable;
  return c;
}

// ---- system log ----------------------------------------------------------

void syslog_write(log_handler *, int level, const char *prefix, const char *fmt, va_list ap) {
  const Control *c = g_control.load(std::memory_order_acquire);
  int threshold = c != nullptr ? load_threshold(c) : kDefaultSyslogLevel;
  if (level > threshold) return;
  if (prefix == nullptr || prefix[0] == '\0') {
    vsyslog(level, fmt, ap);
    return;
  }
  char *joined = nullptr;
  if (asprintf(&joined, "%s%s", prefix, fmt) < 0) return;
  vsyslog(level, joined, ap);
  free(joined);
}

void syslog_acquire(log_handler *h) {
  auto *s = reinterpret_cast<SyslogHandler *>(h);
  MutexLock lock(&s->lock);
  if (s->refs == 0) {
    if (app_current != nullptr)
      openlog(app_current->name, LOG_PID, app_current->facility);
    else
      openlog(nullptr, LOG_PID, 0);
  }
  s->refs += 1;
}

void syslog_release(log_handler *h) {
  auto *s = reinterpret_cast<SyslogHandler *>(h);
  MutexLock lock(&s->lock);
  s->refs -= 1;
  if (s->refs == 0) closelog();
}

// ---- file and stream -----------------------------------------------------

// The stream is changed under the lock and also read, as a hint, without it
// (looks_open below): both sides atomic.
void set_stream(FileHandler *f, FILE *stream) REQUIRES(f->lock) {
  std::atomic_ref<FILE *>(f->stream).store(stream, std::memory_order_relaxed);
}

void file_acquire(log_handler *h) {
  auto *f = reinterpret_cast<FileHandler *>(h);
  MutexLock lock(&f->lock);
  if (f->stream == nullptr && f->path != nullptr) {
    // "e": the log file is not handed to programs the service executes.
    FILE *stream = fopen(f->path, "ae");
    if (stream != nullptr)
      setvbuf(stream, nullptr, _IONBF, 0);
    else
      fprintf(stderr, "kelo_util: log: Fail to open \"%s\": %m.\n", f->path);
    set_stream(f, stream);
  }
  f->refs += 1;
}

void file_release(log_handler *h) {
  auto *f = reinterpret_cast<FileHandler *>(h);
  MutexLock lock(&f->lock);
  f->refs -= 1;
  if (f->refs == 0 && f->path != nullptr && f->stream != nullptr) {
    fclose(f->stream);
    set_stream(f, nullptr);
    // The path is freed and the handler is spent: a released file handler is
    // not installed again. Clearing the pointer keeps a stray re-install from
    // touching freed memory; it then only drops its lines.
    free(f->path);
    f->path = nullptr;
  }
}

// Whether the handler's file looks open: a hint read without the lock, to
// skip the formatting for a file that could not be opened; the lock is
// taken and the stream checked again before the write.
bool looks_open(const FileHandler *f) NO_THREAD_SAFETY_ANALYSIS {
  return std::atomic_ref<FILE *const>(f->stream).load(std::memory_order_relaxed) != nullptr;
}

void file_write(log_handler *h, int level, const char *prefix, const char *fmt, va_list ap) {
  auto *f = reinterpret_cast<FileHandler *>(h);
  if (!looks_open(f)) return;

  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tm;
  gmtime_r(&ts.tv_sec, &tm);
  char when[100];
  strftime(when, sizeof when, "%F %T", &tm);
  int ms = static_cast<int>(ts.tv_nsec / 1000000);

  const char *name = level_name(level);
  if (name == nullptr) name = "unknown";

  // The prefix becomes part of the format. "%6s": the zero flag of the
  // original "%06s" has no effect on strings, so names are blank-padded.
  // A NULL prefix (callers of the p shapes) counts as empty, not a fault.
  // Both texts are built on the stack when they fit (nearly every line) and
  // on the heap otherwise; a formatting failure drops the line.
  char fmt_buf[256];
  FreePtr<char> fmt_heap;
  const char *line_fmt = fmt_buf;
  int fn = snprintf(fmt_buf, sizeof fmt_buf, "%s.%03d [%6s] %s%s", when, ms, name, prefix ? prefix : "", fmt);
  if (fn < 0) return;
  if (static_cast<size_t>(fn) >= sizeof fmt_buf) {
    char *p = nullptr;
    if (asprintf(&p, "%s.%03d [%6s] %s%s", when, ms, name, prefix ? prefix : "", fmt) < 0) return;
    fmt_heap.reset(p);
    line_fmt = p;
  }

  // One spare byte for the newline that a line without one gets.
  char text_buf[1024];
  FreePtr<char> text_heap;
  char *text = text_buf;
  va_list again;
  va_copy(again, ap);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
  int n = vsnprintf(text_buf, sizeof text_buf - 1, line_fmt, ap);
  if (n >= 0 && static_cast<size_t>(n) >= sizeof text_buf - 1) {
    char *p = nullptr;
    n = vasprintf(&p, line_fmt, again);
    text_heap.reset(n >= 0 ? p : nullptr);
    text = p;
  }
#pragma GCC diagnostic pop
  va_end(again);
  if (n < 0) return;
  bool newline = n > 0 && text[n - 1] == '\n';

  MutexLock lock(&f->lock);
  if (f->stream == nullptr) return;
  if (newline) {
    fputs(text, f->stream);
  } else if (text == text_buf) {
    // "%s\n" in one write: the text and its newline together.
    text_buf[n] = '\n';
    fwrite(text_buf, 1, static_cast<size_t>(n) + 1, f->stream);
  } else {
    fprintf(f->stream, "%s\n", text);
  }
}

log_handler *new_file_handler(const char *path, FILE *stream) {
  char *copy = nullptr;
  if (path != nullptr && (copy = strdup(path)) == nullptr) return nullptr;
  void *mem = malloc(sizeof(FileHandler));
  if (mem == nullptr) {
    free(copy);
    return nullptr;
  }
  auto *f = new (mem) FileHandler(file_write, file_release, file_acquire, stream, copy);
  return &f->base;
}

// Starts logging from the environment. The owner of the start gate, which
// holds no lock meanwhile: the sink's acquire and the old handlers' release
// run here and may call back into logging.
void start() REQUIRES(g_gate) {
  const char *file = getenv("KELO_LOG_FILE");
  const char *level_text = getenv("KELO_LOG_LEVEL");

  map_control(nullptr);

  int level = 7;
  if (level_text != nullptr) {
    int v = level_parse(level_text);
    if (v >= 0) level = v;
  }

  // Bits 0..level; a shift of 32 or more enables every level ("none" is 16).
  long long shift = static_cast<long long>(level) + 1;
  unsigned mask = shift >= 32 ? ~0u : ~(~0u << shift);

  log_handler *sink;
  if (file != nullptr && file[0] != '\0')
    sink = strcmp(file, "-") == 0 ? stream_create(stderr) : new_file_handler(file, nullptr);
  else
    sink = &syslog_handler.base;
  if (sink != nullptr && sink != &syslog_handler.base) {
    auto *f = reinterpret_cast<FileHandler *>(sink);
    f->next = g_startup_sinks;
    g_startup_sinks = f;
  }
  // Out of memory for a new sink: levels go quiet rather than crash.
  log_set_handler(static_cast<int>(mask), sink);
}

// The lazy start: exactly one of the threads that log first starts logging;
// the others wait for it. A callback of that start which logs (on the same
// thread) writes through the table as it stands.
void ensure_started() {
  if (g_gate.is_on() || t_gate_owner) return;
  ErrnoSaver keep;
  if (!g_gate.enter()) start();
  g_gate.leave(true);
}

// Whether a line of level would be written now; false only when it surely
// would not (no handler, or the system log above its threshold).
bool would_write(int level) {
  if (level < 0 || level > 7) return false;
  if (!g_gate.is_on()) return true;  // the start decides
  log_handler *h = g_handlers[level].load(std::memory_order_acquire);
  if (h == nullptr || h->write == nullptr) return false;
  if (h != &syslog_handler.base) return true;
  const Control *c = g_control.load(std::memory_order_acquire);
  return level <= (c != nullptr ? load_threshold(c) : kDefaultSyslogLevel);
}

// The library's own lines that wait for this thread to release its last lock,
// oldest first; the text follows the record.
struct WaitingLine {
  WaitingLine *next;
  int level;
};
constinit thread_local WaitingLine *t_first_line = nullptr;
constinit thread_local WaitingLine *t_last_line = nullptr;
constinit thread_local bool t_writing_lines = false;

void write_text(int level, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  write(level, "", fmt, ap);
  va_end(ap);
}

}  // namespace

constinit SyslogHandler syslog_handler = {{syslog_write, syslog_release, syslog_acquire, nullptr}, 0, {}};

const char *level_name(int level) {
  for (const auto &e : kLevelNames)
    if (e.value == level) return e.name;
  return nullptr;
}

int level_parse(const char *text) {
  if (text == nullptr) return -1;
  for (const auto &e : kLevelNames)
    if (strcasecmp(text, e.name) == 0 && e.value >= 0) return e.value;
  char *end = nullptr;
  long v = strtol(text, &end, 0);
  if (end == text) return -1;
  return static_cast<int>(v);
}

int level_option(const char *text) {
  int v = level_parse(text);
  if (v >= 0) return v;
  fprintf(stderr,
          "%s: Invalid log option '%s'. \nAvailable log level:", app_current ? app_current->name : "(null)",
          text);
  for (const auto &e : kLevelNames) fprintf(stderr, " %s", e.name);
  fputc('\n', stderr);
  exit(254);
}

int control_init(void *record) {
  auto *c = static_cast<Control *>(record);
  shm_mutex_init(&c->lock);
  c->syslog_level = kDefaultSyslogLevel;
  return 0;
}

Control *control() { return g_control.load(std::memory_order_acquire); }

log_handler *stream_create(FILE *stream) { return new_file_handler(nullptr, stream); }

void init() {
  ErrnoSaver keep;
  if (t_gate_owner) {  // from a callback of this thread's start or stop
    g_gate.assert_owned();
    start();
    return;
  }
  g_gate.enter();
  start();
  g_gate.leave(true);
}

void fini() {
  ErrnoSaver keep;
  if (t_gate_owner) {  // as in init; the outer start or stop decides the state
    log_set_handler(0xff, nullptr);
    return;
  }
  g_gate.enter();
  log_set_handler(0xff, nullptr);
  g_gate.leave(false);
}

int syslog_threshold() {
  ErrnoSaver keep;
  const Control *c = map_control(nullptr);
  return c != nullptr ? load_threshold(c) : kDefaultSyslogLevel;
}

void write(int level, const char *prefix, const char *fmt, va_list ap) {
  // The start may change errno; "%m" expands to the caller's, and the caller
  // finds it as it was, whatever the handler did.
  ErrnoSaver keep;
  int caller_errno = errno;
  ensure_started();
  if (level < 0 || level > 7) return;
  log_handler *h = g_handlers[level].load(std::memory_order_acquire);
  if (h == nullptr || h->write == nullptr) return;
  errno = caller_errno;
  h->write(h, level, prefix, fmt, ap);
}

void lib_log(int level, const char *fmt, ...) {
  va_list ap;
  va_start(ap, fmt);
  if (locks::t_held == 0) {
    write(level, "", fmt, ap);
    va_end(ap);
    return;
  }
  // Under a lock of the library: formatted now ("%m" is this errno), written
  // when the thread releases its last lock.
  ErrnoSaver keep;
  WaitingLine *w = nullptr;
  if (would_write(level)) {
    va_list again;
    va_copy(again, ap);
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    int n = vsnprintf(nullptr, 0, fmt, ap);
    if (n >= 0) w = static_cast<WaitingLine *>(malloc(sizeof(WaitingLine) + static_cast<size_t>(n) + 1));
    if (w != nullptr) vsnprintf(reinterpret_cast<char *>(w + 1), static_cast<size_t>(n) + 1, fmt, again);
#pragma GCC diagnostic pop
    va_end(again);
  }
  va_end(ap);
  if (w == nullptr) return;  // not written anyway, or out of memory: dropped
  w->next = nullptr;
  w->level = level;
  (t_last_line != nullptr ? t_last_line->next : t_first_line) = w;
  t_last_line = w;
  locks::t_lines_waiting = true;
}

}  // namespace kelo::log

namespace kelo::locks {

constinit thread_local unsigned t_held = 0;
constinit thread_local bool t_lines_waiting = false;

void write_waiting_lines() {
  using namespace kelo::log;
  // A handler that makes the library log again under a lock of its own adds
  // to the list; this loop writes those too, in order.
  if (t_writing_lines) return;
  t_writing_lines = true;
  while (WaitingLine *w = t_first_line) {
    t_first_line = w->next;
    if (t_first_line == nullptr) t_last_line = nullptr;
    write_text(w->level, "%s", reinterpret_cast<char *>(w + 1));
    free(w);
  }
  t_lines_waiting = false;
  t_writing_lines = false;
}

}  // namespace kelo::locks

using namespace kelo::log;

extern "C" {

KELO_EXPORT log_handler *log_file_create(const char *path) {
  if (path == nullptr) return nullptr;  // no path to copy: no handler, instead of a fault
  return kelo::log::new_file_handler(path, nullptr);
}

KELO_EXPORT void log_set_handler(int mask, log_handler *h) {
  kelo::ErrnoSaver keep;
  for (int i = 0; i < 8; ++i) {
    if (!(mask & (1 << i))) continue;
    log_handler *old = g_handlers[i].load(std::memory_order_relaxed);
    if (old != nullptr && old->release != nullptr) old->release(old);
    g_handlers[i].store(h, std::memory_order_release);
    if (h != nullptr && h->acquire != nullptr) h->acquire(h);
  }
}

// errno: as found on success; on failure, why it failed.
KELO_EXPORT int log_set_syslog_level(int level) {
  int saved = errno;
  ensure_started();
  bool writable = false;
  Control *c = kelo::log::map_control(&writable);
  if (c == nullptr) return -1;
  // A region of another owner is mapped read-only here: a store would fault.
  if (!writable) {
    errno = EACCES;
    return -1;
  }
  std::atomic_ref<int32_t>(c->syslog_level).store(level, std::memory_order_relaxed);
  errno = saved;
  return 0;
}

// Both need app_init to have stored a descriptor; without one the setter
// does nothing and the getter answers 0 (not set) instead of faulting.
KELO_EXPORT void log_set_facility(int facility) {
  if (app_current != nullptr) app_current->facility = facility;
}

KELO_EXPORT int log_get_facility(void) { return app_current != nullptr ? app_current->facility : 0; }

#define KELO_LOG_DEFINE(lvl, num)                                                                  \
  KELO_EXPORT void log_##lvl(const char *fmt, ...) {                                               \
    va_list ap;                                                                                    \
    va_start(ap, fmt);                                                                             \
    kelo::log::write(num, "", fmt, ap);                                                            \
    va_end(ap);                                                                                    \
  }                                                                                                \
  KELO_EXPORT void log_v##lvl(const char *fmt, va_list ap) { kelo::log::write(num, "", fmt, ap); } \
  KELO_EXPORT void log_p##lvl(const char *prefix, const char *fmt, ...) {                          \
    va_list ap;                                                                                    \
    va_start(ap, fmt);                                                                             \
    kelo::log::write(num, prefix, fmt, ap);                                                        \
    va_end(ap);                                                                                    \
  }                                                                                                \
  KELO_EXPORT void log_vp##lvl(const char *prefix, const char *fmt, va_list ap) {                  \
    kelo::log::write(num, prefix, fmt, ap);                                                        \
  }

KELO_LOG_DEFINE(emerg, 0)
KELO_LOG_DEFINE(alert, 1)
KELO_LOG_DEFINE(crit, 2)
KELO_LOG_DEFINE(err, 3)
KELO_LOG_DEFINE(warning, 4)
KELO_LOG_DEFINE(notice, 5)
KELO_LOG_DEFINE(info, 6)
KELO_LOG_DEFINE(debug, 7)

}  // extern "C"
