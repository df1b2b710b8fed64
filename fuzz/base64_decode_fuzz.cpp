// base64_encode of the input gives OpenSSL's text (and fails, writing
// nothing, with one byte less room); base64_decode never writes past outsize,
// matches a plain one-character-at-a-time decoder exactly (result and bytes,
// also on failure), and what it decodes encodes back to text that decodes to
// the same bytes.
#include <openssl/evp.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include "fuzz_input.h"
#include "kelo/encoding.h"

namespace {

int plain_decode(const char *in, size_t len, unsigned char *out, size_t outsize) {
  static const char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  uint32_t acc = 0;
  unsigned have = 0;
  size_t total = 0;
  for (size_t i = 0; i < len; ++i) {
    const char *hit = in[i] ? static_cast<const char *>(memchr(alphabet, in[i], 64)) : nullptr;
    if (hit == nullptr) continue;
    acc = (acc << 6) | static_cast<uint32_t>(hit - alphabet);
    if (++have == 4) {
      if (total + 3 > outsize) return -1;
      out[total++] = static_cast<unsigned char>(acc >> 16);
      out[total++] = static_cast<unsigned char>(acc >> 8);
      out[total++] = static_cast<unsigned char>(acc);
      acc = 0;
      have = 0;
    }
  }
  if (have == 3) {
    if (total + 2 > outsize) return -1;
    out[total++] = static_cast<unsigned char>(acc >> 10);
    out[total++] = static_cast<unsigned char>(acc >> 2);
  } else if (have == 2) {
    if (total + 1 > outsize) return -1;
    out[total++] = static_cast<unsigned char>(acc >> 4);
  }
  return static_cast<int>(total);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size == 0 || size > (1 << 20)) return 0;
  const size_t tlen = (size + 2) / 3 * 4 + 1;
  auto *mine = static_cast<char *>(malloc(tlen)), *openssl = static_cast<char *>(malloc(tlen));
  if (base64_encode(data, size, mine, tlen) != static_cast<int>(tlen)) abort();
  EVP_EncodeBlock(reinterpret_cast<unsigned char *>(openssl), data, static_cast<int>(size));
  if (memcmp(mine, openssl, tlen) != 0) abort();
  memset(mine, 'x', tlen);
  if (base64_encode(data, size, mine, tlen - 1) != -1) abort();
  for (size_t i = 0; i < tlen; ++i)
    if (mine[i] != 'x') abort();
  free(mine);
  free(openssl);
  size_t outsize = (size - 1) * data[0] / 255 + (data[0] & 3);  // from none to enough
  FuzzText in(data + 1, size - 1, false);
  auto *out = static_cast<unsigned char *>(malloc(outsize ? outsize : 1));
  memset(out, 0xee, outsize);
  int n = base64_decode(in.p, in.n, out, outsize);
  if (n > static_cast<int>(outsize)) abort();
  auto *ref = static_cast<unsigned char *>(malloc(outsize ? outsize : 1));
  memset(ref, 0xee, outsize);
  if (plain_decode(in.p, in.n, ref, outsize) != n || memcmp(ref, out, outsize) != 0) abort();
  free(ref);
  if (n > 0) {
    size_t elen = (static_cast<size_t>(n) + 2) / 3 * 4 + 1;
    char *text = static_cast<char *>(malloc(elen));
    if (base64_encode(out, static_cast<size_t>(n), text, elen) != static_cast<int>(elen)) abort();
    if (base64_encode(out, static_cast<size_t>(n), text, elen - 1) != -1) abort();
    auto *again = static_cast<unsigned char *>(malloc(static_cast<size_t>(n)));
    if (base64_decode(text, elen - 1, again, static_cast<size_t>(n)) != n) abort();
    if (memcmp(again, out, static_cast<size_t>(n)) != 0) abort();
    free(again);
    free(text);
  }
  free(out);
  return 0;
}
