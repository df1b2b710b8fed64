// ctest-labels: threads
// The main loop and its break: from another thread, from a signal handler,
// and breaks that arrive while no app_run is running (they are lost).
#include <ev.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "kelo/app.h"

namespace {

// Runs app_run with a timer that breaks after `after` seconds (never for 0),
// an optional watcher started with it and a guard against a hung loop;
// returns the seconds it ran.
double timed_run(double after, int *result = nullptr, ev_timer *also = nullptr) {
  struct ev_loop *loop = ev_default_loop(0);
  static ev_timer breaker, guard;
  ev_timer_init(
      &breaker, [](struct ev_loop *, ev_timer *, int) { app_break(); }, after, 0.0);
  ev_timer_init(
      &guard, [](struct ev_loop *l, ev_timer *, int) { ev_break(l, EVBREAK_ALL); }, 10.0, 0.0);
  if (after > 0) ev_timer_start(loop, &breaker);
  ev_timer_start(loop, &guard);
  if (also != nullptr) ev_timer_start(loop, also);
  auto t0 = std::chrono::steady_clock::now();
  int rc = app_run();
  double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
  ev_timer_stop(loop, &breaker);
  ev_timer_stop(loop, &guard);
  if (also != nullptr) ev_timer_stop(loop, also);
  if (result != nullptr) *result = rc;
  return took;
}

std::atomic<int> g_running{0};

TEST(AppBreak, FromAnotherThread) {
  // The loop tells the thread when it runs (a break before that is lost).
  ev_timer started;
  ev_timer_init(
      &started, [](struct ev_loop *, ev_timer *, int) { g_running.store(1); }, 0.0, 0.0);
  std::thread t([] {
    while (g_running.load() == 0) usleep(1000);
    usleep(50 * 1000);
    for (int i = 0; i < 3; ++i) app_break();  // several breaks collapse into one stop
  });
  int rc = 0;
  double took = timed_run(0, &rc, &started);
  t.join();
  EXPECT_GT(took, 0.04);
  EXPECT_LT(took, 5.0);             // not the guard
  EXPECT_NE(rc, 0);                 // the break watcher was still active when the loop stopped
  EXPECT_GT(timed_run(0.2), 0.15);  // the surplus breaks left nothing pending
}

void on_alarm(int) { app_break(); }

TEST(AppBreak, FromASignalHandler) {
  signal(SIGALRM, on_alarm);
  struct itimerval it {};
  it.it_value.tv_usec = 100 * 1000;
  setitimer(ITIMER_REAL, &it, nullptr);
  double took = timed_run(0);
  EXPECT_GT(took, 0.08);
  EXPECT_LT(took, 5.0);
}

TEST(AppBreak, BreaksOutsideTheLoopAreLostAndNestedRunsAllReturn) {
  app_break();  // before the first app_run (no default loop yet)
  EXPECT_GT(timed_run(0.2), 0.15);
  app_break();  // after app_run returned
  EXPECT_GT(timed_run(0.2), 0.15);
  // A break inside a nested ev_run ends every level, and app_run with it.
  static ev_timer nest, inner;
  ev_timer_init(
      &inner, [](struct ev_loop *, ev_timer *, int) { app_break(); }, 0.05, 0.0);
  ev_timer_init(
      &nest,
      [](struct ev_loop *loop, ev_timer *, int) {
        ev_timer_start(loop, &inner);
        ev_run(loop, 0);
      },
      0.0, 0.0);
  double took = timed_run(0, nullptr, &nest);
  EXPECT_GT(took, 0.04);
  EXPECT_LT(took, 5.0);
}

}  // namespace
