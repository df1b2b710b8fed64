/* stb.h's stb_file, the font reader of the OSD code, compiled into the
 * library.
 *
 * stb.h cannot build one function alone: STB_DEFINE compiles its whole
 * implementation. It is compiled here as it is, with hidden visibility and
 * one section per function, and the link keeps only stb_file and what it
 * calls (--gc-sections). This keeps the font read exactly as stb.h does it
 * (fopen "rb", length + 2 bytes, a NUL after the data) instead of a rewrite
 * that could drift from it, and costs a few hundred bytes in the object. */
#define STB_DEFINE
#include <stb.h>
