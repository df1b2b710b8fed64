/* Start-up benchmark: what the two hand-written services share, written once:
 * the agent's connection (a non-blocking connect with its watcher, or the
 * retry timer when it fails at once) and the timer that reports the figures
 * at the first loop iteration and breaks the loop. Each service includes it
 * once. */
#ifndef KELO_BENCH_STARTUP_HAND_SERVICE_H
#define KELO_BENCH_STARTUP_HAND_SERVICE_H

#include <errno.h>
#include <ev.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include "footprint.h"

static ev_io agent_io;
static ev_timer retry_timer, report_timer;
static ev_async break_watcher;

/* The callbacks of watchers that never fire before the first iteration. */
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

static void on_report(struct ev_loop *loop, ev_timer *w, int revents) {
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
  ev_timer_init(&retry_timer, on_retry, 1.0, 0.0);
  ev_timer_start(loop, &retry_timer);
}

/* Starts the break watcher and the report timer, then runs the loop. */
static void run_until_report(struct ev_loop *loop) {
  ev_async_init(&break_watcher, on_break);
  ev_async_start(loop, &break_watcher);
  ev_timer_init(&report_timer, on_report, 0.0, 0.0);
  ev_timer_start(loop, &report_timer);
  ev_run(loop, 0);
}

#endif
