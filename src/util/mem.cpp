// Aligned blocks and the line-aligned block copies.
#include "kelo/mem.h"

#include <errno.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "util/mem_internal.h"

namespace kelo::mem {
namespace {

// Destination of mem_cpy_pld: dst moved on (0..63 bytes) to the source's
// offset in a 64-byte line.
inline unsigned char *line_up(void *dst, const void *src) {
  const unsigned so = reinterpret_cast<uintptr_t>(src) & 63;
  const unsigned dof = reinterpret_cast<uintptr_t>(dst) & 63;
  return static_cast<unsigned char *>(dst) + ((so - dof) & 63);
}

// Bytes before the source reaches a line boundary.
inline size_t head_of(const void *src) { return (64 - (reinterpret_cast<uintptr_t>(src) & 63)) & 63; }

// mem_cpy_pld step by step: the head up to the source's line boundary, the
// whole lines with the block loop (which copies one block more), the tail.
template <void (*Blocks)(unsigned char *, const unsigned char *, intptr_t)>
void *copy_in_steps(void *dst, const void *src, size_t len) {
  if (len <= 126) {
    memcpy(dst, src, len);
    return dst;
  }
  unsigned char *d = line_up(dst, src);
  const auto *s = static_cast<const unsigned char *>(src);
  const size_t head = head_of(src);
  if (head != 0) memcpy(d, s, head);
  const size_t rest = len - head;
  const size_t blocks = rest & ~size_t{63};
  Blocks(d + head, s + head, static_cast<intptr_t>(blocks));
  memcpy(d + head + blocks, s + head + blocks, rest & 63);
  return d;
}

}  // namespace

void block_copy_plain(unsigned char *dst, const unsigned char *src, intptr_t count) {
  do {
    memcpy(dst, src, 64);
    dst += 64;
    src += 64;
    count -= 64;
  } while (count >= 0);
}

void *copy_pld_plain(void *dst, const void *src, size_t len) {
  return copy_in_steps<block_copy_plain>(dst, src, len);
}

#if defined(__ARM_NEON) && defined(__arm__)

namespace {

// block_copy_plain through the eight 64-bit NEON registers, reading ahead
// 192 bytes beyond the block in hand.
void block_copy(unsigned char *dst, const unsigned char *src, intptr_t count) {
  asm volatile(
      "1:\n\t"
      "pld [%[s], #192]\n\t"
      "vld1.64 {d0-d3}, [%[s]]!\n\t"
      "vld1.64 {d4-d7}, [%[s]]!\n\t"
      "subs %[n], %[n], #64\n\t"
      "vst1.64 {d0-d3}, [%[d]]!\n\t"
      "vst1.64 {d4-d7}, [%[d]]!\n\t"
      "bge 1b\n\t"
      : [d] "+r"(dst), [s] "+r"(src), [n] "+r"(count)
      :
      : "d0", "d1", "d2", "d3", "d4", "d5", "d6", "d7", "cc", "memory");
}

void *copy_pld(void *dst, const void *src, size_t len) { return copy_in_steps<block_copy>(dst, src, len); }

}  // namespace

#else

namespace {

// Without NEON the C library's memcpy beats a hand-written block loop (on
// x86 it moves L2-resident data about 1.5 times faster) and runs its own
// read-ahead.

// Every block the loop would copy, the extra one included.
inline void block_copy(unsigned char *dst, const unsigned char *src, intptr_t count) {
  const size_t blocks = count >= 0 ? static_cast<size_t>(count) / 64 + 1 : 1;
  memcpy(dst, src, blocks * 64);
}

// Every byte the plain version writes, with the same bytes in the end: the
// last 64 bytes of the extra block (the over-copy past len is 1 to 64 bytes;
// the tail copy of the plain version lies inside the extra block and writes
// what it already holds), then len bytes with a tail call to memcpy. Not one
// memcpy of the whole span: past 256 bytes glibc takes a slower path; and
// three calls as in the plain version cost a short copy 1.7 times memcpy's time.
void *copy_pld(void *dst, const void *src, size_t len) {
  if (len <= 126) return memcpy(dst, src, len);
  unsigned char *d = line_up(dst, src);
  const auto *s = static_cast<const unsigned char *>(src);
  const size_t head = head_of(src);
  const size_t end = head + ((len - head) & ~size_t{63}) + 64;
  memcpy(d + end - 64, s + end - 64, 64);  // a fixed size: inlined
  return memcpy(d, s, len);
}

}  // namespace

#endif

}  // namespace kelo::mem

extern "C" {

KELO_EXPORT void *kelo_malloc(size_t size, size_t align) {
  if ((align & (align - 1)) != 0) {
    errno = EINVAL;
    return nullptr;
  }
  if (size == 0) return nullptr;
  size_t a = align < 8 ? 8 : align;
  if (size > SIZE_MAX - a) {
    errno = ENOMEM;
    return nullptr;
  }
  void *raw = malloc(size + a);
  if (raw == nullptr) return nullptr;
  // malloc blocks are at least 8-aligned, so p lies 8..a bytes above raw and
  // the word before p is inside the block.
  uintptr_t p = (reinterpret_cast<uintptr_t>(raw) + a) & ~(uintptr_t{a} - 1);
  void **slot = reinterpret_cast<void **>(p) - 1;
  memcpy(slot, &raw, sizeof raw);
  return reinterpret_cast<void *>(p);
}

KELO_EXPORT void kelo_free(void *p) {
  if (p == nullptr) return;
  void *raw;
  memcpy(&raw, static_cast<void **>(p) - 1, sizeof raw);
  free(raw);
}

KELO_EXPORT size_t kelo_round(size_t value, size_t align) { return (value + align - 1) & (0 - align); }

KELO_EXPORT void kelo_copy(void *dst, const void *src, int len) {
  kelo::mem::block_copy(static_cast<unsigned char *>(dst), static_cast<const unsigned char *>(src), len);
}

KELO_EXPORT void *mem_cpy_pld(void *dst, const void *src, size_t len) {
  return kelo::mem::copy_pld(dst, src, len);
}

}  // extern "C"
