// ARGB1555 and BGR888 bitmaps to NV12 (Y plane, then Cb Cr pairs).
#include "osd/yuv.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kelo/osd.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace kelo::osd {
namespace {

// The conversion the video pipeline expects, in integers: 8-bit components
// (5-bit ones shifted left by 3, low bits left clear), arithmetic shifts, Cb
// and Cr stored modulo 256. Do not round or clamp differently: the overlay
// colours are matched against these values.
inline uint8_t luma(int r, int g, int b) {
  return static_cast<uint8_t>(((66 * r + 129 * g + 25 * b + 128) >> 8) + 16);
}
inline uint8_t chroma_b(int r, int g, int b) {
  return static_cast<uint8_t>(((-38 * r - 74 * g + 112 * b + 128) >> 8) - 128);
}
inline uint8_t chroma_r(int r, int g, int b) {
  return static_cast<uint8_t>(((112 * r - 94 * g - 18 * b + 128) >> 8) - 128);
}

struct Pixel1555 {
  static constexpr int kBytes = 2;
  static void rgb(const unsigned char *p, int &r, int &g, int &b) {
    const unsigned v = static_cast<unsigned>(p[0]) | static_cast<unsigned>(p[1]) << 8;
    r = static_cast<int>((v >> 10) & 31) << 3;
    g = static_cast<int>((v >> 5) & 31) << 3;
    b = static_cast<int>(v & 31) << 3;
  }
};

struct Pixel888 {
  static constexpr int kBytes = 3;
  static void rgb(const unsigned char *p, int &r, int &g, int &b) {
    b = p[0];
    g = p[1];
    r = p[2];
  }
};

// Sizes the conversion can address: positive, and small enough that every
// offset fits the address space on the device.
bool size_ok(int width, int height) {
  return width > 0 && height > 0 && static_cast<int64_t>(width) * height <= INT_MAX / 4;
}

size_t image_size(int width, int height) {
  return static_cast<size_t>(static_cast<double>(width * height) * 1.5);
}

// One output row of luma; with uv, also the chroma of the even columns.
template <typename P>
inline void convert_row(const unsigned char *src, int w2, uint8_t *y, uint8_t *uv) {
  if (uv == nullptr) {
    for (int j = 0; j < w2; ++j) {
      int r, g, b;
      P::rgb(src + j * P::kBytes, r, g, b);
      y[j] = luma(r, g, b);
    }
    return;
  }
  for (int j = 0; j < w2; j += 2) {
    int r, g, b;
    P::rgb(src + j * P::kBytes, r, g, b);
    y[j] = luma(r, g, b);
    uv[j] = chroma_b(r, g, b);
    uv[j + 1] = chroma_r(r, g, b);
    P::rgb(src + (j + 1) * P::kBytes, r, g, b);
    y[j + 1] = luma(r, g, b);
  }
}

#if defined(__SSE2__)
#define KELO_YUV_VECTORS 1

// GCC turns a multiplication by a known constant into shifts and adds, up
// to six instructions where pmullw is one: the factors are loaded once per
// row and hidden from it.
inline __m128i factor(short k) {
  __m128i v = _mm_set1_epi16(k);
  asm("" : "+x"(v));
  return v;
}

struct Factors {
  // luma() on the 5-bit fields, each taken where a mask or one shift leaves
  // it: the high half of (r << 10) * 33792 is 528 * r = 66 * (r << 3);
  // 129 * (g << 3); 200 * b.
  __m128i y_r = factor(-31744), y_g = factor(129), y_b = factor(200);
  // chroma_b() and chroma_r() on the 5-bit fields: the factors times 8.
  __m128i cb_r = factor(-38 * 8), cb_g = factor(-74 * 8), cb_b = factor(112 * 8);
  __m128i cr_r = factor(112 * 8), cr_g = factor(-94 * 8), cr_b = factor(-18 * 8);
};

inline __m128i luma_1555(__m128i px, const Factors &k) {
  const __m128i r = _mm_mulhi_epu16(_mm_and_si128(px, _mm_set1_epi16(0x7c00)), k.y_r);
  const __m128i g = _mm_mullo_epi16(_mm_and_si128(_mm_srli_epi16(px, 2), _mm_set1_epi16(0xf8)), k.y_g);
  const __m128i b = _mm_mullo_epi16(_mm_and_si128(px, _mm_set1_epi16(31)), k.y_b);
  // Adding 16 << 8 puts the offset in before the shift.
  return _mm_srli_epi16(_mm_add_epi16(_mm_add_epi16(r, g), _mm_add_epi16(b, _mm_set1_epi16(128 + 4096))), 8);
}

// chroma_b() or chroma_r() of eight pixels, in the low byte of each lane.
inline __m128i chroma_1555(__m128i r, __m128i g, __m128i b, __m128i kr, __m128i kg, __m128i kb) {
  const __m128i sum = _mm_add_epi16(_mm_add_epi16(_mm_mullo_epi16(r, kr), _mm_mullo_epi16(g, kg)),
                                    _mm_add_epi16(_mm_mullo_epi16(b, kb), _mm_set1_epi16(128)));
  return _mm_sub_epi16(_mm_srai_epi16(sum, 8), _mm_set1_epi16(128));
}

// convert_row<Pixel1555>, sixteen pixels per round in SSE2's 16-bit lanes;
// the last pixels of a row that is not a multiple of 16 wide go through
// convert_row. Every intermediate fits 16 bits: Y's sum is at most
// 54688 + 4096, Cb's and Cr's lie within +-27904.
inline void convert_row_1555(const unsigned char *src, int w2, uint8_t *y, uint8_t *uv) {
  const Factors k;
  int j = 0;
  for (; j + 16 <= w2; j += 16) {
    const __m128i p0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 2 * j));
    const __m128i p1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 2 * j + 16));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(y + j),
                     _mm_packus_epi16(luma_1555(p0, k), luma_1555(p1, k)));
    if (uv != nullptr) {
      // The even pixels, sign-extended from the low half of each 32-bit word
      // so that the saturating pack keeps them as they are.
      const __m128i even = _mm_packs_epi32(_mm_srai_epi32(_mm_slli_epi32(p0, 16), 16),
                                           _mm_srai_epi32(_mm_slli_epi32(p1, 16), 16));
      const __m128i five = _mm_set1_epi16(31);
      const __m128i r = _mm_and_si128(_mm_srli_epi16(even, 10), five);
      const __m128i g = _mm_and_si128(_mm_srli_epi16(even, 5), five);
      const __m128i b = _mm_and_si128(even, five);
      const __m128i cb = chroma_1555(r, g, b, k.cb_r, k.cb_g, k.cb_b);
      const __m128i cr = chroma_1555(r, g, b, k.cr_r, k.cr_g, k.cr_b);
      // Cb in the low byte, Cr in the high one: the NV12 byte order.
      const __m128i pairs = _mm_or_si128(_mm_and_si128(cb, _mm_set1_epi16(0xff)), _mm_slli_epi16(cr, 8));
      _mm_storeu_si128(reinterpret_cast<__m128i *>(uv + j), pairs);
    }
  }
  if (j < w2) convert_row<Pixel1555>(src + 2 * j, w2 - j, y + j, uv ? uv + j : nullptr);
}

#elif __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__
#define KELO_YUV_VECTORS 1

// Elsewhere (NEON on the device) the same sixteen pixels at a time in the
// compiler's generic vectors, with the same 16-bit bounds.
typedef uint16_t u16x16 __attribute__((vector_size(32)));
typedef uint32_t u32x8 __attribute__((vector_size(32)));
typedef uint16_t u16x8 __attribute__((vector_size(16)));
typedef int16_t s16x8 __attribute__((vector_size(16)));
typedef uint8_t u8x16 __attribute__((vector_size(16)));

// convert_row<Pixel1555>, sixteen pixels per round; the last pixels of a
// row that is not a multiple of 16 wide go through convert_row.
inline void convert_row_1555(const unsigned char *src, int w2, uint8_t *y, uint8_t *uv) {
  int j = 0;
  for (; j + 16 <= w2; j += 16) {
    u16x16 px;
    memcpy(&px, src + 2 * j, sizeof px);
    // luma() on the 5-bit fields: 66 * (r << 3) = 33 * (r << 4), 129 * (g << 3)
    // and 200 * b, each field masked where a shift leaves it; + 16 << 8
    // adds the offset before the shift.
    const u16x16 sum = ((px >> 6) & 0x1f0) * 33 + ((px >> 2) & 0xf8) * 129 + (px & 31) * 200 + (128 + 4096);
    const u8x16 luma8 = __builtin_convertvector(sum >> 8, u8x16);
    memcpy(y + j, &luma8, sizeof luma8);
    if (uv != nullptr) {
      // The even pixels are the low halves of the 32-bit words.
      u32x8 pairs_in;
      memcpy(&pairs_in, &px, sizeof pairs_in);
      const u16x8 even = __builtin_convertvector(pairs_in, u16x8);
      const s16x8 r = __builtin_convertvector((even >> 10) & 31, s16x8);
      const s16x8 g = __builtin_convertvector((even >> 5) & 31, s16x8);
      const s16x8 b = __builtin_convertvector(even & 31, s16x8);
      const s16x8 cb = ((r * -304 + g * -592 + b * 896 + 128) >> 8) - 128;
      const s16x8 cr = ((r * 896 + g * -752 + b * -144 + 128) >> 8) - 128;
      // Cb in the low byte, Cr in the high one: the NV12 byte order.
      const u16x8 pairs = __builtin_convertvector((cb & 0xff) | (cr << 8), u16x8);
      memcpy(uv + j, &pairs, sizeof pairs);
    }
  }
  if (j < w2) convert_row<Pixel1555>(src + 2 * j, w2 - j, y + j, uv ? uv + j : nullptr);
}
#endif

// Clears what the conversion does not write (the odd last column and row
// and their chroma bytes), nothing more: the rest is written anyway. Not a
// memset of the whole image, which the compiler would turn, with the malloc
// before it, into a calloc that clears every byte of every image.
void clear_unconverted(uint8_t *out, int width, int height, size_t size) {
  const size_t w = static_cast<size_t>(width), h = static_cast<size_t>(height);
  const size_t h2 = h & ~size_t{1};
  if (width & 1) {
    for (size_t i = 0; i < h2; ++i) out[i * w + w - 1] = 0;
    for (size_t i = 0; i < h2 / 2; ++i) out[w * h + i * w + w - 1] = 0;
  }
  memset(out + h2 * w, 0, (h - h2) * w);                           // the odd last Y row
  memset(out + w * h + h2 / 2 * w, 0, size - w * h - h2 / 2 * w);  // the chroma rows after the last pair
}

// Output row i comes from picture row s (s = i, or H' - 1 - i with flip),
// which is source row height - 1 - s: BMP rows run bottom-up. Chroma is
// taken on even s only, from the even columns.
template <void (*Row)(const unsigned char *, int, uint8_t *, uint8_t *)>
unsigned char *convert(const unsigned char *bitmap, int width, int height, size_t stride, bool flip) {
  const size_t size = image_size(width, height);
  auto *out = static_cast<unsigned char *>(malloc(size));
  if (out == nullptr) return nullptr;
  clear_unconverted(out, width, height, size);
  const int w2 = width & ~1, h2 = height & ~1;
  uint8_t *y = out;
  uint8_t *uv = out + static_cast<size_t>(width) * static_cast<size_t>(height);
  for (int i = 0; i < h2; ++i) {
    const int s = flip ? h2 - 1 - i : i;
    const unsigned char *src = bitmap + static_cast<size_t>(height - 1 - s) * stride;
    Row(src, w2, y, (s & 1) ? nullptr : uv);
    y += width;
    if (!(s & 1)) uv += width;
  }
  return out;
}

size_t stride_1555(int width) { return 2 * static_cast<size_t>(width) + ((width & 1) ? 2 : 0); }

}  // namespace

unsigned char *Bitmap888ToYUV(const unsigned char *bitmap, int width, int height) {
  // The stride trace comes first, on every call; tools grep for it.
  const int64_t stride = (3 * static_cast<int64_t>(width) + 3) & ~int64_t{3};
  printf("{bitmapLineByte is %d}\n", static_cast<int>(stride));
  if (bitmap == nullptr) {
    printf("[%s] param NULL, buf:%p, \n", "Bitmap888ToYUV", static_cast<const void *>(bitmap));
    return nullptr;
  }
  // Negative or empty sizes would index before the bitmap: nothing to convert.
  if (!size_ok(width, height)) return nullptr;
  unsigned char *out =
      convert<convert_row<Pixel888>>(bitmap, width, height, static_cast<size_t>(stride), false);
  if (out == nullptr) printf("[%s] malloc failed \n", "Bitmap888ToYUV");
  return out;
}

unsigned char *bitmap1555_to_yuv_plain(const unsigned char *bitmap, int width, int height, int flip) {
  if (bitmap == nullptr || !size_ok(width, height)) return nullptr;
  return convert<convert_row<Pixel1555>>(bitmap, width, height, stride_1555(width), flip != 0);
}

}  // namespace kelo::osd

extern "C" {

KELO_EXPORT unsigned char *Bitmap1555ToYUV(const unsigned char *bitmap, int width, int height, int flip) {
  using namespace kelo::osd;
  if (bitmap == nullptr) {
    printf("[%s] param NULL, buf:%p, \n", "Bitmap1555ToYUV", static_cast<const void *>(bitmap));
    return nullptr;
  }
  // Negative or empty sizes would index before the bitmap: nothing to convert.
  if (!size_ok(width, height)) return nullptr;
#ifdef KELO_YUV_VECTORS
  return convert<convert_row_1555>(bitmap, width, height, stride_1555(width), flip != 0);
#else
  return bitmap1555_to_yuv_plain(bitmap, width, height, flip);
#endif
}

KELO_EXPORT unsigned char *Ascii2yuv(const char *text, int *width, int *height, int pixel_height, int flip) {
  if (text == nullptr) return nullptr;
  int w = 0, h = 0;
  int *pw = width ? width : &w, *ph = height ? height : &h;
  uint16_t *bitmap = Ascii2Bitmap1555(text, static_cast<int>(strlen(text)), pw, ph, pixel_height, false);
  if (bitmap == nullptr) return nullptr;
  unsigned char *out = Bitmap1555ToYUV(reinterpret_cast<const unsigned char *>(bitmap), *pw, *ph, flip);
  free(bitmap);
  return out;
}

}  // extern "C"
