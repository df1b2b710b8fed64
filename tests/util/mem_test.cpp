// Aligned blocks, rounding and the block copies, with guard bytes around the
// destination at many lengths and line offsets.
#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <gtest/gtest.h>

#include <vector>

#include "kelo/mem.h"

namespace {

TEST(Mem, MallocAlignment) {
  struct Case {
    size_t size, align, want_align;
  } cases[] = {
      {100, 0, 8}, {100, 1, 8}, {100, 4, 8}, {100, 8, 8}, {100, 16, 16}, {1, 64, 64}, {100, 64, 64}, {5000, 4096, 4096},
  };
  for (const auto &c : cases) {
    auto *p = static_cast<unsigned char *>(kelo_malloc(c.size, c.align));
    ASSERT_NE(p, nullptr) << c.align;
    EXPECT_EQ(reinterpret_cast<uintptr_t>(p) % c.want_align, 0u) << c.align;
    memset(p, 0x5a, c.size);  // the whole size is usable (ASan checks the bounds)
    kelo_free(p);
  }
  kelo_free(nullptr);
}

TEST(Mem, MallocRefusals) {
  errno = 0;
  EXPECT_EQ(kelo_malloc(100, 3), nullptr);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(kelo_malloc(100, 48), nullptr);
  EXPECT_EQ(errno, EINVAL);
  errno = 0;
  EXPECT_EQ(kelo_malloc(0, 16), nullptr);
  EXPECT_EQ(errno, 0);
  EXPECT_EQ(kelo_malloc(SIZE_MAX - 4, 16), nullptr);  // size + align would wrap
}

TEST(Mem, Round) {
  struct Case {
    size_t v, a, want;
  } cases[] = {{100, 64, 128}, {128, 64, 128}, {0, 64, 0}, {1, 1, 1}, {7, 8, 8}, {4097, 4096, 8192}};
  for (const auto &c : cases) EXPECT_EQ(kelo_round(c.v, c.a), c.want) << c.v << "/" << c.a;
}

constexpr unsigned char kGuard = 0xa5;

// A source filled with a pattern and a guarded destination, both with room
// for the deliberate over-read and over-write, at chosen line offsets.
struct Buffers {
  std::vector<unsigned char> src_mem, dst_mem;
  unsigned char *src, *dst;
  Buffers(size_t len, unsigned src_off, unsigned dst_off, size_t slack) {
    src_mem.assign(len + slack + 192, 0);
    dst_mem.assign(len + slack + 192, kGuard);
    src = align64(src_mem.data()) + src_off;
    dst = align64(dst_mem.data()) + dst_off;
    for (size_t i = 0; i < len + 64; ++i) src[i] = static_cast<unsigned char>(i * 7 + 1);
  }
  static unsigned char *align64(unsigned char *p) {
    return p + ((64 - reinterpret_cast<uintptr_t>(p) % 64) % 64);
  }
  // Bytes of dst_mem outside [from, to) that changed.
  size_t touched_outside(const unsigned char *from, const unsigned char *to) const {
    size_t n = 0;
    for (const unsigned char *p = dst_mem.data(); p < dst_mem.data() + dst_mem.size(); ++p)
      if ((p < from || p >= to) && *p != kGuard) ++n;
    return n;
  }
};

TEST(Mem, KeloCopyCopiesOneBlockMore) {
  struct Case {
    int len;
    size_t copied;
  } cases[] = {{0, 64}, {1, 64}, {63, 64}, {64, 128}, {100, 128}, {127, 128}, {128, 192}, {1000, 1024}, {-5, 64}};
  for (const auto &c : cases)
    for (unsigned off : {0u, 4u, 8u, 60u}) {  // block loads and stores want 4-byte alignment
      Buffers b(c.copied, off, (off * 3) % 64, 64);
      kelo_copy(b.dst, b.src, c.len);
      EXPECT_EQ(memcmp(b.dst, b.src, c.copied), 0) << c.len;
      EXPECT_EQ(b.touched_outside(b.dst, b.dst + c.copied), 0u) << c.len << " off " << off;
    }
}

TEST(Mem, CpyPldShortIsMemcpy) {
  for (size_t len : {size_t{0}, size_t{1}, size_t{64}, size_t{126}})
    for (unsigned off : {0u, 3u, 8u}) {
      Buffers b(len, off, 0, 64);
      EXPECT_EQ(mem_cpy_pld(b.dst, b.src, len), b.dst);
      EXPECT_EQ(memcmp(b.dst, b.src, len), 0);
      EXPECT_EQ(b.touched_outside(b.dst, b.dst + len), 0u) << len;
    }
}

TEST(Mem, CpyPldLinesTheDestinationUp) {
  Buffers b(127, 8, 0, 128);
  auto *got = static_cast<unsigned char *>(mem_cpy_pld(b.dst, b.src, 127));
  EXPECT_EQ(got, b.dst + 8);
  EXPECT_EQ(memcmp(got, b.src, 127), 0);

  Buffers same(500, 24, 24, 128);
  EXPECT_EQ(mem_cpy_pld(same.dst, same.src, 500), same.dst);
  EXPECT_EQ(memcmp(same.dst, same.src, 500), 0);

  Buffers behind(300, 8, 40, 128);  // s < d: offset 8 of the next line, 32 bytes on
  EXPECT_EQ(mem_cpy_pld(behind.dst, behind.src, 300), behind.dst + 32);
}

TEST(Mem, CpyPldManyLengthsAndOffsets) {
  for (size_t len = 127; len < 700; len += 13)
    for (unsigned s = 0; s < 64; s += 5)
      for (unsigned d = 0; d < 64; d += 7) {
        Buffers b(len, s, d, 64 + 64);
        auto *got = static_cast<unsigned char *>(mem_cpy_pld(b.dst, b.src, len));
        size_t shift = static_cast<size_t>(got - b.dst);
        ASSERT_LT(shift, 64u);
        ASSERT_EQ(reinterpret_cast<uintptr_t>(got) % 64, reinterpret_cast<uintptr_t>(b.src) % 64);
        ASSERT_EQ(memcmp(got, b.src, len), 0) << len << " " << s << " " << d;
        // Nothing before dst' is written, and at most 64 bytes after its end.
        ASSERT_EQ(b.touched_outside(got, got + len + 64), 0u) << len << " " << s << " " << d;
      }
}

TEST(Mem, CpyPldLarge) {
  const size_t len = (1 << 20) + 37;
  Buffers b(len, 17, 3, 128);
  auto *got = static_cast<unsigned char *>(mem_cpy_pld(b.dst, b.src, len));
  EXPECT_EQ(memcmp(got, b.src, len), 0);
  EXPECT_EQ(b.touched_outside(got, got + len + 64), 0u);
}

}  // namespace
