// The agent drops the connection again and again while the service keeps
// sending (a message a millisecond from a loop timer) and answering. Shared
// by the short soak test and the long one.
#pragma once

#include <ev.h>
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <algorithm>
#include <map>
#include <set>
#include <string>

#include "common/dlist.h"
#include "kelo/otrpc.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

namespace kelo::test::soak {

struct Service {
  int connected = 0;  // the client's view
  long long next_seq = 0;
  std::set<long long> must_arrive;  // queued while no connection was up
  double last_tick = 0, max_gap = 0;
};

inline Service g_svc;

inline int answer(void *, json_object *, json_object *) { return 0; }

inline void on_tick(struct ev_loop *, ev_timer *, int) {
  double now = now_s();
  if (g_svc.last_tick != 0) g_svc.max_gap = std::max(g_svc.max_gap, now - g_svc.last_tick);
  g_svc.last_tick = now;
  json_object *m = otrpc_create_message("tick");
  json_object_object_add(m, "seq", json_object_new_int64(g_svc.next_seq));
  if (!g_svc.connected) g_svc.must_arrive.insert(g_svc.next_seq);
  ++g_svc.next_seq;
  otrpc_send(m);
  json_object_put(m);
}

inline int on_state(void *, int to, int) {
  g_svc.connected = to == OTCONN_CONNECTED;
  return 0;
}

inline void run(int cycles) {
  setenv("KELO_LOG_LEVEL", "info", 1);
  Sandbox sb;
  FakeAgent agent(sb.agent_port());
  ASSERT_EQ(otrpc_init(), 0);
  const char *const methods[] = {"cam.a", "cam.b", "cam.c"};
  for (const char *m : methods) ASSERT_EQ(otrpc_register(m, answer, nullptr, 0), 0);
  // Appended behind the registry's own hook.
  static otrpc_state_hook hook = {nullptr, on_state, nullptr, nullptr};
  kelo::dlist::append(&otrpc_on_state_changed, &hook);
  ev_timer tick;
  ev_timer_init(&tick, on_tick, 0.001, 0.001);
  ev_timer_start(EV_DEFAULT_ & tick);
  otrpc_start();
  for (int c = 1; c <= cycles; ++c) {
    ASSERT_TRUE(pump_until([&] { return agent.with_method("register").size() >= 3u * c; }, 5))
        << "cycle " << c;
    agent.send_raw(R"({"method":"cam.b","id":)" + std::to_string(c) + "}");
    ASSERT_TRUE(pump_until([&] { return agent.reply_for(c) != nullptr; }, 5)) << "cycle " << c;
    pump_for(0.02);
    if (c % 10 == 0) {
      agent.stop_listening();  // the agent goes away for a moment
      pump_for(0.05);
      agent.start_listening();
    } else {
      agent.close_connection();
    }
  }
  // A quiet end: everything queued goes out.
  ASSERT_TRUE(pump_until([&] { return agent.with_method("register").size() >= 3u * (cycles + 1); }, 5));
  long long last = g_svc.next_seq;
  auto ticks = [&] { return agent.with_method("tick"); };
  ASSERT_TRUE(pump_until([&] { return !ticks().empty() && jint(ticks().back().obj, "seq") >= last; }, 5));
  ev_timer_stop(EV_DEFAULT_ & tick);
  // Every method exactly once per connection.
  std::map<int, std::multiset<std::string>> per_conn;
  for (const auto &r : agent.with_method("register")) per_conn[r.conn].insert(jstr(r.obj, "key"));
  EXPECT_EQ(int(per_conn.size()), agent.connections());
  for (const auto &[conn, keys] : per_conn)
    EXPECT_EQ(keys, std::multiset<std::string>(methods, methods + 3)) << conn;
  // No message twice, in order; none lost that was queued while no
  // connection was up (only texts already handed to a dying socket may be).
  std::set<long long> got;
  for (const auto &r : ticks()) {
    long long seq = jint(r.obj, "seq");
    EXPECT_TRUE(got.empty() || seq > *got.rbegin()) << seq;
    got.insert(seq);
  }
  size_t missing = 0;
  for (long long s : g_svc.must_arrive) missing += got.count(s) == 0;
  EXPECT_EQ(missing, 0u) << "of " << g_svc.must_arrive.size();
  EXPECT_EQ(agent.parse_errors(), 0);
  EXPECT_LT(g_svc.max_gap, 0.5);  // the loop never stalled
  ::testing::Test::RecordProperty("sent", int(g_svc.next_seq));
  ::testing::Test::RecordProperty("received", int(got.size()));
  otrpc_fini();
}

}  // namespace kelo::test::soak
