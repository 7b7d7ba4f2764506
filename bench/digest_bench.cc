// Digests beside OpenSSL's high-level interface with a context and a digest fetched beforehand.
#include <kel/digest.h>

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <vector>

namespace {

std::vector<unsigned char> data(1 << 20, 'd');

void finish(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void kel_sha(benchmark::State& state) {
  SHA256Context context;
  for (auto _ : state) {
    SHA256Initialize(&context);
    SHA256Append(&context, data.data(), static_cast<size_t>(state.range(0)));
    SHA256Finalize(&context);
    benchmark::DoNotOptimize(context.digest);
  }
  finish(state);
}
BENCHMARK(kel_sha)->Name("sha512_256/4KiB/kel")->Arg(4 << 10);
BENCHMARK(kel_sha)->Name("sha512_256/1MiB/kel")->Arg(1 << 20);

void kel_md5(benchmark::State& state) {
  MD5Context context;
  for (auto _ : state) {
    MD5Initialize(&context);
    MD5Append(&context, data.data(), static_cast<uint32_t>(state.range(0)));
    MD5Finalize(&context);
    benchmark::DoNotOptimize(context.digest);
  }
  finish(state);
}
BENCHMARK(kel_md5)->Name("md5/4KiB/kel")->Arg(4 << 10);

void openssl_digest(benchmark::State& state, const char* name) {
  EVP_MD* type = EVP_MD_fetch(nullptr, name, nullptr);
  EVP_MD_CTX* context = EVP_MD_CTX_new();
  unsigned char digest[EVP_MAX_MD_SIZE];
  for (auto _ : state) {
    EVP_DigestInit_ex2(context, type, nullptr);
    EVP_DigestUpdate(context, data.data(), static_cast<size_t>(state.range(0)));
    EVP_DigestFinal_ex(context, digest, nullptr);
    benchmark::DoNotOptimize(digest);
  }
  finish(state);
  EVP_MD_CTX_free(context);
  EVP_MD_free(type);
}
BENCHMARK_CAPTURE(openssl_digest, sha4, "SHA512-256")
    ->Name("sha512_256/4KiB/openssl")
    ->Arg(4 << 10);
BENCHMARK_CAPTURE(openssl_digest, sha1m, "SHA512-256")
    ->Name("sha512_256/1MiB/openssl")
    ->Arg(1 << 20);
BENCHMARK_CAPTURE(openssl_digest, md5, "MD5")->Name("md5/4KiB/openssl")->Arg(4 << 10);

}  // namespace
