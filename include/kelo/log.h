/* Logging: eight syslog levels, one handler per level, a line format for
 * files and standard error, and a device-wide system-log threshold. */
#ifndef KELO_LOG_H
#define KELO_LOG_H

#include <stdarg.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

/* A sink. A service's own handler is any record that begins with these
 * fields. write may be NULL (messages dropped); acquire and release are
 * called once per level the handler is installed at or removed from.
 *
 * Locks: write, acquire and release run on the calling thread with no lock of
 * the library held (the stock handlers' own mutexes are inside the stock
 * handlers and never around service code). A handler may call any library
 * function, the log functions and log_set_syslog_level included. acquire and
 * release run on the thread that installs or removes the handler
 * (log_set_handler, the start of logging, app_init, app_fini); while one
 * thread starts logging, other threads' first log calls wait for it. Lines
 * the library logs while it holds one of its locks are written once it has
 * released them. A log call that service code makes from inside one of its
 * own callbacks runs the handler under what that callback holds (see
 * kelo/otrpc.h: the registry lock in a method handler or reply callback). */
typedef struct log_handler {
  void (*write)(struct log_handler *h, int level, const char *prefix, const char *fmt, va_list ap);
  void (*release)(struct log_handler *h);
  void (*acquire)(struct log_handler *h);
  void *priv;
} log_handler;

/* A handler that appends lines to path (copied; opened on first install). */
KELO_EXPORT log_handler *log_file_create(const char *path);
/* For each level i (0..7) with bit i set in mask: release the old handler,
 * install h (NULL turns the level off), acquire h. */
KELO_EXPORT void log_set_handler(int mask, log_handler *h);
/* Sets the device-wide system-log threshold (messages with level <= it are
 * written). Returns 0, or -1 when the shared region cannot be mapped. */
KELO_EXPORT int log_set_syslog_level(int level);
/* Facility of the application descriptor; both need app_init to have run. */
KELO_EXPORT void log_set_facility(int facility);
KELO_EXPORT int log_get_facility(void);

#define KELO_LOG_DECLARE(lvl)                                                                     \
  KELO_EXPORT void log_##lvl(const char *fmt, ...) __attribute__((format(printf, 1, 2)));         \
  KELO_EXPORT void log_v##lvl(const char *fmt, va_list ap) __attribute__((format(printf, 1, 0))); \
  KELO_EXPORT void log_p##lvl(const char *prefix, const char *fmt, ...)                           \
      __attribute__((format(printf, 2, 3)));                                                      \
  KELO_EXPORT void log_vp##lvl(const char *prefix, const char *fmt, va_list ap)                   \
      __attribute__((format(printf, 2, 0)));

/* log_emerg (0) .. log_debug (7), each as plain, v, p (prefix) and vp. The
 * prefix is placed before the message and is part of the format. */
KELO_LOG_DECLARE(emerg)
KELO_LOG_DECLARE(alert)
KELO_LOG_DECLARE(crit)
KELO_LOG_DECLARE(err)
KELO_LOG_DECLARE(warning)
KELO_LOG_DECLARE(notice)
KELO_LOG_DECLARE(info)
KELO_LOG_DECLARE(debug)

#undef KELO_LOG_DECLARE

KELO_END_DECLS

#endif
