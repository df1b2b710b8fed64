// Internals of the logging core, shared with the frame and the tests.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <syslog.h>

#include "common/mutex_lock.h"
#include "kelo/log.h"

namespace kelo::log {

// The record of the shared "log-control" region, one layout for every
// process of the device.
struct Control {
  pthread_mutex_t lock;  // in-region mutex; nothing in the library locks it
  int32_t syslog_level;  // the system-log sink writes levels <= this
};
#if defined(__arm__)
static_assert(sizeof(Control) == 28, "log-control is 28 bytes on the device");
static_assert(offsetof(Control, syslog_level) == 24, "log-control layout");
#endif

// The stock system-log handler: acquisitions counted, openlog at the first.
// Its lock is held only inside its own callbacks, never around service code.
struct SyslogHandler {
  log_handler base;
  int32_t refs GUARDED_BY(lock);
  Mutex lock;
};

// File or stream handler; its lock as the system log's.
struct FileHandler {
  FileHandler(decltype(log_handler::write) w, decltype(log_handler::release) r,
              decltype(log_handler::acquire) a, FILE *s, char *p)
      : base{w, r, a, nullptr}, refs(0), stream(s), path(p) {}
  log_handler base;
  int32_t refs GUARDED_BY(lock);
  FILE *stream GUARDED_BY(lock);  // NULL until opened
  char *path GUARDED_BY(lock);    // owned copy; NULL for a stream handler
  Mutex lock;
  FileHandler *next = nullptr;  // sinks made at start-up, kept (see init)
};

extern SyslogHandler syslog_handler;

// Starts logging from KELO_LOG_FILE and KELO_LOG_LEVEL (again, when it
// already runs: the new sink replaces the old one level by level).
void init();
// Releases every level's handler; logging is then not initialised.
void fini();
// Name (case-insensitive) or number; -1 when neither.
int level_parse(const char *text);
// Level given as text by a service: the level, or a message and exit(254).
int level_option(const char *text);
// A handler writing lines to an already open stream (never closed).
log_handler *stream_create(FILE *stream);
// Initialiser of the "log-control" region.
int control_init(void *record);
// The mapped region, or NULL.
Control *control();
// The system-log threshold in force (mapping the region if need be; 6 when
// it cannot be mapped).
int syslog_threshold();
// Display name of a level, or NULL.
const char *level_name(int level);
// Funnel of every log call; keeps errno.
void write(int level, const char *prefix, const char *fmt, va_list ap);
// The library's own lines: while this thread holds a lock of the library, the
// line is formatted at once and written when the thread releases its last
// one, so that a log handler never runs under a lock of the library. Keeps
// errno.
void lib_log(int level, const char *fmt, ...) __attribute__((format(printf, 2, 3)));

}  // namespace kelo::log
