// kelo_copy and mem_cpy_pld against memcpy at random lengths and line offsets:
// the same bytes arrive, and nothing outside what each may write changes
// (kelo_copy: whole 64-byte blocks, one more than len / 64; mem_cpy_pld: the
// data moved up to the source's line offset plus 64 bytes of slack from 127
// bytes on). Both buffers are exact-size heap blocks, so ASan sees over-reads.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kelo/mem.h"

namespace {

constexpr unsigned char kGuard = 0xa5;

// Checks dst[0, size) outside [from, to) still holds the guard.
void check_guard(const unsigned char *dst, size_t size, size_t from, size_t to) {
  for (size_t i = 0; i < size; ++i)
    if ((i < from || i >= to) && dst[i] != kGuard) abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 4) return 0;
  const size_t len = (static_cast<size_t>(data[0]) << 8 | data[1]) % 9000;
  const unsigned so = data[2] % 64 & ~3u, dof = data[3] % 64 & ~3u;  // block copies want 4-byte alignment
  // Room for the line offsets, the extra block and the read-ahead of both.
  const size_t room = (len + 64 + 192 + 128 + 63) / 64 * 64;
  auto *src_mem = static_cast<unsigned char *>(aligned_alloc(64, room));
  auto *dst_mem = static_cast<unsigned char *>(aligned_alloc(64, room));
  unsigned char *src = src_mem + so, *dst = dst_mem + dof;
  for (size_t i = 0; i < room - so; ++i)
    src[i] = i + 4 < size ? data[i + 4] : static_cast<unsigned char>(i * 7 + 1);

  memset(dst_mem, kGuard, room);
  auto *got = static_cast<unsigned char *>(mem_cpy_pld(dst, src, len));
  const size_t moved = static_cast<size_t>(got - dst);
  if (len < 127 ? moved != 0 : moved != ((so - dof) & 63)) abort();
  if (memcmp(got, src, len) != 0) abort();
  check_guard(dst_mem, room, dof + moved, dof + moved + len + (len < 127 ? 0 : 64));

  memset(dst_mem, kGuard, room);
  const int blen = static_cast<int>(len) - (data[2] & 1 ? 64 : 0);  // also negative counts
  const size_t copied = (blen < 0 ? 1 : static_cast<size_t>(blen) / 64 + 1) * 64;
  if (copied <= room - 192 - so) {
    kelo_copy(dst, src, blen);
    if (memcmp(dst, src, copied) != 0) abort();
    check_guard(dst_mem, room, dof, dof + copied);
  }
  free(src_mem);
  free(dst_mem);
  return 0;
}
