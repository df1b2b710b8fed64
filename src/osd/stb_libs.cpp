/* stb_image_write, compiled with the library from Debian's libstb-dev header
 * like the other stb libraries it is built with (stb_truetype in
 * src/osd/glyph.cpp, stb.h's stb_file in src/osd/stb_file.c), instead of
 * being linked from libstb.so.0, which holds every stb library and is bound
 * at load time. Static in the library: nothing of it is exported, and since
 * no function of the library writes images, none of it is emitted. kelo-osd
 * links this file built with KELO_STB_IMAGE_WRITE_EXTERN to write its PNGs. */
#ifndef KELO_STB_IMAGE_WRITE_EXTERN
#define STB_IMAGE_WRITE_STATIC
#endif
#define STB_IMAGE_WRITE_IMPLEMENTATION
#include <stb_image_write.h>
