// ARGB1555 bitmaps to NV12: pixel values, odd sizes and refused sizes, and
// the vector code against the pixel-at-a-time reference.
#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <tuple>
#include <vector>

#include "kelo/osd.h"
#include "osd/yuv.h"

namespace {

using Bytes = std::vector<unsigned char>;
constexpr uint16_t kRed = 0x7C00, kGreen = 0x03E0, kBlue = 0x001F;

// A 16-bit BMP pixel array (rows of 2 * w bytes padded to 4, little-endian)
// with px(row, col) in memory order, converted.
template <typename F>
Bytes convert(int w, int h, F px) {
  const int stride = 2 * w + (w & 1 ? 2 : 0);
  Bytes b(static_cast<size_t>(stride * h), 0xCD);  // padding is never read
  for (int r = 0; r < h; ++r)
    for (int c = 0; c < w; ++c) {
      const uint16_t v = px(r, c);
      memcpy(&b[static_cast<size_t>(r * stride + 2 * c)], &v, 2);
    }
  unsigned char *p = Bitmap1555ToYUV(b.data(), w, h, 0);
  Bytes out(p, p + (p ? static_cast<size_t>(w * h * 3 / 2) : 0));
  free(p);
  return out;
}

TEST(Yuv, PixelValuesOddSizesAndBadSizes) {
  const std::tuple<uint16_t, uint8_t, uint8_t, uint8_t> pixels[] = {{0x8000, 16, 128, 128},
                                                                    {0xFFFF, 229, 128, 128},
                                                                    {kRed, 80, 91, 237},
                                                                    {kGreen, 141, 56, 37},
                                                                    {kBlue, 40, 237, 111}};
  for (auto [px, y, cb, cr] : pixels)
    EXPECT_EQ(convert(2, 2, [&](int, int) { return px; }), (Bytes{y, y, y, y, cb, cr})) << std::hex << px;
  // Odd sizes: only the even rows and columns are converted, the rest of the
  // image is zero; the picture is read bottom-up and the row padding skipped.
  // 3 x 3: memory row 2 (picture top) red/green, row 1 blue/white, row 0 never read.
  const uint16_t rows[3][3] = {{0x1234, 0x1234, 0x1234}, {kBlue, 0xFFFF, 0x1234}, {kRed, kGreen, 0x1234}};
  EXPECT_EQ(convert(3, 3, [&](int r, int c) { return rows[r][c]; }),
            (Bytes{80, 141, 0, 40, 229, 0, 0, 0, 0, 91, 237, 0, 0}));
  // Sizes whose image would not fit in memory (or overflow) are refused.
  unsigned char px[16] = {};
  for (auto [w, h] : {std::pair{0, 2}, {2, -2}, {0x10000, 0x10000}})
    EXPECT_EQ(Bitmap1555ToYUV(px, w, h, 0), nullptr) << w << "x" << h;
  EXPECT_EQ(Bitmap1555ToYUV(nullptr, 2, 2, 0), nullptr);
}

// Random pixels (every colour, alpha set or not) at widths around the
// 16-pixel rounds, odd ones included, the two OSD canvases and a 1080p
// frame, both row orders: every byte of the image equals the reference's.
TEST(Yuv, VectorCodeMatchesThePlainConversion) {
  std::mt19937 rng(7);
  std::vector<std::pair<int, int>> sizes = {{140, 16}, {420, 48}, {1920, 1080}};
  for (int w = 1; w <= 35; ++w) sizes.emplace_back(w, 1 + w % 5);
  for (auto [w, h] : sizes) {
    Bytes bmp(static_cast<size_t>(2 * w + (w & 1 ? 2 : 0)) * static_cast<size_t>(h));
    for (auto &b : bmp) b = static_cast<unsigned char>(rng());
    const size_t size = static_cast<size_t>(w) * static_cast<size_t>(h) * 3 / 2;
    for (int flip : {0, 1}) {
      unsigned char *fast = Bitmap1555ToYUV(bmp.data(), w, h, flip);
      unsigned char *plain = kelo::osd::bitmap1555_to_yuv_plain(bmp.data(), w, h, flip);
      ASSERT_TRUE(fast && plain);
      EXPECT_EQ(memcmp(fast, plain, size), 0) << w << "x" << h << " flip " << flip;
      free(fast);
      free(plain);
    }
  }
}

}  // namespace
