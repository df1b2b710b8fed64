#include <gtest/gtest.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "kelo/osd.h"
#include "support/sandbox.h"

namespace {

using kelo::test::Sandbox;
const char *const kStamp = "2018:01:05 15:24:59";

std::vector<unsigned char> load(const char *path) {
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

TEST(Glyph, CanvasSizeByPixelHeight) {
  Sandbox sb;
  const struct {
    int pixel_height, w, h;
  } cases[] = {{48, 420, 48}, {16, 140, 16}, {24, 140, 16}, {32, 140, 16}, {47, 140, 16}};
  for (const auto &c : cases) {
    int w = -1, h = -1;
    uint16_t *bmp = Ascii2Bitmap1555(kStamp, 3, &w, &h, c.pixel_height, false);
    ASSERT_NE(bmp, nullptr) << c.pixel_height;
    EXPECT_EQ(w, c.w);
    EXPECT_EQ(h, c.h);
    int ink = 0, other = 0;
    for (int i = 0; i < w * h; ++i) {
      ink += bmp[i] == 0xFFFF;
      other += bmp[i] != 0xFFFF && bmp[i] != 0x8000;
    }
    EXPECT_GT(ink, 20) << c.pixel_height;
    EXPECT_EQ(other, 0) << c.pixel_height;
    free(bmp);
  }
}

TEST(Glyph, EmptyTextIsBackground) {
  Sandbox sb;
  int w = 0, h = 0;
  uint16_t *bmp = Ascii2Bitmap1555("", 0, &w, &h, 16, true);
  ASSERT_NE(bmp, nullptr);
  for (int i = 0; i < w * h; ++i) ASSERT_EQ(bmp[i], 0x8000) << i;
  free(bmp);
}

TEST(Glyph, FlipStoresRowsBottomUp) {
  Sandbox sb;
  for (int ph : {16, 48}) {
    int w = 0, h = 0;
    uint16_t *up = Ascii2Bitmap1555(kStamp, 0, &w, &h, ph, false);
    uint16_t *down = Ascii2Bitmap1555(kStamp, 0, &w, &h, ph, true);
    ASSERT_TRUE(up && down);
    for (int r = 0; r < h; ++r)
      ASSERT_EQ(memcmp(up + r * w, down + (h - 1 - r) * w, static_cast<size_t>(w) * 2), 0) << r;
    free(up);
    free(down);
  }
}

// The bitmap is the coverage canvas with ink for every non-zero value.
TEST(Glyph, BitmapMatchesCoverage) {
  Sandbox sb;
  sb.set_font(KELO_TEST_FONT_MONO);
  auto font = load(KELO_TEST_FONT_MONO);
  Canvas c = render(font, kStamp, 420, 48, 48);
  int w = 0, h = 0;
  uint16_t *bmp = Ascii2Bitmap1555(kStamp, 0, &w, &h, 48, false);
  ASSERT_NE(bmp, nullptr);
  for (int i = 0; i < w * h; ++i) ASSERT_EQ(bmp[i], c.px[static_cast<size_t>(i)] ? 0xFFFF : 0x8000) << i;
  free(bmp);
}

// Fixed advances: 9 (26) before ':', 4 (12) after it, 5 (16) after '/', 8 (24) otherwise.
TEST(Glyph, PenPositions) {
  auto font = load(KELO_TEST_FONT);
  const struct {
    const char *text;
    int pen16, pen48;
  } cases[] = {
      {"", 0, 0},         {"1", 8, 24},           {"1:", 13, 38},     {"::", 13, 38},
      {"/", 5, 16},       {"1/1", 21, 64},        {" ", 8, 24},       {":1", 12, 36},
      {kStamp, 140, 416}, {"2018/01/05", 74, 224},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(render(font, c.text, 140, 16, 16).pen, c.pen16) << c.text;
    EXPECT_EQ(render(font, c.text, 420, 48, 48).pen, c.pen48) << c.text;
  }
  // The last glyph of the stamp starts at column 132 (392): drawing it
  // changes nothing left of that column.
  const struct {
    int w, h, last;
  } canvases[] = {{140, 16, 132}, {420, 48, 392}};
  for (const auto &cv : canvases) {
    std::string prefix(kStamp, strlen(kStamp) - 1);
    Canvas full = render(font, kStamp, cv.w, cv.h, static_cast<float>(cv.h));
    Canvas part = render(font, prefix.c_str(), cv.w, cv.h, static_cast<float>(cv.h));
    EXPECT_EQ(part.pen, cv.last);
    int first_diff = cv.w;
    for (int r = 0; r < cv.h; ++r)
      for (int x = 0; x < cv.w; ++x)
        if (full.at(r, x) != part.at(r, x)) first_diff = std::min(first_diff, x);
    EXPECT_GE(first_diff, cv.last);
    EXPECT_LE(first_diff, cv.last + 2);
  }
}

TEST(Glyph, ColonSitsLowerThanDigits) {
  auto font = load(KELO_TEST_FONT);
  for (int h : {16, 48}) {
    int w = h == 48 ? 420 : 140;
    Canvas c = render(font, "0:", w, h, static_cast<float>(h));
    int colon_x = h == 48 ? 26 : 9;
    int digit_top = top_ink(c, 0, colon_x), colon_top = top_ink(c, colon_x, w);
    EXPECT_EQ(digit_top, h == 48 ? 10 : 3);
    EXPECT_EQ(colon_top, h == 48 ? 15 : 5) << h;
  }
}

// Text running past the right edge is cut there; what lies inside is what a
// wider canvas shows.
TEST(Glyph, LongTextIsClipped) {
  auto font = load(KELO_TEST_FONT);
  const char *text = "8888:8888/8888 8888:8888:8888:8888 8888";
  for (int cut : {3, 57, 100, 139}) {
    Canvas wide = render(font, text, 600, 16, 16);
    Canvas narrow = render(font, text, cut, 16, 16);
    EXPECT_EQ(narrow.pen, wide.pen);
    for (int r = 0; r < 16; ++r)
      for (int x = 0; x < cut; ++x) ASSERT_EQ(narrow.at(r, x), wide.at(r, x)) << cut << " " << r << " " << x;
  }
  // Rows: a canvas lower than the glyphs keeps their upper part.
  Canvas tall = render(font, text, 140, 16, 16);
  Canvas flat = render(font, text, 140, 8, 16);
  for (int r = 0; r < 8; ++r)
    for (int x = 0; x < 140; ++x) ASSERT_EQ(flat.at(r, x), tall.at(r, x));
  Sandbox sb;
  int w = 0, h = 0;
  std::string longer(300, '8');
  uint16_t *bmp = Ascii2Bitmap1555(longer.c_str(), 0, &w, &h, 48, false);
  ASSERT_NE(bmp, nullptr);
  free(bmp);
}

TEST(Glyph, OddArguments) {
  auto font = load(KELO_TEST_FONT);
  unsigned char canvas[140 * 16];
  EXPECT_EQ(osd_render_text(nullptr, 100, 0, canvas, 16, 140, 16, "1"), -1);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), -4, canvas, 16, 140, 16, "1"), -1);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, nullptr, 16, 140, 16, "12"), 16);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, canvas, 16, -140, 16, "12"), 16);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, canvas, 16, 140, 16, nullptr), 0);
  for (float ph : {0.0f, -16.0f, NAN, INFINITY, 1e9f}) {
    memset(canvas, 7, sizeof canvas);
    EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, canvas, ph, 140, 16, "88"), 16) << ph;
    for (unsigned char v : canvas) ASSERT_EQ(v, 0) << ph;
  }
  // Bytes above 127 are looked up as code points 128..255.
  Canvas c = render(font, "\xE9\xB0", 140, 16, 16);
  EXPECT_EQ(c.pen, 16);
  EXPECT_GE(top_ink(c, 0, 16), 0);
  Sandbox sb;
  int w = 0, h = 0;
  EXPECT_EQ(Ascii2Bitmap1555(nullptr, 0, &w, &h, 16, false), nullptr);
  uint16_t *bmp = Ascii2Bitmap1555("1", 0, nullptr, nullptr, 16, false);
  EXPECT_NE(bmp, nullptr);
  free(bmp);
}

TEST(Glyph, MissingFont) {
  Sandbox sb;
  for (std::string path : {sb.path("no-such.ttf"), sb.root()}) {
    sb.set_font(path);
    auto r = kelo::test::run_child([] {
      int w = -7, h = -9;
      uint16_t *bmp = Ascii2Bitmap1555(kStamp, 0, &w, &h, 16, false);
      printf("%s %d %d", bmp ? "bitmap" : "null", w, h);
    });
    EXPECT_EQ(r.out, "failed to load font \nnull -7 -9") << path;
  }
}

// Files that are not fonts, and damaged copies of a real one: NULL (or a
// bitmap), never a crash; the canvas size is set.
TEST(Glyph, DamagedFonts) {
  Sandbox sb;
  auto good = load(KELO_TEST_FONT);
  std::vector<std::string> files = {"", "garbage, not a font at all", std::string(4096, '\xff'),
                                    std::string("ttcf\0\1\0\0\0\0\0\1\xff\xff\xff\xf0", 16),
                                    std::string("\0\1\0\0\xff\xff", 6) + std::string(64, 'A')};
  for (size_t cut : {12u, 100u, 1000u, 30000u, 300000u}) files.emplace_back(good.begin(), good.begin() + cut);
  // A required table whose offset or length points past the end.
  for (const char *tag : {"cmap", "glyf", "loca", "hmtx", "hhea", "head"}) {
    for (int field : {8, 12}) {
      std::string bad(good.begin(), good.end());
      size_t num = static_cast<size_t>(static_cast<unsigned char>(bad[4]) << 8 | static_cast<unsigned char>(bad[5]));
      for (size_t i = 0; i < num; ++i)
        if (memcmp(&bad[12 + 16 * i], tag, 4) == 0) memcpy(&bad[12 + 16 * i + static_cast<size_t>(field)], "\x7f\xff\xff\x00", 4);
      files.push_back(bad);
    }
  }
  int n = 0;
  for (const auto &f : files) {
    std::string name = "f" + std::to_string(n++);
    sb.write_file(name, f);
    sb.set_font(sb.path(name));
    int w = 0, h = 0;
    uint16_t *bmp = Ascii2Bitmap1555(kStamp, 0, &w, &h, 48, false);
    EXPECT_EQ(bmp, nullptr) << name;
    EXPECT_EQ(w, 420);
    EXPECT_EQ(h, 48);
    free(bmp);
  }
}

// The fuzzer's seed fonts (scripts/make-font-seeds): cmap formats 4, 6 and
// 12, short and long 'loca', off-curve contour starts, scaled composites.
TEST(Glyph, SmallFontsOfEveryMapFormat) {
  for (const char *name : {"cmap4-short", "cmap4-long", "cmap6", "cmap12"}) {
    auto font = load((std::string(KELO_SOURCE_DIR) + "/fuzz/corpus/osd_font_fuzz/seed-" + name + ".ttf").c_str());
    ASSERT_FALSE(font.empty()) << name;
    Canvas c = render(font, "0123456789:/", 140, 16, 16);
    EXPECT_EQ(c.pen, 9 * 8 + 9 + 4 + 5) << name;
    for (int g = 0; g < 10; ++g) {
      // Box tops at row 3; curved or offset outlines start a row lower.
      int top = top_ink(c, g * 8, g * 8 + 8);
      EXPECT_TRUE(top == 3 || top == 4) << name << " glyph " << g << ": " << top;
    }
    // A damaged copy: every single-byte change is refused or drawn, never more.
    for (size_t i = 0; i < font.size(); ++i) {
      auto bad = font;
      bad[i] ^= 0x80;
      render(bad, "0123456789:/", 140, 16, 16);
    }
  }
}

// Inputs that once broke the font check (kept in the fuzzer's corpus).
TEST(Glyph, FuzzFindingsAreRefused) {
  auto font = load(KELO_SOURCE_DIR "/fuzz/corpus/osd_font_fuzz/crash-outline-above-box");
  ASSERT_FALSE(font.empty());
  EXPECT_EQ(render(font, "2018:01:05 15:24:59", 140, 16, 16).pen, -1);
}
