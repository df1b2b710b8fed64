// The block copies written out step by step, without NEON: the reference
// that the tests hold the fast copies to, byte for byte.
#pragma once

#include <stddef.h>
#include <stdint.h>

namespace kelo::mem {

// 64-byte blocks while count, lowered by 64 after each, stays >= 0.
void block_copy_plain(unsigned char *dst, const unsigned char *src, intptr_t count);
// mem_cpy_pld as a head memcpy, the block loop above and a tail memcpy.
void *copy_pld_plain(void *dst, const void *src, size_t len);

}  // namespace kelo::mem
