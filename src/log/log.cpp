// The logging core: level table, handler table, stock sinks and the line format.
#include "log/log_internal.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>
#include <syslog.h>
#include <time.h>

#include <atomic>

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

constinit log_handler *g_handlers[8] = {};
// Set (release) once a start-up has installed its sink; the first log calls
// of several threads see it (acquire) or queue on g_start_lock, which also
// serialises the region mapping and threshold changes.
constinit std::atomic<bool> g_initialised{false};
constinit pthread_mutex_t g_start_lock = PTHREAD_MUTEX_INITIALIZER;
constinit std::atomic<Control *> g_control{nullptr};
constinit bool g_control_writable = false;  // under g_start_lock
// Every sink that a start-up created. They are never freed: a thread that
// read the table just before a restart may still be writing through one.
// The list only keeps them reachable (leak checkers see no loss).
constinit FileHandler *g_startup_sinks = nullptr;

// The threshold word is shared with other processes and read without lock.
int load_threshold(const Control *c) {
  return std::atomic_ref<const int32_t>(c->syslog_level).load(std::memory_order_relaxed);
}

// Under g_start_lock.
void map_control() {
  if (g_control.load(std::memory_order_relaxed) != nullptr) return;
  bool writable = false;
  auto *c = static_cast<Control *>(shm_region_open("log-control", sizeof(Control), control_init, &writable));
  g_control_writable = writable;
  g_control.store(c, std::memory_order_release);
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

void file_acquire(log_handler *h) {
  auto *f = reinterpret_cast<FileHandler *>(h);
  MutexLock lock(&f->lock);
  if (f->stream == nullptr && f->path != nullptr) {
    // "e": the log file is not handed to programs the service executes.
    f->stream = fopen(f->path, "ae");
    if (f->stream != nullptr)
      setvbuf(f->stream, nullptr, _IONBF, 0);
    else
      fprintf(stderr, "kelo_util: log: Fail to open \"%s\": %m.\n", f->path);
  }
  f->refs += 1;
}

void file_release(log_handler *h) {
  auto *f = reinterpret_cast<FileHandler *>(h);
  MutexLock lock(&f->lock);
  f->refs -= 1;
  if (f->refs == 0 && f->path != nullptr && f->stream != nullptr) {
    fclose(f->stream);
    f->stream = nullptr;
    // The path is freed and the handler is spent: a released file handler is
    // not installed again. Clearing the pointer keeps a stray re-install from
    // touching freed memory; it then only drops its lines.
    free(f->path);
    f->path = nullptr;
  }
}

void file_write(log_handler *h, int level, const char *prefix, const char *fmt, va_list ap) {
  auto *f = reinterpret_cast<FileHandler *>(h);
  if (f->stream == nullptr) return;

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
  auto *f = static_cast<FileHandler *>(calloc(1, sizeof(FileHandler)));
  if (f == nullptr) return nullptr;
  f->base.write = file_write;
  f->base.release = file_release;
  f->base.acquire = file_acquire;
  f->stream = stream;
  if (path != nullptr) {
    f->path = strdup(path);
    if (f->path == nullptr) {
      free(f);
      return nullptr;
    }
  }
  pthread_mutex_init(&f->lock, nullptr);
  return &f->base;
}

// Under g_start_lock.
void start_locked() {
  const char *file = getenv("KELO_LOG_FILE");
  const char *level_text = getenv("KELO_LOG_LEVEL");

  map_control();

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
  g_initialised.store(true, std::memory_order_release);
}

// Set on the thread that is running a start-up: a handler whose acquire logs
// meanwhile writes through the table as it stands instead of waiting for the
// start lock that its own thread holds. Initial-exec: the library is loaded
// with the process, so the flag sits in static TLS and is reached without a
// call into the dynamic linker (a dlopen finds room for one byte in glibc's
// static TLS reserve).
constinit thread_local bool t_starting __attribute__((tls_model("initial-exec"))) = false;

void start_guarded() {
  t_starting = true;
  start_locked();
  t_starting = false;
}

// The lazy start: exactly one of the threads that log first starts logging.
void ensure_started() {
  if (g_initialised.load(std::memory_order_acquire) || t_starting) return;
  MutexLock lock(&g_start_lock);
  if (!g_initialised.load(std::memory_order_relaxed)) start_guarded();
}

}  // namespace

constinit SyslogHandler syslog_handler = {
    {syslog_write, syslog_release, syslog_acquire, nullptr}, 0, PTHREAD_MUTEX_INITIALIZER};

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
  MutexLock lock(&g_start_lock);
  start_guarded();
}

void fini() {
  MutexLock lock(&g_start_lock);
  log_set_handler(0xff, nullptr);
  g_initialised.store(false, std::memory_order_release);
}

int syslog_threshold() {
  MutexLock lock(&g_start_lock);
  map_control();
  const Control *c = g_control.load(std::memory_order_relaxed);
  return c != nullptr ? load_threshold(c) : kDefaultSyslogLevel;
}

void write(int level, const char *prefix, const char *fmt, va_list ap) {
  ensure_started();
  if (level < 0 || level > 7) return;
  log_handler *h = g_handlers[level];
  if (h != nullptr && h->write != nullptr) h->write(h, level, prefix, fmt, ap);
}

}  // namespace kelo::log

using namespace kelo::log;

extern "C" {

KELO_EXPORT log_handler *log_file_create(const char *path) {
  if (path == nullptr) return nullptr;  // no path to copy: no handler, instead of a fault
  return kelo::log::new_file_handler(path, nullptr);
}

KELO_EXPORT void log_set_handler(int mask, log_handler *h) {
  for (int i = 0; i < 8; ++i) {
    if (!(mask & (1 << i))) continue;
    log_handler *old = g_handlers[i];
    if (old != nullptr && old->release != nullptr) old->release(old);
    g_handlers[i] = h;
    if (h != nullptr && h->acquire != nullptr) h->acquire(h);
  }
}

KELO_EXPORT int log_set_syslog_level(int level) {
  ensure_started();
  kelo::MutexLock lock(&g_start_lock);
  map_control();
  Control *c = g_control.load(std::memory_order_relaxed);
  if (c == nullptr) return -1;
  // A region of another owner is mapped read-only here: a store would fault.
  if (!g_control_writable) {
    errno = EACCES;
    return -1;
  }
  std::atomic_ref<int32_t>(c->syslog_level).store(level, std::memory_order_relaxed);
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
