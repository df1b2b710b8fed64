// Unprivileged children for tests.
#include "support/system_log.h"

#include <grp.h>
#include <unistd.h>

namespace kelo::test {

bool drop_to_nobody() {
  return geteuid() == 0 && setgroups(0, nullptr) == 0 && setgid(65534) == 0 && setuid(65534) == 0;
}

}  // namespace kelo::test
