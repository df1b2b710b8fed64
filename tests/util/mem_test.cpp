// Aligned blocks, and the fast block copies against their plain versions.
// The copies are also compared with memcpy, guard bytes around the
// destination, by the mem_copy fuzz target.
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <tuple>

#include "kelo/mem.h"
#include "util/mem_internal.h"

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

// The NEON copies (or the single memcpy without NEON) leave both buffers
// exactly as the step-by-step versions do, the bytes copied past the end
// included: lengths around the block and line boundaries, every line offset
// of source and destination that the block loads allow.
TEST(MemCopy, FastCopiesMatchThePlainSteps) {
  constexpr size_t kRoom = 8192;
  alignas(64) static unsigned char src[kRoom], fast[kRoom], plain[kRoom];
  for (size_t i = 0; i < kRoom; ++i) src[i] = static_cast<unsigned char>(i * 7 + i / 251);
  const size_t lens[] = {0, 1, 63, 64, 65, 126, 127, 128, 191, 192, 193, 255, 256, 1000, 4095, 4096, 4097};
  for (size_t len : lens)
    for (unsigned so = 0; so < 64; so += 4)
      for (unsigned dof = 0; dof < 64; dof += 12) {
        memset(fast, 0xa5, kRoom);
        memset(plain, 0xa5, kRoom);
        const size_t got =
            static_cast<size_t>(static_cast<unsigned char *>(mem_cpy_pld(fast + dof, src + so, len)) - fast);
        const size_t want = static_cast<size_t>(
            static_cast<unsigned char *>(kelo::mem::copy_pld_plain(plain + dof, src + so, len)) - plain);
        ASSERT_EQ(got, want) << len << " " << so << " " << dof;
        ASSERT_EQ(memcmp(fast, plain, kRoom), 0) << "mem_cpy_pld " << len << " " << so << " " << dof;

        const int blen = static_cast<int>(len) - 64;  // also negative counts
        kelo_copy(fast + dof, src + so, blen);
        kelo::mem::block_copy_plain(plain + dof, src + so, blen);
        ASSERT_EQ(memcmp(fast, plain, kRoom), 0) << "kelo_copy " << blen << " " << so << " " << dof;
      }
}

}  // namespace
