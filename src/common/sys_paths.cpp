// Fixed device paths and the agent endpoint, behind one replaceable record.
#include "common/sys_paths.h"

namespace kelo::sys {
namespace {

constinit Paths g_paths = {
    "/dev/shm/kelo-",     "/etc/os-release",
    "/proc/net/wireless", "/mnt/data/data/font/QZ_LanTing_Light_Camera.ttf",
    "127.0.0.1",          54320,
};

}  // namespace

const Paths &paths() { return g_paths; }

void set_paths_for_testing(const Paths &p) { g_paths = p; }

}  // namespace kelo::sys
