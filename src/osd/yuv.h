// YUV conversion internals shared with the tests.
#pragma once

namespace kelo::osd {

// 24-bit BMP pixel array (rows of B, G, R bytes padded to a multiple of 4,
// bottom-up) to a new NV12 image of (size_t)(width * height * 1.5) bytes.
// Prints "{bitmapLineByte is <stride>}" on every call, NULL bitmap included.
unsigned char *Bitmap888ToYUV(const unsigned char *bitmap, int width, int height);

// Bitmap1555ToYUV one pixel at a time: the reference the vector code is
// held to, byte for byte. NULL for a NULL bitmap or an unusable size, silently.
unsigned char *bitmap1555_to_yuv_plain(const unsigned char *bitmap, int width, int height, int flip);

}  // namespace kelo::osd
