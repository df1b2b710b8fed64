/* The stb single-file libraries behind the OSD code, compiled into the
 * library from Debian's libstb-dev headers: stb_truetype (font parsing and
 * glyph rasterisation) and stb_image_write (PNG output, for the tools).
 *
 * Compiled as C++ like the rest of the library: stb_truetype reads 32-bit
 * values as (p[0] << 24) + ..., which overflows int (undefined in C) for
 * bytes of 128 and up, and is defined arithmetic in C++20.
 *
 * They are built here rather than taken from libstb.so.0: that object holds
 * every stb library and is bound at load time, which every service paid for
 * at start-up although only OSD rendering uses a handful of its functions.
 * Compiled with hidden visibility, nothing of stb is exported; what the
 * library does not call is dropped at link time (--gc-sections).
 *
 * src/osd/font_check.cpp mirrors the reads of exactly this stb_truetype.h:
 * the build checks the header's hash (cmake/KeloDeps.cmake), so a new
 * Debian version cannot change the rasteriser without the check being
 * reviewed with it. */
#define STB_TRUETYPE_IMPLEMENTATION
#include <stb_truetype.h>

#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>
