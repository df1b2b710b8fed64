// Test support for code that needs another user: dropping a forked child to
// an unprivileged user.
#pragma once

namespace kelo::test {

// Switches this process to the user and group "nobody" (65534). Only for
// forked children. False when not running as root or when it fails.
bool drop_to_nobody();

}  // namespace kelo::test
