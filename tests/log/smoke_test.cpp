#include <gtest/gtest.h>

#include "kelo/log.h"
#include "support/sandbox.h"

TEST(LogSmoke, StderrLine) {
  kelo::test::Sandbox sb;
  auto r = kelo::test::run_child([] {
    setenv("KELO_LOG_FILE", "-", 1);
    log_info("hello %d", 5);
  });
  EXPECT_NE(r.err.find("[  info] hello 5\n"), std::string::npos) << r.err;
}
