// OSD time stamps: the NV12 conversion against libyuv, and one Ascii2yuv
// call split into reading the font, drawing and converting.
#include <benchmark/benchmark.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <random>
#include <string>
#include <vector>

#include "common/sys_paths.h"
#include "kelo/osd.h"

#if __has_include(<libyuv.h>)
#include <libyuv.h>
#define KELO_HAVE_LIBYUV 1
#endif

namespace {

const char *const kStamp = "2018:01:05 15:24:59";

std::vector<unsigned char> random_bitmap(int w, int h) {
  std::vector<unsigned char> b(static_cast<size_t>(2 * w + (w & 1 ? 2 : 0)) * static_cast<size_t>(h));
  std::mt19937 rng(1);
  for (auto &v : b) v = static_cast<unsigned char>(rng());
  return b;
}

void set_rate(benchmark::State &state, int w, int h) {
  state.counters["Mpix/s"] =
      benchmark::Counter(static_cast<double>(w) * h / 1e6, benchmark::Counter::kIsIterationInvariantRate);
}

void BM_Bitmap1555ToYUV(benchmark::State &state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  auto src = random_bitmap(w, h);
  for (auto _ : state) {
    unsigned char *out = Bitmap1555ToYUV(src.data(), w, h, 1);
    benchmark::DoNotOptimize(out);
    free(out);
  }
  set_rate(state, w, h);
}

#ifdef KELO_HAVE_LIBYUV
// I420 into a fresh block, as Bitmap1555ToYUV returns one.
void BM_libyuv_ARGB1555ToI420(benchmark::State &state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  auto src = random_bitmap(w, h);
  const int stride = 2 * w + (w & 1 ? 2 : 0);
  for (auto _ : state) {
    auto *out = static_cast<uint8_t *>(malloc(static_cast<size_t>(w * h * 3 / 2)));
    uint8_t *u = out + w * h, *v = u + (w / 2) * (h / 2);
    libyuv::ARGB1555ToI420(src.data(), stride, out, w, u, w / 2, v, w / 2, w, h);
    benchmark::DoNotOptimize(out);
    free(out);
  }
  set_rate(state, w, h);
}

// libyuv has no ARGB1555ToNV12: I420 then interleaving U and V gives the
// same layout as ours.
void BM_libyuv_ARGB1555ToNV12(benchmark::State &state) {
  const int w = static_cast<int>(state.range(0)), h = static_cast<int>(state.range(1));
  auto src = random_bitmap(w, h);
  const int stride = 2 * w + (w & 1 ? 2 : 0);
  std::vector<uint8_t> u(static_cast<size_t>((w / 2) * (h / 2))), v(u.size());
  for (auto _ : state) {
    auto *out = static_cast<uint8_t *>(malloc(static_cast<size_t>(w * h * 3 / 2)));
    libyuv::ARGB1555ToI420(src.data(), stride, out, w, u.data(), w / 2, v.data(), w / 2, w, h);
    libyuv::MergeUVPlane(u.data(), w / 2, v.data(), w / 2, out + w * h, w, w / 2, h / 2);
    benchmark::DoNotOptimize(out);
    free(out);
  }
  set_rate(state, w, h);
}
#endif

#define SIZES ->Args({140, 16})->Args({420, 48})->Args({1920, 1080})
BENCHMARK(BM_Bitmap1555ToYUV) SIZES;
#ifdef KELO_HAVE_LIBYUV
BENCHMARK(BM_libyuv_ARGB1555ToI420) SIZES;
BENCHMARK(BM_libyuv_ARGB1555ToNV12) SIZES;
#endif

void use_test_font() {
  static const std::string font = KELO_TEST_FONT;
  kelo::sys::Paths p = kelo::sys::paths();
  p.font = font.c_str();
  kelo::sys::set_paths_for_testing(p);
}

// One call as the video services make it: 16 px, flip 1.
void BM_Ascii2yuv(benchmark::State &state) {
  use_test_font();
  const int ph = static_cast<int>(state.range(0));
  for (auto _ : state) {
    int w, h;
    unsigned char *out = Ascii2yuv(kStamp, &w, &h, ph, 1);
    benchmark::DoNotOptimize(out);
    free(out);
  }
}
BENCHMARK(BM_Ascii2yuv)->Arg(16)->Arg(48);

// The font file whole, in one heap block, as the library reads it.
std::vector<unsigned char> read_font() {
  std::vector<unsigned char> font;
  if (FILE *f = fopen(KELO_TEST_FONT, "rb")) {
    if (fseek(f, 0, SEEK_END) == 0 && ftell(f) > 0) {
      font.resize(static_cast<size_t>(ftell(f)));
      rewind(f);
      font.resize(fread(font.data(), 1, font.size(), f));
    }
    fclose(f);
  }
  return font;
}

// Its parts: reading the font file whole ...
void BM_Ascii2yuv_FontRead(benchmark::State &state) {
  for (auto _ : state) benchmark::DoNotOptimize(read_font());
}
BENCHMARK(BM_Ascii2yuv_FontRead);

// ... checking the font and drawing the text, on the canvas the library
// picks for the pixel height (its size taken from Ascii2Bitmap1555) ...
void BM_Ascii2yuv_Render(benchmark::State &state) {
  use_test_font();
  const auto font = read_font();
  const int ph = static_cast<int>(state.range(0));
  int w = 0, h = 0;
  free(Ascii2Bitmap1555(kStamp, 0, &w, &h, ph, false));
  std::vector<unsigned char> canvas(static_cast<size_t>(w) * static_cast<size_t>(h));
  for (auto _ : state)
    benchmark::DoNotOptimize(
        osd_render_text(font.data(), font.size(), 0, canvas.data(), static_cast<float>(ph), w, h, kStamp));
}
BENCHMARK(BM_Ascii2yuv_Render)->Arg(16)->Arg(48);

// ... and the conversion (coverage to 1555, then NV12), on the real canvas.
void BM_Ascii2yuv_Convert(benchmark::State &state) {
  use_test_font();
  const int ph = static_cast<int>(state.range(0));
  int w, h;
  uint16_t *bmp = Ascii2Bitmap1555(kStamp, 0, &w, &h, ph, false);
  for (auto _ : state) {
    unsigned char *out = Bitmap1555ToYUV(reinterpret_cast<unsigned char *>(bmp), w, h, 1);
    benchmark::DoNotOptimize(out);
    free(out);
  }
  free(bmp);
}
BENCHMARK(BM_Ascii2yuv_Convert)->Arg(16)->Arg(48);

}  // namespace

BENCHMARK_MAIN();
