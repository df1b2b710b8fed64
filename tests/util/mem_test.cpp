// Aligned blocks. The block copies are compared with memcpy, guard bytes
// around the destination, by the mem_copy fuzz target.
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <tuple>

#include "kelo/mem.h"

namespace {

TEST(Mem, MallocAlignmentsAndRefusals) {
  // size, align, the alignment given (at least 8), errno when refused: not a
  // power of two, size 0 (errno untouched), size + align wrapping.
  const std::tuple<size_t, size_t, size_t, int> cases[] = {{100, 0, 8, 0},
                                                           {100, 4, 8, 0},
                                                           {1, 64, 64, 0},
                                                           {5000, 4096, 4096, 0},
                                                           {100, 48, 0, EINVAL},
                                                           {0, 16, 0, 0},
                                                           {SIZE_MAX - 4, 16, 0, ENOMEM}};
  for (auto [size, align, want_align, err] : cases) {
    errno = 0;
    auto *p = static_cast<unsigned char *>(kelo_malloc(size, align));
    EXPECT_EQ(p != nullptr, want_align != 0) << size << "/" << align;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % (want_align ? want_align : 1), 0u);
    if (p) memset(p, 0x5a, size);  // the whole size is usable (ASan checks the bounds)
    EXPECT_EQ(errno, err) << size << "/" << align;
    kelo_free(p);
  }
}

}  // namespace
