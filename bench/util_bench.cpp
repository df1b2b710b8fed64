// Utilities side by side with their usual alternatives: MD5 and base64 vs
// OpenSSL, the block copies vs memcpy.
#include <benchmark/benchmark.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include "kelo/encoding.h"
#include "kelo/md5.h"
#include "kelo/mem.h"

#if __has_include(<openssl/evp.h>)
#include <openssl/evp.h>
// OpenSSL's one-shot MD5; declared here because its header's MD5_CTX
// clashes with ours.
extern "C" unsigned char *MD5(const unsigned char *d, size_t n, unsigned char *md);
#define KELO_BENCH_OPENSSL 1
#endif

namespace {

std::vector<unsigned char> pattern(size_t n) {
  std::vector<unsigned char> v(n);
  uint32_t x = 12345;
  for (auto &b : v) {
    x = x * 1103515245u + 12345u;
    b = static_cast<unsigned char>(x >> 16);
  }
  return v;
}

// Runs body once per iteration and counts range(0) bytes for each.
template <typename Body>
void count_bytes(benchmark::State &st, Body body) {
  for (auto _ : st) {
    body();
    benchmark::ClobberMemory();
  }
  st.SetBytesProcessed(static_cast<int64_t>(st.iterations()) * st.range(0));
}

size_t arg(const benchmark::State &st) { return static_cast<size_t>(st.range(0)); }

// Base64 text of n pattern bytes, NUL-terminated.
std::vector<char> base64_of(size_t n) {
  auto data = pattern(n);
  std::vector<char> text((n + 2) / 3 * 4 + 1);
  base64_encode(data.data(), n, text.data(), text.size());
  return text;
}

void BM_Md5_Kelo(benchmark::State &st) {
  auto data = pattern(arg(st));
  unsigned char d[16];
  count_bytes(st, [&] {
    MD5_CTX ctx;
    MD5Init(&ctx);
    MD5Update(&ctx, data.data(), static_cast<unsigned>(data.size()));
    MD5Final(&ctx, d);
    benchmark::DoNotOptimize(d);
  });
}
BENCHMARK(BM_Md5_Kelo)->Arg(1 << 10)->Arg(1 << 20);

// Base64 in both directions; bytes processed are the binary bytes.
void BM_Base64Encode_Kelo(benchmark::State &st) {
  auto data = pattern(arg(st));
  std::vector<char> out((arg(st) + 2) / 3 * 4 + 1);
  count_bytes(
      st, [&] { benchmark::DoNotOptimize(base64_encode(data.data(), data.size(), out.data(), out.size())); });
}
BENCHMARK(BM_Base64Encode_Kelo)->Arg(4 << 10)->Arg(1 << 20);

void BM_Base64Decode_Kelo(benchmark::State &st) {
  auto text = base64_of(arg(st));
  std::vector<unsigned char> out(arg(st) + 3);
  count_bytes(st, [&] {
    benchmark::DoNotOptimize(base64_decode(text.data(), text.size() - 1, out.data(), out.size()));
  });
}
BENCHMARK(BM_Base64Decode_Kelo)->Arg(4 << 10)->Arg(1 << 20);

#if defined(KELO_BENCH_OPENSSL)
void BM_Md5_OpenSSL(benchmark::State &st) {
  auto data = pattern(arg(st));
  unsigned char d[16];
  count_bytes(st, [&] {
    MD5(data.data(), data.size(), d);
    benchmark::DoNotOptimize(d);
  });
}
BENCHMARK(BM_Md5_OpenSSL)->Arg(1 << 10)->Arg(1 << 20);

void BM_Base64Encode_OpenSSL(benchmark::State &st) {
  auto data = pattern(arg(st));
  std::vector<unsigned char> out((arg(st) + 2) / 3 * 4 + 1);
  count_bytes(st, [&] {
    benchmark::DoNotOptimize(EVP_EncodeBlock(out.data(), data.data(), static_cast<int>(data.size())));
  });
}
BENCHMARK(BM_Base64Encode_OpenSSL)->Arg(4 << 10)->Arg(1 << 20);

void BM_Base64Decode_OpenSSL(benchmark::State &st) {
  auto text = base64_of(arg(st));
  std::vector<unsigned char> out(arg(st) + 3);
  const auto *in = reinterpret_cast<const unsigned char *>(text.data());
  count_bytes(st, [&] {
    benchmark::DoNotOptimize(EVP_DecodeBlock(out.data(), in, static_cast<int>(text.size() - 1)));
  });
}
BENCHMARK(BM_Base64Decode_OpenSSL)->Arg(4 << 10)->Arg(1 << 20);
#endif

// Copies: 64-byte aligned buffers with room for the block overrun.
struct CopyBufs {
  std::vector<unsigned char> src, dst;
  unsigned char *s, *d;
  explicit CopyBufs(size_t n) : src(n + 256), dst(n + 256) {
    s = src.data() + ((64 - reinterpret_cast<uintptr_t>(src.data()) % 64) % 64);
    d = dst.data() + ((64 - reinterpret_cast<uintptr_t>(dst.data()) % 64) % 64);
    memset(s, 1, n);
  }
};

void BM_Copy_memcpy(benchmark::State &st) {
  CopyBufs b(arg(st));
  count_bytes(st, [&] { memcpy(b.d, b.s, arg(st)); });
}

void BM_Copy_mem_cpy_pld(benchmark::State &st) {
  CopyBufs b(arg(st));
  count_bytes(st, [&] { benchmark::DoNotOptimize(mem_cpy_pld(b.d, b.s, arg(st))); });
}

// Every byte mem_cpy_pld writes, in one memcpy: with both buffers on a line
// boundary the block loop's extra block makes that (len rounded down to 64)
// + 64 bytes, 320 at 256, a quarter more than len. The reference for any copy
// that keeps the block count (glibc may take a slower path for the longer
// size, so it is no strict floor).
void BM_Copy_memcpy_written_span(benchmark::State &st) {
  CopyBufs b(arg(st) + 64);
  const size_t span = (arg(st) & ~size_t{63}) + 64;
  count_bytes(st, [&] { memcpy(b.d, b.s, span); });
}

// len - 64 copies exactly len bytes (the loop adds one block).
void BM_Copy_kelo_copy(benchmark::State &st) {
  CopyBufs b(arg(st));
  count_bytes(st, [&] { kelo_copy(b.d, b.s, static_cast<int>(arg(st)) - 64); });
}

#define KELO_COPY_SIZES ->Arg(256)->Arg(4 << 10)->Arg(64 << 10)->Arg(4 << 20)
BENCHMARK(BM_Copy_memcpy) KELO_COPY_SIZES;
BENCHMARK(BM_Copy_mem_cpy_pld) KELO_COPY_SIZES;
BENCHMARK(BM_Copy_memcpy_written_span) KELO_COPY_SIZES;
BENCHMARK(BM_Copy_kelo_copy) KELO_COPY_SIZES;

}  // namespace

BENCHMARK_MAIN();
