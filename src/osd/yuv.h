// YUV conversion internals shared with the tests.
#pragma once

namespace kelo::osd {

// 24-bit BMP pixel array (rows of B, G, R bytes padded to a multiple of 4,
// bottom-up) to a new NV12 image of (size_t)(width * height * 1.5) bytes.
// Prints "{bitmapLineByte is <stride>}" on every call, NULL bitmap included.
unsigned char *Bitmap888ToYUV(const unsigned char *bitmap, int width, int height);

}  // namespace kelo::osd
