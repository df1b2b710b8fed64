// ctest-labels: threads
// The main loop and its break: from another thread, from a signal handler,
// from a nested loop, and breaks that arrive while no app_run is running
// (they are lost).
#include <ev.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/time.h>

#include <atomic>
#include <chrono>
#include <thread>

#include "kelo/app.h"

namespace {

// Runs app_run with `also` (a timer callback, if any) due at once and a guard
// against a hung loop; returns the seconds it ran and app_run's result.
std::pair<double, int> timed_run(void (*also)(struct ev_loop *, ev_timer *, int) = nullptr) {
  struct ev_loop *loop = ev_default_loop(0);
  static ev_timer first, guard;
  ev_timer_init(
      &guard, [](struct ev_loop *l, ev_timer *, int) { ev_break(l, EVBREAK_ALL); }, 10.0, 0.0);
  ev_timer_start(loop, &guard);
  ev_timer_init(
      &first, also ? also : +[](struct ev_loop *, ev_timer *, int) {}, 0.0, 0.0);
  ev_timer_start(loop, &first);
  auto t0 = std::chrono::steady_clock::now();
  int rc = app_run();
  ev_timer_stop(loop, &guard);
  ev_timer_stop(loop, &first);
  return {std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count(), rc};
}

// A run that a timer breaks after 0.2 s: a break left pending would end it at once.
void expect_no_pending_break() {
  static ev_timer stop;
  ev_timer_init(
      &stop, [](struct ev_loop *, ev_timer *, int) { app_break(); }, 0.2, 0.0);
  ev_timer_start(ev_default_loop(0), &stop);
  EXPECT_GT(timed_run().first, 0.15);
}

std::atomic<int> g_running{0};

TEST(AppBreak, FromAnotherThreadAndASignalHandler) {
  // The loop tells the thread when it runs (a break before that is lost).
  std::thread t([] {
    while (g_running.load() == 0) usleep(1000);
    usleep(50 * 1000);
    for (int i = 0; i < 3; ++i) app_break();  // several breaks collapse into one stop
  });
  auto [took, rc] = timed_run([](struct ev_loop *, ev_timer *, int) { g_running.store(1); });
  t.join();
  EXPECT_TRUE(took > 0.04 && took < 5.0) << took;  // not the guard
  EXPECT_NE(rc, 0);                                // the break watcher was still active when the loop stopped
  expect_no_pending_break();
  signal(SIGALRM, [](int) { app_break(); });
  struct itimerval it {};
  it.it_value.tv_usec = 100 * 1000;
  setitimer(ITIMER_REAL, &it, nullptr);
  took = timed_run().first;
  EXPECT_TRUE(took > 0.08 && took < 5.0) << took;
}

TEST(AppBreak, BreaksOutsideTheLoopAreLostAndNestedRunsAllReturn) {
  app_break();  // before the first app_run (no default loop yet)
  expect_no_pending_break();
  app_break();  // after app_run returned
  expect_no_pending_break();
  // A break inside a nested ev_run ends every level, and app_run with it.
  double took = timed_run([](struct ev_loop *loop, ev_timer *, int) {
                  static ev_timer inner;
                  ev_timer_init(
                      &inner, [](struct ev_loop *, ev_timer *, int) { app_break(); }, 0.05, 0.0);
                  ev_timer_start(loop, &inner);
                  ev_run(loop, 0);
                }).first;
  EXPECT_TRUE(took > 0.04 && took < 5.0) << took;
}

}  // namespace
