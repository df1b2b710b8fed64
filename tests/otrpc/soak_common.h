// The agent drops the connection again and again while the service keeps
// sending (a message a millisecond from a loop timer) and answering. Shared
// by the short soak test and the long one.
#pragma once

#include <ev.h>
#include <gtest/gtest.h>
#include <json-c/json.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "kelo/otrpc.h"
#include "support/fake_agent.h"
#include "support/sandbox.h"

namespace kelo::test::soak {

inline const char *const kMethods[] = {"cam.a", "cam.b", "cam.c"};

struct Service {
  ev_timer tick = {};
  otrpc_state_hook hook = {};
  int connected = 0;        // the client's view
  long long next_seq = 0;
  std::set<long long> must_arrive;  // queued while no connection was up
  double last_tick = 0, max_gap = 0;
};

inline Service *g_service = nullptr;

inline int answer(void *, json_object *, json_object *) { return 0; }

inline void on_tick(struct ev_loop *, ev_timer *, int) {
  Service &s = *g_service;
  double now = now_s();
  if (s.last_tick != 0) s.max_gap = std::max(s.max_gap, now - s.last_tick);
  s.last_tick = now;
  json_object *m = otrpc_create_message("tick");
  json_object *p = nullptr;
  json_object_object_get_ex(m, "params", &p);
  json_object_object_add(p, "seq", json_object_new_int64(s.next_seq));
  if (!s.connected) s.must_arrive.insert(s.next_seq);
  ++s.next_seq;
  otrpc_send(m);
  json_object_put(m);
}

inline int on_state(void *, int to, int) {
  g_service->connected = to == OTCONN_CONNECTED;
  return 0;
}

inline void run(int cycles) {
  setenv("KELO_LOG_LEVEL", "info", 1);
  Sandbox sb;
  FakeAgent agent(sb.agent_port());
  Service svc;
  g_service = &svc;
  ASSERT_EQ(otrpc_init(), 0);
  for (const char *m : kMethods) ASSERT_EQ(otrpc_register(m, answer, nullptr, 0), 0);
  svc.hook.fn = on_state;
  svc.hook.prev = &svc.hook;
  svc.hook.next = nullptr;
  // Appended behind the registry's own hook.
  svc.hook.prev = otrpc_on_state_changed->prev;
  otrpc_on_state_changed->prev->next = &svc.hook;
  otrpc_on_state_changed->prev = &svc.hook;
  struct ev_loop *loop = ev_default_loop(0);
  ev_timer_init(&svc.tick, on_tick, 0.001, 0.001);
  ev_timer_start(loop, &svc.tick);
  otrpc_start();

  for (int c = 1; c <= cycles; ++c) {
    ASSERT_TRUE(pump_until([&] { return agent.with_method("register").size() >= 3u * c; }, 5)) << "cycle " << c;
    std::string req = R"({"method":"cam.b","id":)" + std::to_string(c) + "}";
    agent.send_raw(req);
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
  long long last = svc.next_seq;
  ASSERT_TRUE(pump_until(
      [&] {
        auto t = agent.with_method("tick");
        if (t.empty()) return false;
        json_object *p = nullptr;
        json_object_object_get_ex(t.back().obj, "params", &p);
        return jint(p, "seq") >= last;
      },
      5));
  ev_timer_stop(loop, &svc.tick);

  // Every method exactly once per connection.
  std::map<int, std::multiset<std::string>> per_conn;
  for (const auto &r : agent.with_method("register")) per_conn[r.conn].insert(jstr(r.obj, "key"));
  EXPECT_EQ(static_cast<int>(per_conn.size()), agent.connections());
  for (const auto &[conn, keys] : per_conn) {
    EXPECT_EQ(keys.size(), 3u) << "connection " << conn;
    for (const char *m : kMethods) EXPECT_EQ(keys.count(m), 1u) << "connection " << conn << " " << m;
  }
  // No message twice, in order; none lost that was queued while no
  // connection was up (only texts already handed to a dying socket may be).
  std::set<long long> got;
  long long prev = -1;
  for (const auto &r : agent.with_method("tick")) {
    json_object *p = nullptr;
    json_object_object_get_ex(r.obj, "params", &p);
    long long seq = jint(p, "seq");
    EXPECT_TRUE(got.insert(seq).second) << seq;
    EXPECT_GT(seq, prev);
    prev = seq;
  }
  size_t missing = 0;
  for (long long s : svc.must_arrive) missing += got.count(s) == 0;
  EXPECT_EQ(missing, 0u) << "of " << svc.must_arrive.size();
  EXPECT_EQ(agent.parse_errors(), 0);
  // The loop never stalled.
  EXPECT_LT(svc.max_gap, 0.5);
  ::testing::Test::RecordProperty("sent", static_cast<int>(svc.next_seq));
  ::testing::Test::RecordProperty("received", static_cast<int>(got.size()));
  otrpc_fini();
  g_service = nullptr;
}

}  // namespace kelo::test::soak
