// kelo-osd: preview of the on-screen time stamp, as a PNG and optionally as
// the raw NV12 planes the video pipeline overlays.
#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <stb_image_write.h>  // src/osd/stb_libs.cpp, linked in

#include <string>
#include <vector>

#include "kelo/osd.h"

namespace {

// Larger than any font a camera carries; keeps a huge sparse file from
// asking for that much memory.
constexpr off_t kMaxFontBytes = off_t{64} << 20;

void usage(FILE *to, const char *prog) {
  fprintf(to,
          "usage: %s [options] [TEXT]\n"
          "Renders TEXT (default: the local time as \"%%Y:%%m:%%d %%H:%%M:%%S\", the form the\n"
          "camera stamps) the way libkelo_util draws on-screen time stamps.\n"
          "\n"
          "  -s, --size N     pixel height: 48 gives the 420 x 48 canvas, anything\n"
          "                   else the 140 x 16 one (default 16)\n"
          "  -f, --font PATH  TrueType font to use instead of the device's font path\n"
          "  -o, --out FILE   PNG to write (default osd.png): white text on black\n"
          "  -x, --scale N    enlarge the PNG N times, nearest neighbour (default 1)\n"
          "  -n, --nv12 FILE  also write the NV12 image (Y plane, then Cb Cr pairs),\n"
          "                   upright, as the video services get it from Ascii2yuv\n"
          "  -h, --help       this text\n"
          "\n"
          "Without --font the library renders from the device's font file\n"
          "(Ascii2Bitmap1555). With --font the tool reads the file itself and calls\n"
          "the library's osd_render_text on its bytes (the font path is built into\n"
          "the library), then marks every covered pixel white as Ascii2Bitmap1555\n"
          "does. Either way the glyph placement and the YUV conversion\n"
          "(Bitmap1555ToYUV) are the library's. The font must be a regular file.\n"
          "\n"
          "Exit status: 0 when written, 1 when the font or an output file cannot\n"
          "be used, 2 for a bad command line.\n",
          prog);
}

// The font file whole. Only a regular file, as the library itself reads
// fonts: opening a FIFO would wait for a writer, and a directory or device has
// no size to read (the open does not block: O_NONBLOCK, then fstat).
bool read_font(const char *path, std::vector<unsigned char> &out) {
  int fd = open(path, O_RDONLY | O_NONBLOCK | O_CLOEXEC);
  if (fd < 0) {
    fprintf(stderr, "kelo-osd: cannot open %s: %s\n", path, strerror(errno));
    return false;
  }
  struct stat st;
  bool ok = fstat(fd, &st) == 0;
  if (!ok) {
    fprintf(stderr, "kelo-osd: cannot read %s: %s\n", path, strerror(errno));
  } else if (!S_ISREG(st.st_mode)) {
    fprintf(stderr, "kelo-osd: %s is not a regular file\n", path);
    ok = false;
  } else if (st.st_size > kMaxFontBytes) {
    fprintf(stderr, "kelo-osd: %s is too large for a font (%lld bytes)\n", path,
            static_cast<long long>(st.st_size));
    ok = false;
  }
  if (ok) {
    out.resize(static_cast<size_t>(st.st_size));
    size_t got = 0;
    int err = 0;
    while (got < out.size()) {
      ssize_t n = read(fd, out.data() + got, out.size() - got);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0) err = errno;
      if (n <= 0) break;
      got += static_cast<size_t>(n);
    }
    out.resize(got);  // a file that shrank meanwhile: the font check refuses what is cut
    if (err != 0 || got == 0) {
      fprintf(stderr, "kelo-osd: cannot read %s: %s\n", path, err != 0 ? strerror(err) : "empty file");
      ok = false;
    }
  }
  close(fd);
  return ok;
}

// Top-down 1555 bitmap of text, or empty on failure (reason printed).
std::vector<uint16_t> render(const std::string &text, int pixel_height, const char *font_path, int &w,
                             int &h) {
  if (font_path == nullptr) {
    uint16_t *bmp =
        Ascii2Bitmap1555(text.c_str(), static_cast<int>(text.size()), &w, &h, pixel_height, false);
    if (bmp == nullptr) {
      fprintf(stderr, "kelo-osd: cannot render with the device's font (try --font)\n");
      return {};
    }
    std::vector<uint16_t> out(bmp, bmp + static_cast<size_t>(w) * static_cast<size_t>(h));
    free(bmp);
    return out;
  }
  // What Ascii2Bitmap1555 does, from the given file's bytes: the library's
  // canvas, glyph placement and pixel values.
  std::vector<unsigned char> font;
  if (!read_font(font_path, font)) return {};
  osd_canvas_size(pixel_height, &w, &h);
  std::vector<unsigned char> cov(static_cast<size_t>(w) * static_cast<size_t>(h));
  int pen = osd_render_text(font.data(), font.size(), 0, cov.data(), static_cast<float>(pixel_height), w, h,
                            text.c_str());
  if (pen < 0) {
    fprintf(stderr, "kelo-osd: %s is not a usable TrueType font\n", font_path);
    return {};
  }
  if (pen > w) fprintf(stderr, "kelo-osd: text is %d pixels wide, cut at %d\n", pen, w);
  std::vector<uint16_t> out(cov.size());
  osd_coverage_to_bitmap1555(cov.data(), w, h, 0, out.data());
  return out;
}

bool write_png(const char *path, const std::vector<uint16_t> &bmp, int w, int h, int scale) {
  const int sw = w * scale, sh = h * scale;
  std::vector<unsigned char> rgb(static_cast<size_t>(sw) * static_cast<size_t>(sh) * 3);
  for (int y = 0; y < sh; ++y)
    for (int x = 0; x < sw; ++x) {
      const uint16_t p =
          bmp[static_cast<size_t>(y / scale) * static_cast<size_t>(w) + static_cast<size_t>(x / scale)];
      unsigned char *o =
          &rgb[(static_cast<size_t>(y) * static_cast<size_t>(sw) + static_cast<size_t>(x)) * 3];
      o[0] = static_cast<unsigned char>(((p >> 10) & 31) << 3 | ((p >> 12) & 7));
      o[1] = static_cast<unsigned char>(((p >> 5) & 31) << 3 | ((p >> 7) & 7));
      o[2] = static_cast<unsigned char>((p & 31) << 3 | ((p >> 2) & 7));
    }
  return stbi_write_png(path, sw, sh, 3, rgb.data(), sw * 3) != 0;
}

bool write_nv12(const char *path, const std::vector<uint16_t> &bmp, int w, int h) {
  // The bitmap is top-down: flip 1 gives the upright picture.
  unsigned char *yuv = Bitmap1555ToYUV(reinterpret_cast<const unsigned char *>(bmp.data()), w, h, 1);
  if (yuv == nullptr) return false;
  const size_t size = static_cast<size_t>(static_cast<double>(w * h) * 1.5);
  FILE *f = fopen(path, "wb");
  bool ok = f != nullptr && fwrite(yuv, 1, size, f) == size;
  if (f != nullptr && fclose(f) != 0) ok = false;
  free(yuv);
  return ok;
}

}  // namespace

int main(int argc, char **argv) {
  static const struct option longopts[] = {{"size", required_argument, nullptr, 's'},
                                           {"font", required_argument, nullptr, 'f'},
                                           {"out", required_argument, nullptr, 'o'},
                                           {"scale", required_argument, nullptr, 'x'},
                                           {"nv12", required_argument, nullptr, 'n'},
                                           {"help", no_argument, nullptr, 'h'},
                                           {nullptr, 0, nullptr, 0}};
  int pixel_height = 16, scale = 1;
  const char *font = nullptr, *out = "osd.png", *nv12 = nullptr;
  for (int c; (c = getopt_long(argc, argv, "s:f:o:x:n:h", longopts, nullptr)) != -1;) {
    switch (c) {
      case 's': pixel_height = atoi(optarg); break;
      case 'f': font = optarg; break;
      case 'o': out = optarg; break;
      case 'x': scale = atoi(optarg); break;
      case 'n': nv12 = optarg; break;
      case 'h': usage(stdout, argv[0]); return 0;
      default: usage(stderr, argv[0]); return 2;
    }
  }
  if (pixel_height <= 0 || pixel_height > 1000 || scale < 1 || scale > 64 || argc - optind > 1) {
    usage(stderr, argv[0]);
    return 2;
  }
  std::string text;
  if (optind < argc) {
    text = argv[optind];
  } else {
    char buf[64];
    time_t now = time(nullptr);
    struct tm tm;
    strftime(buf, sizeof buf, "%Y:%m:%d %H:%M:%S", localtime_r(&now, &tm));
    text = buf;
  }
  int w = 0, h = 0;
  std::vector<uint16_t> bmp = render(text, pixel_height, font, w, h);
  if (bmp.empty()) return 1;
  if (!write_png(out, bmp, w, h, scale)) {
    fprintf(stderr, "kelo-osd: cannot write %s\n", out);
    return 1;
  }
  if (nv12 != nullptr && !write_nv12(nv12, bmp, w, h)) {
    fprintf(stderr, "kelo-osd: cannot write %s\n", nv12);
    return 1;
  }
  printf("%s: \"%s\" %d x %d%s%s\n", out, text.c_str(), w * scale, h * scale, nv12 ? ", NV12 in " : "",
         nv12 ? nv12 : "");
  return 0;
}
