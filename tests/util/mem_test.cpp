// Aligned blocks and the block copies, with guard bytes around the
// destination (random lengths and offsets: the mem_copy fuzz target).
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

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

// Copies len bytes from a patterned source at line offset so into a guarded
// destination at line offset dof, with kelo_copy(block_len) when block_len is
// given; returns how far the data moved up. Checks the data and that nothing
// outside [data, data + len + slack) was written.
size_t copy_checked(size_t len, unsigned so, unsigned dof, size_t slack, const int *block_len = nullptr) {
  static std::vector<unsigned char> src, dst;
  src.assign(len + 320, 0);
  dst.assign(len + 320, 0xa5);
  unsigned char *s = src.data() + (-reinterpret_cast<uintptr_t>(src.data()) % 64) + so;
  unsigned char *d = dst.data() + (-reinterpret_cast<uintptr_t>(dst.data()) % 64) + dof;
  for (size_t i = 0; i < len + 64; ++i) s[i] = static_cast<unsigned char>(i * 7 + 1);
  auto *got =
      block_len ? (kelo_copy(d, s, *block_len), d) : static_cast<unsigned char *>(mem_cpy_pld(d, s, len));
  EXPECT_EQ(memcmp(got, s, len), 0) << len;
  for (const unsigned char *p = dst.data(); p < dst.data() + dst.size(); ++p)
    if ((p < got || p >= got + len + slack) && *p != 0xa5) ADD_FAILURE() << len << " " << so << " " << dof;
  return static_cast<size_t>(got - d);
}

TEST(Mem, BlockCopies) {
  // kelo_copy: one 64-byte block more than len / 64, one for a negative len.
  for (auto [len, copied] : {std::pair<int, size_t>{0, 64}, {63, 64}, {64, 128}, {1000, 1024}, {-5, 64}})
    for (unsigned off : {0u, 4u, 60u}) copy_checked(copied, off, (off * 3) % 64, 0, &len);
  // mem_cpy_pld: memcpy up to 126 bytes; from 127 on the destination moves up
  // (by less than a line) to the source's line offset and up to 64 bytes past
  // the end may be written.
  for (size_t len : {0u, 126u, 127u, 700u, (1u << 20) + 37})
    for (unsigned so = 0; so < 64; so += 9)
      for (unsigned dof = 0; dof < 64; dof += 13) {
        size_t moved = copy_checked(len, so, dof, len < 127 ? 0 : 64);
        EXPECT_EQ(moved, len < 127 ? 0 : (so - dof) & 63) << len << " " << so << " " << dof;
      }
}

}  // namespace
