// ctest-labels: soak
#include "otrpc/soak_common.h"

TEST(Soak, TenReconnections) { kelo::test::soak::run(10); }
