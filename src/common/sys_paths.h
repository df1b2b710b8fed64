// The one place that knows the device's fixed paths and the agent's address.
// Tests point it at a temporary tree and a free port before first use; it is
// neither exported nor read from the environment.
#pragma once

#include <cstdint>

namespace kelo::sys {

struct Paths {
  const char *shm_prefix;  // region files are "<shm_prefix><name>"
  const char *os_release;
  const char *proc_wireless;
  const char *font;
  const char *agent_addr;  // dotted IPv4
  uint16_t agent_port;     // host byte order
};

// The paths in force (the device's unless a test replaced them).
const Paths &paths();

// Test hook: replaces the paths. The strings must outlive every use.
void set_paths_for_testing(const Paths &p);

}  // namespace kelo::sys
