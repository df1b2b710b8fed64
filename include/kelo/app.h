/* Application frame: the descriptor, start-up and shutdown around the libev
 * default loop, and command-line option tables with built-in help. */
#ifndef KELO_APP_H
#define KELO_APP_H

#include <ev.h>
#include <signal.h>
#include <stdint.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

struct opt_record;
struct otrpc_method;

/* One per service, normally a static object that lives as long as the
 * process: the library keeps a pointer to it, not a copy. */
typedef struct app_desc {
  int32_t state;                      /* 1 between app_init and the end of app_fini */
  struct opt_record *options;         /* option table, or NULL: argv is not parsed */
  int32_t facility;                   /* syslog facility code (LOG_USER is 8); 0 becomes 8 */
  char name[16];                      /* syslog ident and usage name; empty: the thread's name */
  const struct otrpc_method *methods; /* RPC methods; non-NULL switches the RPC client on */
} app_desc;

/* The descriptor given to app_init; NULL before. Never cleared. */
KELO_EXPORT extern app_desc *app_current;

/* Start-up, in this order: name, state, facility, app_current, logging,
 * options, RPC client (when methods are given), atexit(app_fini). Returns 0.
 * Exits the process for --help (0) and a missing required option (127).
 * A NULL descriptor gives -1 with errno EINVAL. */
KELO_EXPORT int app_init(app_desc *app, int argc, char **argv);
/* Runs the default libev loop until app_break; returns what ev_run returned. */
KELO_EXPORT int app_run(void);
/* Asks app_run to return. Safe from any thread and from a signal handler. */
KELO_EXPORT void app_break(void);
/* Tears down what app_init set up; safe to call more than once. */
KELO_EXPORT void app_fini(void);

/* Callback of the watchers of app_break_on_signals (not to be called). */
static inline void app_on_break_signal_(struct ev_loop *loop, ev_signal *w, int revents) {
  ev_signal *watchers = (ev_signal *)w->data;
  int i;
  (void)revents;
  for (i = 0; i < 2; i++) {
    if (ev_is_active(&watchers[i])) {
      ev_ref(loop); /* balances the ev_unref at start */
      ev_signal_stop(loop, &watchers[i]);
    }
  }
  ev_break(loop, EVBREAK_ALL);
}

/* Makes SIGTERM and SIGINT end app_run (libev signal watchers on the default
 * loop), so that main returns and app_fini runs at exit: without this either
 * signal kills the service before app_fini can release anything. Call it on
 * the loop thread, after app_init; a signal that comes before app_run is
 * kept and ends app_run as soon as it starts. The first signal also removes
 * the watchers, so a second one has its default effect (a service that hangs
 * in its shutdown can still be stopped). The watchers do not keep the loop
 * running by themselves. Calling it again while they are active does nothing. */
static inline void app_break_on_signals(void) {
  static ev_signal watchers[2];
  static const int signals[2] = {SIGTERM, SIGINT};
  struct ev_loop *loop = ev_default_loop(0);
  int i;
  if (!loop || ev_is_active(&watchers[0]) || ev_is_active(&watchers[1])) return;
  for (i = 0; i < 2; i++) {
    ev_signal_init(&watchers[i], app_on_break_signal_, signals[i]);
    watchers[i].data = watchers;
    ev_signal_start(loop, &watchers[i]);
    ev_unref(loop);
  }
}

/* ---- command-line options ---------------------------------------------- */

enum {
  OPT_ARG = 0,     /* required argument */
  OPT_NOARG = 1,   /* no argument */
  OPT_OPTARG = 2,  /* optional argument (--name=value only) */
  OPT_REQUIRED = 3 /* required argument, and the option itself is required */
};

typedef void (*opt_store_fn)(struct opt_record *rec, const char *arg, void *dest);

/* One option. A record with neither name but a store callback receives the
 * arguments left after the options; a record with neither name nor store ends
 * the table. */
typedef struct opt_record {
  const char *long_name; /* without dashes, or NULL */
  char short_name;       /* letter, or 0 */
  uint32_t type;         /* OPT_*; only the low two bits count */
  void *dest;            /* third argument of store */
  opt_store_fn store;    /* NULL: accepted and ignored */
  const char *help;
  int32_t seen; /* 0 as declared; a store callback of an OPT_REQUIRED
                   option sets it to 1 to satisfy the required check */
} opt_record;

/* Parses argv against table (ended by a terminator record). Returns 0, or -2
 * for an option that matches no record (getopt_long prints why). */
KELO_EXPORT int opt_parse(int argc, char **argv, opt_record *table);
/* Prints the two-section help text of table to standard error. As a store
 * callback it prints help and exits 0. */
KELO_EXPORT void opt_dump_help(opt_record *table);
/* Store callbacks: atoi into an int32_t; strdup into a char * (never freed);
 * add 1 to an int32_t. The first two need a non-NULL argument. */
KELO_EXPORT void opt_store_int(opt_record *rec, const char *arg, void *dest);
KELO_EXPORT void opt_store_string(opt_record *rec, const char *arg, void *dest);
KELO_EXPORT void opt_inc_int(opt_record *rec, const char *arg, void *dest);

KELO_END_DECLS

#endif
