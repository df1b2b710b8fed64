// Time-stamp text drawn with the device's TrueType font into ARGB1555 bitmaps.
#include <limits.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>

#include <stb.h>  // stb_file

// stb_truetype is compiled here, into this one translation unit, from
// Debian's libstb-dev header rather than linked from libstb.so.0 (which
// holds every stb library and is bound at load time: every service paid for
// it at start-up). Static: nothing of it is exported, and what this file
// does not call is never emitted.
//
// Compiled as C++ like the rest of the library: its 32-bit reads,
// (p[0] << 24) + ..., overflow int (undefined in C) for bytes of 128 and
// up, and are defined arithmetic in C++20.
//
// src/osd/font_check.cpp mirrors the reads of exactly this stb_truetype.h:
// the build checks the header's hash (cmake/KeloDeps.cmake), so a new
// Debian version cannot change the rasteriser without the checker being
// reviewed with it.
namespace {

// stb_truetype's rounding hooks, (int)floor(x) and (int)ceil(x), without
// libm: ARMv7 has no rounding instruction, so floor and ceil were calls into
// libm, the only ones the library made. Equal to them wherever the int
// conversion is defined (the font checker keeps glyph boxes in that range).
inline int round_down(double x) {
  const int i = static_cast<int>(x);  // toward zero
  return i - (static_cast<double>(i) > x ? 1 : 0);
}
inline int round_up(double x) {
  const int i = static_cast<int>(x);
  return i + (static_cast<double>(i) < x ? 1 : 0);
}

}  // namespace

#define STBTT_ifloor(x) round_down(x)
#define STBTT_iceil(x)  round_up(x)
// The square root is one instruction once errno is out of the picture
// (-fno-math-errno); pow belongs to the same hook and is not reached.
#define STBTT_sqrt(x)   __builtin_sqrt(x)
#define STBTT_pow(x, y) __builtin_pow(x, y)

#define STBTT_STATIC
#define STB_TRUETYPE_IMPLEMENTATION
#include <stb_truetype.h>

#include "common/free_ptr.h"
#include "common/sys_paths.h"
#include "kelo/osd.h"
#include "osd/font_check.h"

namespace kelo::osd {
namespace {

// Fixed rows and advances instead of the font's metrics: ':' sits lower than
// the digits and digits look monospaced whatever the font.
struct Placement {
  int top_colon;     // top row of a ':' glyph
  int top_other;     // top row of any other glyph
  int before_colon;  // advance when the next character is ':'
  int after_slash;   // advance after '/'
  int after_colon;   // advance after ':'
  int after_other;   // advance after any other character
};
constexpr Placement kCanvas48{15, 10, 26, 16, 12, 24};
constexpr Placement kCanvas16{5, 3, 9, 5, 4, 8};

// The font file whole, as stb_file reads it. Only regular files: stb_file
// sizes its buffer by seeking, which a pipe or device answers with -1 and
// then overruns the buffer.
char *read_font(const char *path, size_t *len) {
  struct stat st;
  if (path == nullptr || stat(path, &st) != 0 || !S_ISREG(st.st_mode)) return nullptr;
  return static_cast<char *>(stb_file(const_cast<char *>(path), len));
}

}  // namespace
}  // namespace kelo::osd

extern "C" {

KELO_EXPORT int osd_render_text(const unsigned char *font, size_t font_len, int font_offset,
                                unsigned char *canvas, float pixel_height, int width, int height,
                                const char *text) {
  using namespace kelo::osd;
  // stb_truetype reads wherever the font's offsets point: check them first.
  // The checker follows a plain font: a collection whose first font is not
  // at offset 0 is refused (the lookup reads the first 16 bytes).
  if (font == nullptr || font_len < 16) return -1;
  if (font_offset == 0 && stbtt_GetFontOffsetForIndex(font, 0) != 0) return -1;
  if (!font_usable(font, font_len, font_offset, text)) return -1;
  stbtt_fontinfo info;
  if (!stbtt_InitFont(&info, font, font_offset)) return -1;

  const bool have_canvas =
      canvas != nullptr && width > 0 && height > 0 && static_cast<int64_t>(width) * height <= INT_MAX;
  if (have_canvas) memset(canvas, 0, static_cast<size_t>(width) * static_cast<size_t>(height));
  const float scale = stbtt_ScaleForPixelHeight(&info, pixel_height);
  // Beyond one pixel per font unit a glyph outline becomes millions of
  // segments (and a NaN or negative scale turns the glyph box inside out):
  // such sizes draw nothing, the pen positions stay.
  const bool draw = have_canvas && scale > 0.0f && scale <= 1.0f;
  const Placement &pl = height == 48 ? kCanvas48 : kCanvas16;

  int64_t x = 0;
  if (text == nullptr) return 0;
  for (const unsigned char *t = reinterpret_cast<const unsigned char *>(text); *t; ++t) {
    const int glyph = stbtt_FindGlyphIndex(&info, *t);
    int advance, bearing;  // fetched as the device always did; the table below decides
    stbtt_GetGlyphHMetrics(&info, glyph, &advance, &bearing);
    const int top = *t == ':' ? pl.top_colon : pl.top_other;
    if (draw && x < width && top < height) {
      int x0, y0, x1, y1;
      stbtt_GetGlyphBitmapBox(&info, glyph, scale, scale, &x0, &y0, &x1, &y1);
      // The box goes with its top-left corner at (x, top), offsets unused.
      // Glyphs are cut at the right and bottom edges of the canvas: the
      // rasteriser fills rows top-down and columns left to right, so the part
      // inside comes out as in a full-size bitmap, and text that fits is
      // drawn exactly as before.
      const int64_t w = std::min<int64_t>(static_cast<int64_t>(x1) - x0, width - x);
      const int64_t h = std::min<int64_t>(static_cast<int64_t>(y1) - y0, height - top);
      if (w > 0 && h > 0)
        stbtt_MakeGlyphBitmap(&info, canvas + static_cast<size_t>(top) * static_cast<size_t>(width) + x,
                              static_cast<int>(w), static_cast<int>(h), width, scale, scale, glyph);
    }
    if (t[1] == ':')
      x += pl.before_colon;
    else if (*t == '/')
      x += pl.after_slash;
    else if (*t == ':')
      x += pl.after_colon;
    else
      x += pl.after_other;
    if (x > INT_MAX) x = INT_MAX;  // a text of a hundred million characters
  }
  return static_cast<int>(x);
}

KELO_EXPORT uint16_t *Ascii2Bitmap1555(const char *text, int len, int *width, int *height, int pixel_height,
                                       bool flip) {
  using namespace kelo::osd;
  (void)len;  // older callers pass anything here; the text runs to its NUL
  if (text == nullptr) return nullptr;
  size_t font_len = 0;
  kelo::FreePtr<unsigned char> font(
      reinterpret_cast<unsigned char *>(read_font(kelo::sys::paths().font, &font_len)));
  if (!font) {
    puts("failed to load font ");
    return nullptr;
  }
  int w = 0, h = 0;
  osd_canvas_size(pixel_height, &w, &h);
  if (width) *width = w;
  if (height) *height = h;
  kelo::FreePtr<unsigned char> canvas(
      static_cast<unsigned char *>(malloc(static_cast<size_t>(w) * static_cast<size_t>(h))));
  if (!canvas) return nullptr;
  // A font that cannot be used frees the font and canvas too (older builds
  // leaked both here).
  if (osd_render_text(font.get(), font_len, 0, canvas.get(), static_cast<float>(pixel_height), w, h, text) <
      0)
    return nullptr;
  font.reset();
  // Every pixel is written below: no zero-filled allocation needed.
  auto *out =
      static_cast<uint16_t *>(malloc(static_cast<size_t>(w) * static_cast<size_t>(h) * sizeof(uint16_t)));
  if (out == nullptr) return nullptr;
  osd_coverage_to_bitmap1555(canvas.get(), w, h, flip ? 1 : 0, out);
  return out;
}

}  // extern "C"
