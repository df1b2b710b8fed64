// Aligned blocks, rounding and the block copies, with guard bytes around the
// destination (random lengths and offsets: the mem copy fuzz target).
#include <errno.h>
#include <stdint.h>
#include <string.h>

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "kelo/mem.h"

namespace {

TEST(Mem, MallocAndRound) {
  // size, align, the alignment given (at least 8).
  const std::tuple<size_t, size_t, size_t> cases[] = {
      {100, 0, 8}, {100, 4, 8}, {100, 16, 16}, {1, 64, 64}, {5000, 4096, 4096}};
  for (auto [size, align, want_align] : cases) {
    auto *p = static_cast<unsigned char *>(kelo_malloc(size, align));
    ASSERT_NE(p, nullptr) << align;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % want_align, 0u) << align;
    memset(p, 0x5a, size);  // the whole size is usable (ASan checks the bounds)
    kelo_free(p);
  }
  kelo_free(nullptr);
  // Refused: not a power of two, size 0 (errno untouched), size + align wrapping.
  const std::tuple<size_t, size_t, int> refused[] = {{100, 48, EINVAL}, {0, 16, 0}, {SIZE_MAX - 4, 16, -1}};
  for (auto [size, align, err] : refused) {
    errno = 0;
    EXPECT_EQ(kelo_malloc(size, align), nullptr) << align;
    EXPECT_TRUE(err < 0 || errno == err) << align;
  }
  for (auto [v, a, want] :
       {std::tuple<size_t, size_t, size_t>{100, 64, 128}, {128, 64, 128}, {4097, 4096, 8192}})
    EXPECT_EQ(kelo_round(v, a), want) << v << "/" << a;
}

constexpr unsigned char kGuard = 0xa5;

// A patterned source and a guarded destination at chosen line offsets, with
// room for the deliberate over-read and over-write.
struct Buffers {
  std::vector<unsigned char> src_mem, dst_mem;
  unsigned char *src, *dst;
  Buffers(size_t len, unsigned src_off, unsigned dst_off)
      : src_mem(len + 320, 0), dst_mem(len + 320, kGuard) {
    src = src_mem.data() + (-reinterpret_cast<uintptr_t>(src_mem.data()) % 64) + src_off;
    dst = dst_mem.data() + (-reinterpret_cast<uintptr_t>(dst_mem.data()) % 64) + dst_off;
    for (size_t i = 0; i < len + 64; ++i) src[i] = static_cast<unsigned char>(i * 7 + 1);
  }
  // Bytes of dst_mem outside [from, to) that changed.
  size_t touched_outside(const unsigned char *from, const unsigned char *to) const {
    size_t n = 0;
    for (const unsigned char *p = dst_mem.data(); p < dst_mem.data() + dst_mem.size(); ++p)
      n += (p < from || p >= to) && *p != kGuard;
    return n;
  }
};

TEST(Mem, KeloCopyCopiesOneBlockMore) {
  const std::pair<int, size_t> cases[] = {{0, 64}, {63, 64}, {64, 128}, {127, 128}, {1000, 1024}, {-5, 64}};
  for (auto [len, copied] : cases)
    for (unsigned off : {0u, 4u, 60u}) {  // block loads and stores want 4-byte alignment
      Buffers b(copied, off, (off * 3) % 64);
      kelo_copy(b.dst, b.src, len);
      EXPECT_EQ(memcmp(b.dst, b.src, copied), 0) << len;
      EXPECT_EQ(b.touched_outside(b.dst, b.dst + copied), 0u) << len << " off " << off;
    }
}

// Short copies are plain memcpy; from 127 bytes on the destination moves up
// to the source's line offset and up to 64 bytes past the end may be written.
TEST(Mem, CpyPldLengthsAndOffsets) {
  for (size_t len : {size_t{0}, size_t{126}, size_t{127}, size_t{128}, size_t{700}, size_t{(1 << 20) + 37}})
    for (unsigned s = 0; s < 64; s += 9)
      for (unsigned d = 0; d < 64; d += 13) {
        Buffers b(len, s, d);
        auto *got = static_cast<unsigned char *>(mem_cpy_pld(b.dst, b.src, len));
        ASSERT_LT(static_cast<size_t>(got - b.dst), len < 127 ? 1u : 64u);
        ASSERT_TRUE(len < 127 ||
                    reinterpret_cast<uintptr_t>(got) % 64 == reinterpret_cast<uintptr_t>(b.src) % 64);
        ASSERT_EQ(memcmp(got, b.src, len), 0) << len << " " << s << " " << d;
        ASSERT_EQ(b.touched_outside(got, got + len + (len < 127 ? 0 : 64)), 0u)
            << len << " " << s << " " << d;
      }
}

}  // namespace
