// The application frame: start-up in a fixed order (descriptor, logging,
// options, RPC client), the default libev loop, a break usable from any thread
// or signal handler, and the teardown registered with atexit.
#include <errno.h>
#include <ev.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/prctl.h>

#include "app/opt_internal.h"
#include "kelo/app.h"
#include "kelo/otrpc.h"
#include "log/log_internal.h"

namespace kelo::app {
namespace {

// Zero at load time; app_run initialises it afresh on every call. Before the
// first app_run an ev_async_send on it only marks it pending, and starting it
// clears that mark, so an early break is lost (as services expect).
constinit ev_async app_break_watcher{};

void on_break(struct ev_loop *loop, ev_async *, int) { ev_break(loop, EVBREAK_ALL); }

}  // namespace
}  // namespace kelo::app

using kelo::app::app_break_watcher;

extern "C" {

KELO_EXPORT int app_init(app_desc *app, int argc, char **argv) {
  // No descriptor: nothing to start (instead of writing through NULL).
  if (app == nullptr) {
    errno = EINVAL;
    return -1;
  }
  if (app->name[0] == '\0') prctl(PR_GET_NAME, app->name, 0, 0, 0);
  app->state = 1;
  if (app->facility == 0) app->facility = 8;  // LOG_USER; facility 0 cannot be chosen
  // Before logging: the system-log sink reads ident and facility from it.
  app_current = app;
  kelo::log::init();

  if (app->options != nullptr) {
    opt_record builtin[2];
    kelo::app::builtin_options(builtin);
    opt_record *merged = kelo::app::opt_merge(app->options, builtin);
    if (merged == nullptr) {
      fprintf(stderr, "%s: Fail to allocate memory.", "app_init");
      abort();
    }
    // An unknown option only ends parsing early; the service goes on.
    (void)opt_parse(argc, argv, merged);
    free(merged);
  }

  if (app->methods != nullptr) {
    if (otrpc_init() < 0) abort();
    (void)otrpc_start();  // a failed first connect is retried by the client
  }

  atexit(app_fini);
  return 0;
}

KELO_EXPORT int app_run(void) {
  struct ev_loop *loop = ev_default_loop(0);
  ev_async_init(&app_break_watcher, kelo::app::on_break);
  ev_async_start(loop, &app_break_watcher);
  int result = ev_run(loop, 0);
  ev_async_stop(loop, &app_break_watcher);
  return result;
}

// Only ev_default_loop(0), which returns the existing loop, and
// ev_async_send: both safe from another thread and from a signal handler.
KELO_EXPORT void app_break(void) { ev_async_send(ev_default_loop(0), &app_break_watcher); }

KELO_EXPORT void app_fini(void) {
  // Never initialised: nothing to tear down (instead of reading through NULL).
  if (app_current == nullptr || app_current->state == 0) return;
  if (app_current->methods != nullptr) otrpc_fini();
  kelo::log::fini();
  app_current->state = 0;
}

}  // extern "C"
