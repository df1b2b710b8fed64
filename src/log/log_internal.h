// Internals of the logging core, shared with the frame and the tests.
#pragma once

#include <pthread.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

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
struct SyslogHandler {
  log_handler base;
  int32_t refs;
  pthread_mutex_t lock;
};

// File or stream handler.
struct FileHandler {
  log_handler base;
  int32_t refs;
  FILE *stream;  // NULL until opened
  char *path;    // owned copy; NULL for a stream handler
  pthread_mutex_t lock;
  FileHandler *next;  // sinks made at start-up, kept (see init)
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
// Funnel of every log call.
void write(int level, const char *prefix, const char *fmt, va_list ap);

}  // namespace kelo::log
