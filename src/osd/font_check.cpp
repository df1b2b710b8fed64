// Mirrors the reads of stb_truetype (the TrueType path of v1.26) with bounds
// checks. Every function here follows the library routine named beside it.
// The rasteriser is compiled into the library from the same stb_truetype.h
// (src/osd/glyph.cpp), and the build accepts only the header this file
// was checked against (its hash in cmake/KeloDeps.cmake): a new stb from
// Debian stops the build until this file has been reviewed against it, and
// osd_font_fuzz runs the checker in front of that very rasteriser.
#include "osd/font_check.h"

#include <math.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <stb_truetype.h>

#include "common/free_ptr.h"

namespace kelo::osd {
namespace {

// Composite glyphs nest a few levels in real fonts; stb_truetype follows
// them recursively without a limit.
constexpr int kMaxDepth = 8;
constexpr int kMaxComponents = 1024;     // per drawn glyph, all levels
constexpr int64_t kMaxPoints = 1 << 12;  // outline points per drawn glyph, all levels

class Reader {
 public:
  Reader(const unsigned char *d, size_t n) : d_(d), n_(static_cast<int64_t>(n)) {}
  bool has(int64_t off, int64_t size) const { return off >= 0 && size >= 0 && off <= n_ - size; }
  bool u8(int64_t off, uint32_t &v) const {
    if (!has(off, 1)) return false;
    v = d_[off];
    return true;
  }
  bool u16(int64_t off, uint32_t &v) const {
    if (!has(off, 2)) return false;
    v = static_cast<uint32_t>(d_[off]) << 8 | d_[off + 1];
    return true;
  }
  bool s16(int64_t off, int32_t &v) const {
    uint32_t u;
    if (!u16(off, u)) return false;
    v = static_cast<int16_t>(u);
    return true;
  }
  bool u32(int64_t off, uint32_t &v) const {
    if (!has(off, 4)) return false;
    v = static_cast<uint32_t>(d_[off]) << 24 | static_cast<uint32_t>(d_[off + 1]) << 16 |
        static_cast<uint32_t>(d_[off + 2]) << 8 | d_[off + 3];
    return true;
  }
  const unsigned char *at(int64_t off) const { return d_ + off; }

 private:
  const unsigned char *d_;
  int64_t n_;
};

struct Font {
  Reader r;
  int64_t start = 0;
  uint32_t cmap = 0, loca = 0, head = 0, glyf = 0, hhea = 0, hmtx = 0;
  uint32_t num_glyphs = 0xffff, index_map = 0, loc_format = 0, num_long_metrics = 0;
  int components = 0;
  int64_t points = 0;
};

// stbtt__find_table: the first record with the tag; 0 when absent. The
// table's bytes must lie inside the data.
bool find_table(const Font &f, const char *tag, uint32_t &offset) {
  uint32_t num;
  if (!f.r.u16(f.start + 4, num)) return false;
  offset = 0;
  for (uint32_t i = 0; i < num; ++i) {
    int64_t loc = f.start + 12 + 16 * static_cast<int64_t>(i);
    uint32_t off, len;
    if (!f.r.u32(loc + 8, off) || !f.r.u32(loc + 12, len)) return false;
    if (memcmp(f.r.at(loc), tag, 4) == 0) {
      if (!f.r.has(off, len)) return false;
      offset = off;
      return true;
    }
  }
  return true;
}

// stbtt_InitFont_internal, TrueType outlines only (no CFF).
bool check_init(Font &f) {
  const struct {
    const char *tag;
    uint32_t *into;
    uint32_t min_len;
  } tables[] = {{"cmap", &f.cmap, 4}, {"loca", &f.loca, 0},  {"head", &f.head, 54},
                {"glyf", &f.glyf, 0}, {"hhea", &f.hhea, 36}, {"hmtx", &f.hmtx, 0}};
  for (const auto &t : tables) {
    if (!find_table(f, t.tag, *t.into) || *t.into == 0) return false;
    if (!f.r.has(*t.into, t.min_len)) return false;
  }
  uint32_t maxp;
  if (!find_table(f, "maxp", maxp)) return false;
  if (maxp != 0 && !f.r.u16(maxp + 4, f.num_glyphs)) return false;

  uint32_t num;
  if (!f.r.u16(f.cmap + 2, num)) return false;
  for (uint32_t i = 0; i < num; ++i) {
    int64_t rec = f.cmap + 4 + 8 * static_cast<int64_t>(i);
    uint32_t platform, encoding, off;
    if (!f.r.u16(rec, platform) || !f.r.u16(rec + 2, encoding) || !f.r.u32(rec + 4, off)) return false;
    if ((platform == STBTT_PLATFORM_ID_MICROSOFT &&
         (encoding == STBTT_MS_EID_UNICODE_BMP || encoding == STBTT_MS_EID_UNICODE_FULL)) ||
        platform == STBTT_PLATFORM_ID_UNICODE)
      f.index_map = f.cmap + off;  // 32-bit sum, as the library does
  }
  if (f.index_map == 0) return false;
  uint32_t format;
  if (!f.r.u16(f.index_map, format)) return false;
  // Format 2 and unknown formats end in an assertion in the library.
  if (format != 0 && format != 4 && format != 6 && format != 12 && format != 13) return false;
  if (!f.r.u16(f.head + 50, f.loc_format)) return false;
  if (!f.r.u16(f.hhea + 34, f.num_long_metrics)) return false;
  // stbtt_ScaleForPixelHeight divides by ascent - descent.
  int32_t ascent, descent;
  if (!f.r.s16(f.hhea + 4, ascent) || !f.r.s16(f.hhea + 6, descent) || ascent - descent <= 0) return false;
  return true;
}

// stbtt_FindGlyphIndex for a code point 0..255.
bool check_glyph_index(const Font &f, uint32_t cp, int64_t &glyph) {
  const Reader &r = f.r;
  const int64_t im = f.index_map;
  uint32_t format, v;
  if (!r.u16(im, format)) return false;
  glyph = 0;
  if (format == 0) {
    uint32_t bytes;
    if (!r.u16(im + 2, bytes)) return false;
    if (static_cast<int64_t>(cp) < static_cast<int64_t>(bytes) - 6) {
      if (!r.u8(im + 6 + cp, v)) return false;
      glyph = v;
    }
    return true;
  }
  if (format == 6) {
    uint32_t first, count;
    if (!r.u16(im + 6, first) || !r.u16(im + 8, count)) return false;
    if (cp >= first && cp < first + count) {
      if (!r.u16(im + 10 + 2 * static_cast<int64_t>(cp - first), v)) return false;
      glyph = v;
    }
    return true;
  }
  if (format == 4) {
    uint32_t segcount, search_range, entry_selector, range_shift;
    if (!r.u16(im + 6, segcount) || !r.u16(im + 8, search_range) || !r.u16(im + 10, entry_selector) ||
        !r.u16(im + 12, range_shift))
      return false;
    segcount >>= 1;
    search_range >>= 1;
    range_shift >>= 1;
    const int64_t end_count = im + 14;
    int64_t search = end_count;
    if (!r.u16(search + range_shift * 2, v)) return false;
    if (cp >= v) search += range_shift * 2;
    search -= 2;
    while (entry_selector) {
      search_range >>= 1;
      if (!r.u16(search + search_range * 2, v)) return false;
      if (cp > v) search += search_range * 2;
      --entry_selector;
    }
    search += 2;
    const int64_t item = static_cast<uint16_t>((search - end_count) >> 1);
    uint32_t start, last, offset;
    if (!r.u16(im + 14 + segcount * 2 + 2 + 2 * item, start) || !r.u16(end_count + 2 * item, last))
      return false;
    if (cp < start || cp > last) return true;
    if (!r.u16(im + 14 + segcount * 6 + 2 + 2 * item, offset)) return false;
    if (offset == 0) {
      int32_t delta;
      if (!r.s16(im + 14 + segcount * 4 + 2 + 2 * item, delta)) return false;
      glyph = static_cast<uint16_t>(static_cast<int32_t>(cp) + delta);
      return true;
    }
    if (!r.u16(offset + (cp - start) * 2 + im + 14 + segcount * 6 + 2 + 2 * item, v)) return false;
    glyph = v;
    return true;
  }
  // Formats 12 and 13: the whole group array must be present.
  uint32_t ngroups;
  if (!r.u32(im + 12, ngroups) || !r.has(im + 16, 12 * static_cast<int64_t>(ngroups))) return false;
  int64_t low = 0, high = static_cast<int32_t>(ngroups);
  while (low < high) {
    int64_t mid = low + ((high - low) >> 1);
    uint32_t start_char, end_char, start_glyph;
    if (!r.u32(im + 16 + mid * 12, start_char) || !r.u32(im + 16 + mid * 12 + 4, end_char)) return false;
    if (cp < start_char) {
      high = mid;
    } else if (cp > end_char) {
      low = mid + 1;
    } else {
      if (!r.u32(im + 16 + mid * 12 + 8, start_glyph)) return false;
      glyph = static_cast<int32_t>(format == 12 ? start_glyph + cp - start_char : start_glyph);
      return true;
    }
  }
  return true;
}

// stbtt_GetGlyphHMetrics.
bool check_hmetrics(const Font &f, int64_t glyph) {
  const int64_t n = f.num_long_metrics;
  if (glyph < n) return f.r.has(f.hmtx + 4 * glyph, 4);
  return f.r.has(f.hmtx + 4 * (n - 1), 2) && f.r.has(f.hmtx + 4 * n + 2 * (glyph - n), 2);
}

// stbtt__GetGlyfOffset: the offset of the glyph's data, -1 for none.
bool glyf_offset(const Font &f, int64_t glyph, int64_t &g) {
  g = -1;
  if (glyph >= f.num_glyphs || f.loc_format >= 2) return true;
  uint32_t a, b;
  if (f.loc_format == 0) {
    if (!f.r.u16(f.loca + glyph * 2, a) || !f.r.u16(f.loca + glyph * 2 + 2, b)) return false;
    a *= 2;
    b *= 2;
  } else if (!f.r.u32(f.loca + glyph * 4, a) || !f.r.u32(f.loca + glyph * 4 + 4, b)) {
    return false;
  }
  // The library adds in unsigned 32 bits and keeps the result as an int.
  const int32_t g1 = static_cast<int32_t>(f.glyf + a), g2 = static_cast<int32_t>(f.glyf + b);
  if (g1 != g2) g = g1;
  return true;
}

// Ranges of a glyph's outline: `all` covers every coordinate its vertices
// carry (0 included: line vertices carry 0 as control point), `pts` only the
// outline points, empty for a glyph without outline.
struct Range {
  float x0 = 0, y0 = 0, x1 = 0, y1 = 0;
  bool empty = true;
  void add(float x, float y) {
    if (empty) {
      x0 = x1 = x;
      y0 = y1 = y;
      empty = false;
      return;
    }
    x0 = x < x0 ? x : x0;
    y0 = y < y0 ? y : y0;
    x1 = x > x1 ? x : x1;
    y1 = y > y1 ? y : y1;
  }
};

struct Box {
  Range all, pts;
  int32_t head_y1 = 0;  // yMax of the glyph header
  Box() { all.add(0, 0); }
};

// The library stores transformed component coordinates in 16 bits; a value
// outside that range is undefined behaviour, not just a wrong outline.
bool fits16(float v) { return v > -32767.0f && v < 32766.0f; }

// Reads the n deltas of one axis (x: short bit 2, same bit 16; y: 4, 32).
bool read_axis(const Font &f, int64_t &p, const unsigned char *flags, int64_t n, unsigned short_bit,
               unsigned same_bit, int32_t &lo, int32_t &hi) {
  int32_t v = 0;
  for (int64_t i = 0; i < n; ++i) {
    const unsigned fl = flags[i];
    if (fl & short_bit) {
      uint32_t d;
      if (!f.r.u8(p++, d)) return false;
      v += (fl & same_bit) ? static_cast<int32_t>(d) : -static_cast<int32_t>(d);
    } else if (!(fl & same_bit)) {
      int32_t d;
      if (!f.r.s16(p, d)) return false;
      p += 2;
      v += d;
    }
    const int32_t stored = static_cast<int16_t>(v);
    lo = stored < lo ? stored : lo;
    hi = stored > hi ? stored : hi;
  }
  return true;
}

// stbtt__GetGlyphShapeTT (and stbtt_GetGlyphBox, which reads the header).
// box receives the range of the coordinates the outline will carry.
bool check_shape(Font &f, int64_t glyph, int depth, Box &box) {
  box = Box{};
  int64_t g;
  if (!glyf_offset(f, glyph, g)) return false;
  if (g < 0) return true;
  if (!f.r.has(g, 10)) return false;
  int32_t contours = 0;
  if (!f.r.s16(g, contours) || !f.r.s16(g + 8, box.head_y1)) return false;
  if (contours > 0) {
    const int64_t end_pts = g + 10;
    uint32_t ins, last;
    if (!f.r.u16(end_pts + contours * 2, ins) || !f.r.u16(end_pts + contours * 2 - 2, last)) return false;
    const int64_t n = 1 + static_cast<int64_t>(last);
    f.points += n;
    if (f.points > kMaxPoints) return false;
    int64_t p = end_pts + contours * 2 + 2 + ins;
    FreePtr<unsigned char> flags(static_cast<unsigned char *>(malloc(static_cast<size_t>(n))));
    if (!flags) return false;
    uint32_t fl = 0, repeat = 0;
    for (int64_t i = 0; i < n; ++i) {
      if (repeat == 0) {
        if (!f.r.u8(p++, fl)) return false;
        if (fl & 8) {
          if (!f.r.u8(p++, repeat)) return false;
        }
      } else {
        --repeat;
      }
      flags.get()[i] = static_cast<unsigned char>(fl);
    }
    int32_t x0 = 0, x1 = 0, y0 = 0, y1 = 0;
    if (!read_axis(f, p, flags.get(), n, 2, 16, x0, x1) || !read_axis(f, p, flags.get(), n, 4, 32, y0, y1))
      return false;
    for (Range *r : {&box.all, &box.pts}) {
      r->add(static_cast<float>(x0), static_cast<float>(y0));
      r->add(static_cast<float>(x1), static_cast<float>(y1));
    }
    // A contour that starts off-curve looks at the point after it: the last
    // point may not begin such a contour (the library would read past its
    // vertex array).
    int64_t next_move = 0;
    int32_t j = 0;
    for (int64_t i = 0; i < n; ++i) {
      if (next_move != i) continue;
      if (!(flags.get()[i] & 1)) {
        if (i + 1 >= n) return false;
        if (flags.get()[i + 1] & 1) ++i;
      }
      uint32_t e;
      if (j >= contours || !f.r.u16(end_pts + 2 * static_cast<int64_t>(j), e)) return false;
      next_move = 1 + static_cast<int64_t>(e);
      ++j;
    }
    return true;
  }
  if (contours == 0) return true;
  // Composite: components drawn recursively, each through its transform.
  if (depth >= kMaxDepth) return false;
  int64_t comp = g + 10;
  for (bool more = true; more;) {
    uint32_t flags, component;
    if (!f.r.u16(comp, flags) || !f.r.u16(comp + 2, component)) return false;
    comp += 4;
    if (!(flags & 2)) return false;  // point matching: an assertion in the library
    float mtx[6] = {1, 0, 0, 1, 0, 0};
    int32_t a, b, c, d;
    if (flags & 1) {
      if (!f.r.s16(comp, a) || !f.r.s16(comp + 2, b)) return false;
      comp += 4;
    } else {
      uint32_t ua, ub;
      if (!f.r.u8(comp, ua) || !f.r.u8(comp + 1, ub)) return false;
      // Signed bytes, sign-extended without going through a char type.
      a = static_cast<int32_t>(ua ^ 0x80u) - 0x80;
      b = static_cast<int32_t>(ub ^ 0x80u) - 0x80;
      comp += 2;
    }
    mtx[4] = static_cast<float>(a);
    mtx[5] = static_cast<float>(b);
    if (flags & (1 << 3)) {
      if (!f.r.s16(comp, a)) return false;
      mtx[0] = mtx[3] = static_cast<float>(a) / 16384.0f;
      comp += 2;
    } else if (flags & (1 << 6)) {
      if (!f.r.s16(comp, a) || !f.r.s16(comp + 2, d)) return false;
      mtx[0] = static_cast<float>(a) / 16384.0f;
      mtx[3] = static_cast<float>(d) / 16384.0f;
      comp += 4;
    } else if (flags & (1 << 7)) {
      if (!f.r.s16(comp, a) || !f.r.s16(comp + 2, b) || !f.r.s16(comp + 4, c) || !f.r.s16(comp + 6, d))
        return false;
      mtx[0] = static_cast<float>(a) / 16384.0f;
      mtx[1] = static_cast<float>(b) / 16384.0f;
      mtx[2] = static_cast<float>(c) / 16384.0f;
      mtx[3] = static_cast<float>(d) / 16384.0f;
      comp += 8;
    }
    if (++f.components > kMaxComponents) return false;
    Box part;
    if (!check_shape(f, component, depth + 1, part)) return false;
    // The transform is linear: the corners of the component's range bound
    // every transformed coordinate.
    const float m = sqrtf(mtx[0] * mtx[0] + mtx[1] * mtx[1]);
    const float n = sqrtf(mtx[2] * mtx[2] + mtx[3] * mtx[3]);
    for (int which = 0; which < 2; ++which) {
      const Range &from = which ? part.pts : part.all;
      if (from.empty) continue;
      for (float x : {from.x0, from.x1})
        for (float y : {from.y0, from.y1}) {
          const float tx = m * (mtx[0] * x + mtx[2] * y + mtx[4]);
          const float ty = n * (mtx[1] * x + mtx[3] * y + mtx[5]);
          if (!fits16(tx) || !fits16(ty)) return false;
          (which ? box.pts : box.all).add(tx, ty);
        }
    }
    more = flags & (1 << 5);
  }
  return true;
}

}  // namespace

bool font_usable(const unsigned char *font, size_t len, int offset, const char *text) {
  // Offsets inside the library are 32-bit ints.
  if (font == nullptr || offset < 0 || len < 16 || len > (1u << 30)) return false;
  Font f{Reader(font, len)};
  f.start = offset;
  uint32_t num_tables;
  if (!f.r.u16(f.start + 4, num_tables) || !f.r.has(f.start + 12, 16 * static_cast<int64_t>(num_tables)))
    return false;
  if (!check_init(f)) return false;
  if (text == nullptr) return true;
  bool seen[256] = {};
  for (const unsigned char *t = reinterpret_cast<const unsigned char *>(text); *t; ++t) {
    if (seen[*t]) continue;
    seen[*t] = true;
    int64_t glyph;
    if (!check_glyph_index(f, *t, glyph)) return false;
    // Glyph ids are 16-bit; anything else is a damaged map.
    if (glyph < 0 || glyph > 0xffff) return false;
    if (!check_hmetrics(f, glyph)) return false;
    f.components = 0;
    f.points = 0;
    Box box;
    if (!check_shape(f, glyph, 0, box)) return false;
    // The rasteriser clips edges above the glyph box only when the box does
    // not start at the baseline row; a glyph declared to end at or below the
    // baseline whose outline rises above it ends in an assertion there.
    if (box.head_y1 <= 0 && !box.pts.empty && box.pts.y1 > 0) return false;
  }
  return true;
}

}  // namespace kelo::osd
