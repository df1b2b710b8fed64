/* On-screen-display time stamps: ASCII text drawn with the device's TrueType
 * font into a 16-bit ARGB1555 bitmap, and bitmaps converted to NV12 (a luma
 * plane, then interleaved Cb, Cr). Tuned for two sizes (pixel height 16 on a
 * 140 x 16 canvas, 48 on 420 x 48) and for digits, ':', '/' and blanks.
 * Stateless: the font file is read on every call; any thread. Diagnostics go
 * to standard output. */
#ifndef KELO_OSD_H
#define KELO_OSD_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#include <kelo/export.h>

KELO_BEGIN_DECLS

/* Renders text (up to its NUL; len is ignored) into a new bitmap of
 * *width x *height pixels (freed with free): 0xFFFF where a glyph covers the
 * pixel, 0x8000 elsewhere, rows top-down, or bottom-up with flip.
 * pixel_height 48 gives a 420 x 48 canvas, any other value 140 x 16 (the
 * glyphs are still scaled to pixel_height). Text wider than the canvas is cut
 * at its right edge.
 * The font file cannot be read: prints "failed to load font " and a newline,
 * returns NULL, *width and *height untouched. The file is not a usable
 * TrueType font: NULL, with *width and *height already set. */
KELO_EXPORT uint16_t *Ascii2Bitmap1555(const char *text, int len, int *width, int *height, int pixel_height,
                                       bool flip);

/* Draws text into canvas (width x height coverage bytes, stride width,
 * cleared first) from the font at font_offset in font[0, font_len). Every
 * glyph's box is put with its top-left corner at the pen position and a fixed
 * top row (':' lower than the digits); the pen moves by fixed advances.
 * Returns the final pen position (the sum of the advances), or -1 when the
 * font cannot be used. Glyphs are cut at the canvas edges. */
KELO_EXPORT int osd_render_text(const unsigned char *font, size_t font_len, int font_offset,
                                unsigned char *canvas, float pixel_height, int width, int height,
                                const char *text);

/* Converts a 16-bit ARGB1555 pixel array laid out like a BMP's (rows of
 * 2 x width bytes, padded to a multiple of 4; the last row in memory is the
 * top of the picture, or the first one with flip non-zero) to a new NV12
 * image of (size_t)(width * height * 1.5) bytes (freed with free). Only an
 * even number of rows and columns is converted; chroma comes from the pixel
 * of each 2 x 2 block whose row and column are even. NULL bitmap: prints
 * "[Bitmap1555ToYUV] param NULL, buf:(nil), " and returns NULL. */
KELO_EXPORT unsigned char *Bitmap1555ToYUV(const unsigned char *bitmap, int width, int height, int flip);

/* The two pixel values of the bitmaps: where a glyph covers the pixel, and
 * everywhere else (alpha set in both; no anti-aliasing). */
#define OSD_PIXEL_TEXT       ((uint16_t)0xFFFF) /* white */
#define OSD_PIXEL_BACKGROUND ((uint16_t)0x8000) /* black */

/* The canvas that Ascii2Bitmap1555 and Ascii2yuv draw on for pixel_height:
 * 420 x 48 for exactly 48, 140 x 16 for any other value. */
static inline void osd_canvas_size(int pixel_height, int *width, int *height) {
  *width = pixel_height == 48 ? 420 : 140;
  *height = pixel_height == 48 ? 48 : 16;
}

/* The last step of Ascii2Bitmap1555, for a canvas that osd_render_text drew
 * from font bytes of the caller's (a font file other than the device's):
 * bitmap (width x height pixels) gets OSD_PIXEL_TEXT where coverage is
 * non-zero and OSD_PIXEL_BACKGROUND elsewhere, rows top-down, or bottom-up
 * with flip. With the canvas of osd_canvas_size the result is the bitmap
 * Ascii2Bitmap1555 makes from that font, ready for Bitmap1555ToYUV. */
static inline void osd_coverage_to_bitmap1555(const unsigned char *coverage, int width, int height, int flip,
                                              uint16_t *bitmap) {
  int r, c;
  for (r = 0; r < height; r++) {
    uint16_t *row = bitmap + (size_t)(flip ? height - 1 - r : r) * (size_t)width;
    const unsigned char *cov = coverage + (size_t)r * (size_t)width;
    for (c = 0; c < width; c++) row[c] = cov[c] ? OSD_PIXEL_TEXT : OSD_PIXEL_BACKGROUND;
  }
}

/* Ascii2Bitmap1555 (no flip) then Bitmap1555ToYUV with flip: pass flip 1 for
 * an upright image (the bitmap is top-down). *width and *height receive the
 * canvas size. NULL when the text cannot be rendered. */
KELO_EXPORT unsigned char *Ascii2yuv(const char *text, int *width, int *height, int pixel_height, int flip);

KELO_END_DECLS

#endif
