// ARGB1555 and BGR888 bitmaps to NV12 (Y plane, then Cb Cr pairs).
#include "osd/yuv.h"

#include <limits.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "kelo/osd.h"

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

// Output row i comes from picture row s (s = i, or H' - 1 - i with flip),
// which is source row height - 1 - s: BMP rows run bottom-up. Chroma is
// taken on even s only, from the even columns.
template <typename P>
unsigned char *convert(const unsigned char *bitmap, int width, int height, size_t stride, bool flip) {
  const size_t size = image_size(width, height);
  auto *out = static_cast<unsigned char *>(malloc(size));
  if (out == nullptr) return nullptr;
  const int w2 = width & ~1, h2 = height & ~1;
  // The odd last row or column is not converted; clear it
  // instead of leaving what the allocator returned.
  if ((width | height) & 1) memset(out, 0, size);
  uint8_t *y = out;
  uint8_t *uv = out + static_cast<size_t>(width) * static_cast<size_t>(height);
  for (int i = 0; i < h2; ++i) {
    const int s = flip ? h2 - 1 - i : i;
    const unsigned char *src = bitmap + static_cast<size_t>(height - 1 - s) * stride;
    convert_row<P>(src, w2, y, (s & 1) ? nullptr : uv);
    y += width;
    if (!(s & 1)) uv += width;
  }
  return out;
}

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
  unsigned char *out = convert<Pixel888>(bitmap, width, height, static_cast<size_t>(stride), false);
  if (out == nullptr) printf("[%s] malloc failed \n", "Bitmap888ToYUV");
  return out;
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
  const size_t stride = 2 * static_cast<size_t>(width) + ((width & 1) ? 2 : 0);
  return convert<Pixel1555>(bitmap, width, height, stride, flip != 0);
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
