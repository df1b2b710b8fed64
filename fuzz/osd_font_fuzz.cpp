// Arbitrary bytes as the font: osd_render_text must answer -1 or draw, and
// never read outside the font data.
//
// This holds the font checker (src/osd/font_check.cpp) to the rasteriser it
// guards: both come from the same stb_truetype.h, compiled into the library
// (src/osd/stb_libs.cpp) and here instrumented with it, so any font the checker
// lets through and stb_truetype then reads out of bounds, recurses on or
// asserts on is a finding.
#include <limits.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "kelo/osd.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  // Exact-size heap copy, so a read past the end is caught.
  auto *font = static_cast<unsigned char *>(malloc(size ? size : 1));
  if (size) memcpy(font, data, size);
  static unsigned char canvas[420 * 48];
  static const char *const texts[] = {"2018:01:05 15:24:59", "0123456789/: \x7f\x80\xe9\xff"};
  for (const char *text : texts) {
    int pen = osd_render_text(font, size, 0, canvas, 16.0f, 140, 16, text);
    if (pen != -1 && pen != (text == texts[0] ? 140 : 133)) abort();  // fixed advances
    osd_render_text(font, size, 0, canvas, 48.0f, 420, 48, text);
  }
  free(font);
  return 0;
}
