/* Start-up benchmark: the smallest service of service_lib.c written by hand
 * on libev and json-c: the option parsed with getopt_long, the system log
 * opened, the method kept in a json-c object for its registration, a tokener
 * for the agent's stream, a non-blocking connect to the agent with its
 * watcher, a retry timer, a break watcher. It skips what the library's
 * start-up also does (the environment, the log-control region, the
 * announcement's text with its id, the wake-up, atexit); service_same.c
 * does all of that too. */
#include <ev.h>
#include <getopt.h>
#include <json-c/json.h>
#include <stdlib.h>
#include <syslog.h>

#include "hand_service.h"

static int level = 0;
static struct json_object *registration;
static struct json_tokener *tokener;

int main(int argc, char **argv) {
  static const struct option longopts[] = {{"level", required_argument, NULL, 'l'}, {NULL, 0, NULL, 0}};
  for (int c; (c = getopt_long(argc, argv, "l:", longopts, NULL)) != -1;)
    if (c == 'l') level = atoi(optarg);
  openlog("startup", LOG_PID, LOG_USER);

  registration = json_object_new_object();
  struct json_object *list = json_object_new_array();
  json_object_array_add(list, json_object_new_string("startup.ping"));
  json_object_object_add(registration, "method", json_object_new_string("_otc.rpc"));
  json_object_object_add(registration, "params", list);
  tokener = json_tokener_new_ex(16);

  struct ev_loop *loop = ev_default_loop(0);
  agent_connect(loop);
  run_until_report(loop);
  return 0;
}
