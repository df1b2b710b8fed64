// Bounds check of a TrueType font before stb_truetype touches it.
//
// stb_truetype trusts every offset in the file: a damaged or hostile font
// makes it read outside the font data, recurse without end on composite
// glyphs, or hit its own assertions. font_usable() walks every read that
// stbtt_InitFont, stbtt_FindGlyphIndex, stbtt_GetGlyphHMetrics,
// stbtt_GetGlyphBitmapBox and stbtt_MakeGlyphBitmap make for the given text
// and accepts the font only when all of them stay inside font[0, len).
#pragma once

#include <stddef.h>

namespace kelo::osd {

// True when font (at offset) can be handed to stb_truetype for drawing text.
// A font collection is the caller's to refuse: offset is taken as the start
// of a plain font.
bool font_usable(const unsigned char *font, size_t len, int offset, const char *text);

}  // namespace kelo::osd
