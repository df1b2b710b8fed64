/* Start-up benchmark: the smallest service on the library (one option, one
 * RPC method, the loop until a timer breaks it). service_hand.c is the same
 * service written directly on libev and json-c. */
#include <ev.h>
#include <stddef.h>
#include <stdint.h>

#include <kelo/app.h>
#include <kelo/otrpc.h>

#include "footprint.h"

static int32_t level = 0;

static opt_record options[] = {
    {"level", 'l', OPT_ARG, &level, opt_store_int, "A number.", 0},
    {NULL, 0, 0, NULL, NULL, NULL, 0},
};

static int on_ping(void *arg, struct json_object *params, struct json_object *reply) {
  (void)arg;
  (void)params;
  (void)reply;
  return 0;
}

static const otrpc_method methods[] = {
    {"startup.ping", on_ping, NULL, 0},
    {NULL, NULL, NULL, 0},
};

static app_desc app = {0, options, 0, "startup", methods};

static void on_timer(struct ev_loop *loop, ev_timer *w, int revents) {
  (void)loop;
  (void)w;
  (void)revents;
  footprint_report();
  app_break();
}

int main(int argc, char **argv) {
  app_init(&app, argc, argv);
  static ev_timer timer;
  ev_timer_init(&timer, on_timer, 0.0, 0.0);
  ev_timer_start(ev_default_loop(0), &timer);
  app_run();
  return 0;
}
