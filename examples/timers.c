/* timers: a periodic timerfd on the service's libev loop. timer_start arms
 * the descriptor (first expiry, then the interval), libev says when it is
 * readable, and the callback reads how many expiries passed since the last
 * read (more than one when the loop was busy). */
#include <ev.h>
#include <stdint.h>
#include <stdio.h>
#include <sys/timerfd.h>
#include <time.h>
#include <unistd.h>

#include <kelo/app.h>
#include <kelo/time.h>

static app_desc app = {.name = "timers"}; /* no options, no RPC client */
static int64_t started_ms;
static int ticks;

static void on_timer(struct ev_loop *loop, ev_io *w, int revents) {
  (void)loop;
  (void)revents;
  uint64_t expiries = 0;
  if (read(w->fd, &expiries, sizeof expiries) != (ssize_t)sizeof expiries) return;
  ticks += (int)expiries;
  /* time_realtime_ms is only good for differences over short spans. */
  printf("tick %d after %lld ms\n", ticks, (long long)(time_realtime_ms() - started_ms));
  if (ticks >= 5) {
    timer_start(w->fd, 0, 0); /* first_ms 0 disarms */
    app_break();
  }
}

int main(int argc, char **argv) {
  app_init(&app, argc, argv);
  time_t now = time(NULL);
  struct tm local;
  char when[32] = "?";
  if (time_utc2local(&now, &local) != NULL) strftime(when, sizeof when, "%H:%M:%S", &local);
  printf("%s: started at %s local time, %d s after boot\n", app.name, when, (int)time_uptime());

  int fd = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (fd < 0 || timer_start(fd, 100, 50) != 0) return 1; /* after 100 ms, then every 50 */
  started_ms = time_realtime_ms();
  ev_io watcher;
  ev_io_init(&watcher, on_timer, fd, EV_READ);
  ev_io_start(ev_default_loop(0), &watcher);

  app_run(); /* until app_break */

  ev_io_stop(ev_default_loop(0), &watcher);
  close(fd);
  printf("%d ticks, the timer is disarmed\n", ticks);
  return ticks >= 5 ? 0 : 1;
}
