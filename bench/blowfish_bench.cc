// Blowfish beside Nettle (codebook) and OpenSSL's low-level CBC routine.
#include <kel/blowfish.h>

#include <benchmark/benchmark.h>
#include <nettle/blowfish.h>

#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/blowfish.h>

#include <vector>

namespace {

constexpr unsigned char kKey[32] = {1, 2, 3, 4, 5, 6, 7, 8, 9};
constexpr size_t kSize = 64 << 10;

std::vector<unsigned char> buffer(kSize, 'x');

void finish(benchmark::State& state) {
  benchmark::DoNotOptimize(buffer.data());
  state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * kSize));
}

template <int (*Run)(BlowfishContext*, const void*, void*, uint32_t)>
void kel_blowfish(benchmark::State& state) {
  BlowfishContext c;
  BlowfishInitCBC(&c, kKey, sizeof kKey, 0);
  for (auto _ : state) Run(&c, buffer.data(), buffer.data(), kSize);
  finish(state);
}
BENCHMARK(kel_blowfish<BlowfishEncodeECB>)->Name("blowfish_ecb_encrypt/64KiB/kel");
BENCHMARK(kel_blowfish<BlowfishDecodeECB>)->Name("blowfish_ecb_decrypt/64KiB/kel");
BENCHMARK(kel_blowfish<BlowfishEncodeCBC>)->Name("blowfish_cbc_encrypt/64KiB/kel");
BENCHMARK(kel_blowfish<BlowfishDecodeCBC>)->Name("blowfish_cbc_decrypt/64KiB/kel");

template <void (*Run)(const struct blowfish_ctx*, size_t, uint8_t*, const uint8_t*)>
void nettle_blowfish(benchmark::State& state) {
  blowfish_ctx c;
  blowfish_set_key(&c, sizeof kKey, kKey);
  for (auto _ : state) Run(&c, kSize, buffer.data(), buffer.data());
  finish(state);
}
BENCHMARK(nettle_blowfish<nettle_blowfish_encrypt>)->Name("blowfish_ecb_encrypt/64KiB/nettle");
BENCHMARK(nettle_blowfish<nettle_blowfish_decrypt>)->Name("blowfish_ecb_decrypt/64KiB/nettle");

template <int Direction>
void openssl_blowfish(benchmark::State& state) {
  BF_KEY key;
  BF_set_key(&key, sizeof kKey, kKey);
  unsigned char iv[8] = {};
  for (auto _ : state) BF_cbc_encrypt(buffer.data(), buffer.data(), kSize, &key, iv, Direction);
  finish(state);
}
BENCHMARK(openssl_blowfish<BF_ENCRYPT>)->Name("blowfish_cbc_encrypt/64KiB/openssl");
BENCHMARK(openssl_blowfish<BF_DECRYPT>)->Name("blowfish_cbc_decrypt/64KiB/openssl");

}  // namespace
