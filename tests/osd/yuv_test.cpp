#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "kelo/osd.h"
#include "osd/yuv.h"
#include "support/sandbox.h"

namespace {

using Bytes = std::vector<unsigned char>;

// A 16-bit BMP pixel array: rows of 2 * w bytes padded to 4, filled by px(row, col) in memory order.
template <typename F>
Bytes bmp1555(int w, int h, F px) {
  const size_t stride = static_cast<size_t>(2 * w + (w & 1 ? 2 : 0));
  Bytes b(stride * static_cast<size_t>(h), 0xCD);  // padding is never read
  for (int r = 0; r < h; ++r)
    for (int c = 0; c < w; ++c) {
      uint16_t v = px(r, c);
      b[static_cast<size_t>(r) * stride + static_cast<size_t>(2 * c)] = static_cast<unsigned char>(v);
      b[static_cast<size_t>(r) * stride + static_cast<size_t>(2 * c + 1)] = static_cast<unsigned char>(v >> 8);
    }
  return b;
}

Bytes convert(const Bytes &b, int w, int h, int flip) {
  unsigned char *p = Bitmap1555ToYUV(b.data(), w, h, flip);
  Bytes out(p, p + static_cast<size_t>(static_cast<double>(w * h) * 1.5));
  free(p);
  return out;
}

// Straight from the conversion table, one pixel at a time.
Bytes oracle(const Bytes &b, int w, int h, int flip) {
  const size_t stride = static_cast<size_t>(2 * w + (w & 1 ? 2 : 0));
  Bytes out(static_cast<size_t>(static_cast<double>(w * h) * 1.5), 0);
  const int w2 = w & ~1, h2 = h & ~1;
  for (int i = 0; i < h2; ++i) {
    int s = flip ? h2 - 1 - i : i;
    for (int j = 0; j < w2; ++j) {
      size_t o = static_cast<size_t>(h - 1 - s) * stride + static_cast<size_t>(2 * j);
      int v = b[o] | b[o + 1] << 8;
      int R = ((v >> 10) & 31) << 3, G = ((v >> 5) & 31) << 3, B = (v & 31) << 3;
      out[static_cast<size_t>(i * w + j)] = static_cast<unsigned char>(((66 * R + 129 * G + 25 * B + 128) >> 8) + 16);
      if (j % 2 == 0 && s % 2 == 0) {
        size_t uv = static_cast<size_t>(w * h + (i / 2) * w + j);  // chroma rows follow the output
        out[uv] = static_cast<unsigned char>(((-38 * R - 74 * G + 112 * B + 128) >> 8) - 128);
        out[uv + 1] = static_cast<unsigned char>(((112 * R - 94 * G - 18 * B + 128) >> 8) - 128);
      }
    }
  }
  return out;
}

}  // namespace

TEST(Yuv, PixelValues) {
  const struct {
    uint16_t px;
    int y, cb, cr;
  } cases[] = {{0x8000, 16, 128, 128}, {0xFFFF, 229, 128, 128}, {0x7FFF, 229, 128, 128},
               {0x7C00, 80, 91, 237},  {0x03E0, 141, 56, 37},   {0x001F, 40, 237, 111},
               {0x0000, 16, 128, 128}};
  for (const auto &c : cases) {
    Bytes out = convert(bmp1555(2, 2, [&](int, int) { return c.px; }), 2, 2, 0);
    ASSERT_EQ(out.size(), 6u);
    EXPECT_EQ(Bytes(out.begin(), out.begin() + 4), Bytes(4, static_cast<unsigned char>(c.y))) << std::hex << c.px;
    EXPECT_EQ(out[4], c.cb) << std::hex << c.px;
    EXPECT_EQ(out[5], c.cr) << std::hex << c.px;
  }
}

// 3 x 3: a 13-byte image, stride 8 in the source, only the top-left 2 x 2
// pixels and one chroma pair written; the picture is read bottom-up.
TEST(Yuv, ThreeByThree) {
  // Memory row 2 (picture top) red/green, row 1 blue/white, row 0 never read.
  const uint16_t rows[3][3] = {{0x1234, 0x1234, 0x1234}, {0x001F, 0xFFFF, 0x1234}, {0x7C00, 0x03E0, 0x1234}};
  Bytes src = bmp1555(3, 3, [&](int r, int c) { return rows[r][c]; });
  ASSERT_EQ(src.size(), 24u);
  unsigned char *p = Bitmap1555ToYUV(src.data(), 3, 3, 0);
  ASSERT_NE(p, nullptr);
  const Bytes want = {80, 141, 0, 40, 229, 0, 0, 0, 0, 91, 237, 0, 0};
  EXPECT_EQ(Bytes(p, p + 13), want);
  free(p);
}

TEST(Yuv, OddWidthPadding) {
  // Width 5: rows of 12 bytes; column 4 and the padding are never converted.
  Bytes src = bmp1555(5, 2, [](int r, int c) { return static_cast<uint16_t>(c == 4 ? 0x7FFF : r ? 0x7C00 : 0x001F); });
  ASSERT_EQ(src.size(), 24u);
  Bytes out = convert(src, 5, 2, 0);
  EXPECT_EQ(out, oracle(src, 5, 2, 0));
  EXPECT_EQ(out[0], 80);   // top = memory row 1, red
  EXPECT_EQ(out[5], 40);   // second row = memory row 0, blue
  EXPECT_EQ(out[4], 0);    // last column untouched
  EXPECT_EQ(out[10], 91);  // Cb of the red top row
}

TEST(Yuv, FlipRowOrder) {
  // One colour per memory row: 0 blue, 1 green, 2 red, 3 white.
  const uint16_t colour[4] = {0x001F, 0x03E0, 0x7C00, 0x7FFF};
  Bytes src = bmp1555(2, 4, [&](int r, int) { return colour[r]; });
  Bytes plain = convert(src, 2, 4, 0), flipped = convert(src, 2, 4, 1);
  EXPECT_EQ(Bytes(plain.begin(), plain.begin() + 8), (Bytes{229, 229, 80, 80, 141, 141, 40, 40}));
  EXPECT_EQ(Bytes(flipped.begin(), flipped.begin() + 8), (Bytes{40, 40, 141, 141, 80, 80, 229, 229}));
  // Chroma comes from the rows whose s is even: memory rows 3 then 1 without
  // flip (white, green), 1 then 3 with it (s runs 3, 2, 1, 0).
  EXPECT_EQ(Bytes(plain.begin() + 8, plain.end()), (Bytes{128, 128, 56, 37}));
  EXPECT_EQ(Bytes(flipped.begin() + 8, flipped.end()), (Bytes{56, 37, 128, 128}));
}

TEST(Yuv, AgreesWithPerPixelFormulas) {
  std::mt19937 rng(12345);
  std::vector<std::pair<int, int>> sizes = {{140, 16}, {420, 48}, {64, 7}, {33, 33}};
  for (int w = 1; w <= 9; ++w)
    for (int h = 1; h <= 5; ++h) sizes.emplace_back(w, h);
  for (auto [w, h] : sizes) {
    Bytes src = bmp1555(w, h, [&](int, int) { return static_cast<uint16_t>(rng()); });
    for (int flip : {0, 1, 7}) ASSERT_EQ(convert(src, w, h, flip), oracle(src, w, h, flip)) << w << "x" << h;
  }
}

TEST(Yuv, BadArguments) {
  auto r = kelo::test::run_child([] { EXPECT_EQ(Bitmap1555ToYUV(nullptr, 2, 2, 0), nullptr); });
  EXPECT_EQ(r.out, "[Bitmap1555ToYUV] param NULL, buf:(nil), \n");
  unsigned char px[16] = {};
  for (auto [w, h] : {std::pair{0, 2}, {2, 0}, {-2, 2}, {2, -2}, {0x10000, 0x10000}})
    EXPECT_EQ(Bitmap1555ToYUV(px, w, h, 0), nullptr) << w << "x" << h;
}

TEST(Yuv, Bitmap888) {
  // 3 x 2, B G R bytes, rows of 12 bytes (9 + 3 padding), bottom-up.
  const Bytes src = {255, 0, 0, 0, 255, 0, 9, 9, 9, 0xEE, 0xEE, 0xEE,  // memory row 0: blue, green
                     0, 0, 255, 255, 255, 255, 9, 9, 9, 0xEE, 0xEE, 0xEE};  // row 1: red, white
  unsigned char *out = nullptr;
  auto r = kelo::test::run_child([&] {
    out = kelo::osd::Bitmap888ToYUV(src.data(), 3, 2);
    ASSERT_NE(out, nullptr);
    // Red 255: Y ((66*255+128)>>8)+16 = 82; white 235; blue 41; green 144.
    EXPECT_EQ(Bytes(out, out + 9), (Bytes{82, 235, 0, 41, 144, 0, 90, 240, 0}));
    free(out);
  });
  EXPECT_EQ(r.out, "{bitmapLineByte is 12}\n");
  EXPECT_TRUE(r.exited && r.exit_code == 0) << r.err;
  r = kelo::test::run_child([] {
    free(kelo::osd::Bitmap888ToYUV(std::vector<unsigned char>(8, 0).data(), 2, 1));
    EXPECT_EQ(kelo::osd::Bitmap888ToYUV(nullptr, 2, 2), nullptr);
  });
  EXPECT_EQ(r.out, "{bitmapLineByte is 8}\n{bitmapLineByte is 8}\n[Bitmap888ToYUV] param NULL, buf:(nil), \n");
}

TEST(Yuv, Ascii2yuv) {
  kelo::test::Sandbox sb;
  int w = 0, h = 0;
  unsigned char *img = Ascii2yuv("2018:01:05 15:24:59", &w, &h, 16, 1);
  ASSERT_NE(img, nullptr);
  EXPECT_EQ(w, 140);
  EXPECT_EQ(h, 16);
  // The same as converting the top-down bitmap with flip.
  uint16_t *bmp = Ascii2Bitmap1555("2018:01:05 15:24:59", 0, &w, &h, 16, false);
  unsigned char *ref = Bitmap1555ToYUV(reinterpret_cast<unsigned char *>(bmp), w, h, 1);
  EXPECT_EQ(memcmp(img, ref, 140 * 16 * 3 / 2), 0);
  int ink = 0;
  for (int i = 0; i < w * h; ++i) {
    ASSERT_TRUE(img[i] == 16 || img[i] == 229) << i;
    ink += img[i] == 229;
    // Upright: picture row r is bitmap row r.
    ASSERT_EQ(img[i], bmp[i] == 0xFFFF ? 229 : 16) << i;
  }
  EXPECT_GT(ink, 50);
  for (int i = w * h; i < w * h * 3 / 2; ++i) ASSERT_EQ(img[i], 128);
  free(bmp);
  free(ref);
  free(img);
  sb.set_font(sb.path("missing"));
  w = h = 3;
  auto r = kelo::test::run_child([] { EXPECT_EQ(Ascii2yuv("1", nullptr, nullptr, 48, 1), nullptr); });
  EXPECT_EQ(r.out, "failed to load font \n");
}
