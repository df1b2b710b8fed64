/* Start-up benchmark: the smallest service of service_lib.c written by hand
 * on libev and json-c: the option parsed with getopt_long, the system log
 * opened, the method kept in a json-c object for its registration, a tokener
 * for the agent's stream, a non-blocking connect to the agent with its
 * watcher, a retry timer, a break watcher. It skips what the library's
 * start-up also does (the environment, the log-control region, the
 * announcement's text with its id, the wake-up, atexit); service_same.c
 * does all of that too. */
#include <arpa/inet.h>
#include <errno.h>
#include <ev.h>
#include <getopt.h>
#include <json-c/json.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <syslog.h>
#include <unistd.h>

#include "footprint.h"

static int level = 0;
static struct json_object *registration;
static struct json_tokener *tokener;
static ev_io agent_io;
static ev_timer retry_timer, timer;
static ev_async break_watcher;

static void on_agent(struct ev_loop *loop, ev_io *w, int revents) {
  (void)loop;
  (void)w;
  (void)revents;
}

static void on_retry(struct ev_loop *loop, ev_timer *w, int revents) {
  (void)loop;
  (void)w;
  (void)revents;
}

static void on_break(struct ev_loop *loop, ev_async *w, int revents) {
  (void)w;
  (void)revents;
  ev_break(loop, EVBREAK_ALL);
}

static void on_timer(struct ev_loop *loop, ev_timer *w, int revents) {
  (void)w;
  (void)revents;
  footprint_report();
  ev_async_send(loop, &break_watcher);
}

static void agent_connect(struct ev_loop *loop) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  struct sockaddr_in sa = {.sin_family = AF_INET, .sin_port = htons(54320)};
  sa.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (fd >= 0 && (connect(fd, (struct sockaddr *)&sa, sizeof sa) == 0 || errno == EINPROGRESS)) {
    ev_io_init(&agent_io, on_agent, fd, EV_READ | EV_WRITE);
    ev_io_start(loop, &agent_io);
    return;
  }
  if (fd >= 0) close(fd);
  ev_timer_init(&retry_timer, on_retry, 3.0, 0.0);
  ev_timer_start(loop, &retry_timer);
}

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
  ev_async_init(&break_watcher, on_break);
  ev_async_start(loop, &break_watcher);
  agent_connect(loop);
  ev_timer_init(&timer, on_timer, 0.0, 0.0);
  ev_timer_start(loop, &timer);
  ev_run(loop, 0);
  return 0;
}
