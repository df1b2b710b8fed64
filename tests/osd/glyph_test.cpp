// Glyph rendering with Debian's DejaVu fonts and the fuzzer's seed fonts:
// bitmap values, fixed advances, clipping at the canvas edges and fonts that
// the bounds check refuses.
#include <gtest/gtest.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "kelo/osd.h"
#include "support/sandbox.h"

namespace {

using kelo::test::Sandbox;
const char *const kStamp = "2018:01:05 15:24:59";

std::vector<unsigned char> load(const std::string &path) {
  std::string s = kelo::test::slurp(path);
  return {s.begin(), s.end()};
}

struct Canvas {
  int w, h, pen;
  std::vector<unsigned char> px;
  unsigned char at(int r, int c) const { return px[static_cast<size_t>(r * w + c)]; }
};

Canvas render(const std::vector<unsigned char> &font, const char *text, int w, int h, float ph) {
  Canvas c{w, h, 0, std::vector<unsigned char>(static_cast<size_t>(w * h), 0xEE)};
  c.pen = osd_render_text(font.data(), font.size(), 0, c.px.data(), ph, w, h, text);
  return c;
}

// First row with ink in columns [c0, c1), or -1.
int top_ink(const Canvas &c, int c0, int c1) {
  for (int r = 0; r < c.h; ++r)
    for (int x = c0; x < c1; ++x)
      if (c.at(r, x)) return r;
  return -1;
}

}  // namespace

// The bitmap is the coverage canvas with 0xFFFF for every covered pixel and
// 0x8000 elsewhere (the empty text: 0x8000 only); flip stores the same rows
// bottom-up.
TEST(Glyph, BitmapSizesValuesAndFlip) {
  Sandbox sb;
  const auto font = load(KELO_TEST_FONT);
  const struct {
    const char *text;
    int pixel_height, w, h;
  } cases[] = {{kStamp, 48, 420, 48}, {kStamp, 24, 140, 16}, {"", 16, 140, 16}};
  for (const auto &c : cases) {
    SCOPED_TRACE(testing::Message() << c.pixel_height << " '" << c.text << "'");
    int w = -1, h = -1;
    uint16_t *up = Ascii2Bitmap1555(c.text, 3, &w, &h, c.pixel_height, false);
    uint16_t *down = Ascii2Bitmap1555(c.text, 3, nullptr, nullptr, c.pixel_height, true);
    ASSERT_TRUE(up && down);
    ASSERT_EQ(w, c.w);
    ASSERT_EQ(h, c.h);
    Canvas cov = render(font, c.text, w, h, static_cast<float>(c.pixel_height));
    for (int i = 0; i < w * h; ++i) ASSERT_EQ(up[i], cov.px[static_cast<size_t>(i)] ? 0xFFFF : 0x8000) << i;
    for (int r = 0; r < h; ++r) ASSERT_EQ(memcmp(up + r * w, down + (h - 1 - r) * w, w * 2u), 0) << r;
    free(up);
    free(down);
  }
}

// Fixed advances: 9 (26) before ':', 4 (12) after it, 5 (16) after '/', 8 (24) otherwise.
TEST(Glyph, PenPositionsAndRows) {
  const auto font = load(KELO_TEST_FONT);
  const struct {
    const char *text;
    int pen16, pen48;
  } cases[] = {{"1:", 13, 38}, {"::", 13, 38}, {"1/1", 21, 64}, {":1", 12, 36}, {"2018/01/05", 74, 224}};
  for (const auto &c : cases) {
    EXPECT_EQ(render(font, c.text, 140, 16, 16).pen, c.pen16) << c.text;
    EXPECT_EQ(render(font, c.text, 420, 48, 48).pen, c.pen48) << c.text;
  }
  const struct {
    int w, h, last, colon_x, digit_top, colon_top;
  } canvases[] = {{140, 16, 132, 9, 3, 5}, {420, 48, 392, 26, 10, 15}};
  for (const auto &cv : canvases) {
    SCOPED_TRACE(cv.h);
    const float ph = static_cast<float>(cv.h);
    // The last glyph of the stamp starts at its pen position: drawing it
    // changes nothing left of that column.
    Canvas full = render(font, kStamp, cv.w, cv.h, ph);
    Canvas part = render(font, std::string(kStamp, strlen(kStamp) - 1).c_str(), cv.w, cv.h, ph);
    EXPECT_EQ(part.pen, cv.last);
    int first_diff = cv.w;
    for (int r = 0; r < cv.h; ++r)
      for (int x = 0; x < cv.w; ++x)
        if (full.at(r, x) != part.at(r, x)) first_diff = std::min(first_diff, x);
    EXPECT_GE(first_diff, cv.last);
    EXPECT_LE(first_diff, cv.last + 2);
    // ':' is drawn lower than the digits.
    Canvas c = render(font, "0:", cv.w, cv.h, ph);
    EXPECT_EQ(top_ink(c, 0, cv.colon_x), cv.digit_top);
    EXPECT_EQ(top_ink(c, cv.colon_x, cv.w), cv.colon_top);
  }
}

// Text past the right or bottom edge is cut there; what lies inside is what a
// larger canvas shows.
TEST(Glyph, ClippedAtCanvasEdges) {
  const auto font = load(KELO_TEST_FONT);
  const char *text = "8888:8888/8888 8888:8888:8888:8888 8888";
  const Canvas wide = render(font, text, 600, 16, 16);
  for (int cut : {3, 57, 100, 139}) {
    Canvas narrow = render(font, text, cut, 16, 16);
    EXPECT_EQ(narrow.pen, wide.pen);
    for (int r = 0; r < 16; ++r)
      for (int x = 0; x < cut; ++x) ASSERT_EQ(narrow.at(r, x), wide.at(r, x)) << cut << " " << r << " " << x;
  }
  Canvas flat = render(font, text, 600, 8, 16);
  for (int r = 0; r < 8; ++r)
    for (int x = 0; x < 600; ++x) ASSERT_EQ(flat.at(r, x), wide.at(r, x));
}

TEST(Glyph, OddArguments) {
  const auto font = load(KELO_TEST_FONT);
  unsigned char canvas[140 * 16];
  EXPECT_EQ(osd_render_text(nullptr, 100, 0, canvas, 16, 140, 16, "1"), -1);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), -4, canvas, 16, 140, 16, "1"), -1);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, nullptr, 16, 140, 16, "12"), 16);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, canvas, 16, -140, 16, "12"), 16);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, canvas, 16, 140, 16, nullptr), 0);
  // Sizes the rasteriser cannot draw clear the canvas and keep the pen.
  for (float ph : {0.0f, NAN, 1e9f}) {
    memset(canvas, 7, sizeof canvas);
    EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, canvas, ph, 140, 16, "88"), 16) << ph;
    for (unsigned char v : canvas) ASSERT_EQ(v, 0) << ph;
  }
}

// A font file that cannot be read: the message, NULL, the sizes untouched.
// Files that are not usable fonts: NULL with the canvas size set, never a
// crash (the font fuzzer goes much further).
TEST(Glyph, MissingAndDamagedFonts) {
  Sandbox sb;
  const auto good = load(KELO_TEST_FONT);
  std::vector<std::string> files = {"", "garbage, not a font at all", std::string(4096, '\xff'),
                                    std::string("ttcf\0\1\0\0\0\0\0\1\xff\xff\xff\xf0", 16)};
  for (size_t cut : {12u, 300000u}) files.emplace_back(good.begin(), good.begin() + cut);
  // A required table whose offset or length points past the end.
  for (const char *tag : {"cmap", "glyf", "loca", "head"})
    for (size_t field : {8u, 12u}) {
      std::string bad(good.begin(), good.end());
      for (size_t i = 12; i < 12 + 16 * static_cast<size_t>(good[4] << 8 | good[5]); i += 16)
        if (bad.compare(i, 4, tag) == 0) memcpy(&bad[i + field], "\x7f\xff\xff\x00", 4);
      files.push_back(bad);
    }
  std::vector<std::string> paths = {sb.path("no-such.ttf"), sb.root()};
  std::string want = "failed to load font \nnull -7 -9\nfailed to load font \nnull -7 -9\n";
  for (size_t n = 0; n < files.size(); ++n) {
    paths.push_back(sb.path("f" + std::to_string(n)));
    sb.write_file("f" + std::to_string(n), files[n]);
    want += "null 420 48\n";
  }
  auto r = kelo::test::run_child([&] {
    for (const auto &path : paths) {
      sb.set_font(path);
      int w = -7, h = -9;
      uint16_t *bmp = Ascii2Bitmap1555(kStamp, 0, &w, &h, 48, false);
      printf("%s %d %d\n", bmp ? "bitmap" : "null", w, h);
    }
  });
  EXPECT_EQ(r.out, want);
}

// The fuzzer's seed fonts: cmap formats 4, 6 and 12, short and long 'loca',
// off-curve contour starts, scaled composites. Its finding is refused.
TEST(Glyph, SmallFontsOfEveryMapFormat) {
  const std::string dir = KELO_SOURCE_DIR "/fuzz/corpus/osd_font_fuzz/";
  for (const char *name :
       {"seed-cmap4-short.ttf", "seed-cmap4-long.ttf", "seed-cmap6.ttf", "seed-cmap12.ttf"}) {
    SCOPED_TRACE(name);
    Canvas c = render(load(dir + name), "0123456789:/", 140, 16, 16);
    EXPECT_EQ(c.pen, 9 * 8 + 9 + 4 + 5);
    for (int g = 0; g < 10; ++g) {
      // Box tops at row 3; curved or offset outlines start a row lower.
      int top = top_ink(c, g * 8, g * 8 + 8);
      EXPECT_TRUE(top == 3 || top == 4) << "glyph " << g << ": " << top;
    }
  }
  EXPECT_EQ(render(load(dir + "crash-outline-above-box"), kStamp, 140, 16, 16).pen, -1);
}
