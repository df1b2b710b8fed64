// Glyph rendering with Debian's DejaVu font and the fuzzer's seed fonts:
// clipping at the canvas edges, and fonts that the bounds check refuses.
#include <gtest/gtest.h>
#include <math.h>
#include <stdlib.h>
#include <string.h>

#include <string>
#include <vector>

#include "kelo/osd.h"
#include "support/sandbox.h"  // slurp

namespace {

using Bytes = std::vector<unsigned char>;
const char *const kStamp = "2018:01:05 15:24:59";

Bytes load(const std::string &path) {
  std::string s = kelo::test::slurp(path);
  return {s.begin(), s.end()};
}

// The coverage canvas of text and the pen position.
std::pair<int, Bytes> render(const Bytes &font, const char *text, int w, int h, float ph = 16) {
  Bytes px(static_cast<size_t>(w * h), 0xEE);
  return {osd_render_text(font.data(), font.size(), 0, px.data(), ph, w, h, text), px};
}

// Text past the right or bottom edge is cut there; what lies inside is what a
// larger canvas shows. Sizes the rasteriser cannot draw clear the canvas.
TEST(Glyph, ClippedAtCanvasEdgesAndOddArguments) {
  const Bytes font = load(KELO_TEST_FONT);
  const char *text = "8888:8888/8888 8888:8888:8888:8888 8888";
  const auto [pen, wide] = render(font, text, 600, 16);
  for (auto [w, h] : {std::pair{3, 16}, {57, 16}, {139, 16}, {600, 8}}) {
    const auto [cut_pen, cut] = render(font, text, w, h);
    EXPECT_EQ(cut_pen, pen);
    for (int i = 0; i < w * h; ++i)
      ASSERT_EQ(cut[i], wide[i / w * 600 + i % w]) << w << "x" << h << " at " << i;
  }
  unsigned char canvas[140 * 16];
  EXPECT_EQ(osd_render_text(nullptr, 100, 0, canvas, 16, 140, 16, "1"), -1);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), -4, canvas, 16, 140, 16, "1"), -1);
  EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, nullptr, 16, 140, 16, "12"), 16);
  for (float ph : {0.0f, NAN, 1e9f}) {
    memset(canvas, 7, sizeof canvas);
    EXPECT_EQ(osd_render_text(font.data(), font.size(), 0, canvas, ph, 140, 16, "88"), 16) << ph;
    EXPECT_EQ(Bytes(canvas, canvas + sizeof canvas), Bytes(sizeof canvas, 0)) << ph;
  }
}

// Fonts that are not usable are refused (-1), never a crash. The seed fonts
// of the fuzzer (map formats 4, 6 and 12, both 'loca' forms, composites) are
// drawn; its finding is refused.
TEST(Glyph, DamagedAndSmallFonts) {
  const Bytes good = load(KELO_TEST_FONT);
  std::vector<Bytes> fonts = {Bytes(7, 'g'), Bytes(good.begin(), good.begin() + 300000)};
  fonts.push_back({'t', 't', 'c', 'f', 0, 1, 0, 0, 0, 0, 0, 1, 0xff, 0xff, 0xff, 0xf0});
  // A required table whose offset or length points past the end.
  for (const char *tag : {"cmap", "glyf", "loca", "head"})
    for (size_t field : {8u, 12u}) {
      Bytes bad = good;
      for (size_t i = 12; i < 12 + 16 * static_cast<size_t>(good[4] << 8 | good[5]); i += 16)
        if (memcmp(&bad[i], tag, 4) == 0) memcpy(&bad[i + field], "\x7f\xff\xff\x00", 4);
      fonts.push_back(bad);
    }
  for (const Bytes &font : fonts) EXPECT_EQ(render(font, kStamp, 140, 16).first, -1) << font.size();
  const std::string dir = KELO_SOURCE_DIR "/fuzz/corpus/osd_font_fuzz/";
  for (const char *name :
       {"seed-cmap4-short.ttf", "seed-cmap4-long.ttf", "seed-cmap6.ttf", "seed-cmap12.ttf"}) {
    const auto [pen, px] = render(load(dir + name), "0123456789:/", 140, 16);
    EXPECT_EQ(pen, 9 * 8 + 9 + 4 + 5) << name;  // fixed advances: 9 before ':', 4 after it, 5 after '/'
    EXPECT_NE(px, Bytes(px.size(), 0)) << name;
  }
  EXPECT_EQ(render(load(dir + "crash-outline-above-box"), kStamp, 140, 16).first, -1);
}

// What a tool or service draws from font bytes of its own with the header's
// canvas size and pixel values is the bitmap the library draws from its font
// file, pixel for pixel, for both canvases and both row orders.
TEST(Glyph, HeaderHelpersDrawTheLibrarysBitmap) {
  kelo::test::Sandbox sb;  // the library's font path is DejaVu Sans
  const Bytes font = load(KELO_TEST_FONT);
  for (int ph : {16, 24, 48})
    for (const char *text : {kStamp, "", "/: 7"})
      for (bool flip : {false, true}) {
        int lw = 0, lh = 0, w = 0, h = 0;
        uint16_t *lib = Ascii2Bitmap1555(text, 0, &lw, &lh, ph, flip);
        ASSERT_NE(lib, nullptr);
        osd_canvas_size(ph, &w, &h);
        Bytes cov(static_cast<size_t>(w * h));
        ASSERT_GE(
            osd_render_text(font.data(), font.size(), 0, cov.data(), static_cast<float>(ph), w, h, text), 0);
        std::vector<uint16_t> own(cov.size(), 0x1234);
        osd_coverage_to_bitmap1555(cov.data(), w, h, flip, own.data());
        EXPECT_EQ(std::pair(w, h), std::pair(lw, lh)) << ph;
        EXPECT_EQ(own, std::vector<uint16_t>(lib, lib + static_cast<size_t>(lw * lh)))
            << ph << " " << text << " " << flip;
        free(lib);
      }
}

}  // namespace
