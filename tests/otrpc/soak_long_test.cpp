// ctest-labels: soak-long
#include "otrpc/soak_common.h"

TEST(SoakLong, HundredReconnections) { kelo::test::soak::run(100); }
