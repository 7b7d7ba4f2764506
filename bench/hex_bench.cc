// Hexadecimal text of fingerprints and buffers, beside a printf per byte and OpenSSL's converters.
#include <kel/digest.h>
#include <kel/serialize.h>

#include <benchmark/benchmark.h>
#include <openssl/crypto.h>

#include <cstdio>
#include <vector>

namespace {

std::vector<unsigned char> bytes(4 << 10, 0xc6);
std::vector<unsigned char> parsed(bytes.size());
std::vector<char> text(2 * bytes.size() + 1);

void finish(benchmark::State& state) {
  state.SetBytesProcessed(state.iterations() * state.range(0));
}

void print_fingerprint_kel(benchmark::State& state) {
  for (auto _ : state) {
    SHA256DigestToString_r(bytes.data(), text.data(), text.size());
    benchmark::DoNotOptimize(text.data());
    benchmark::ClobberMemory();
  }
  finish(state);
}
BENCHMARK(print_fingerprint_kel)->Name("hex_print/fingerprint/kel")->Arg(32);

void print_snprintf(benchmark::State& state) {
  for (auto _ : state) {
    for (int64_t i = 0; i < state.range(0); ++i)
      std::snprintf(&text[static_cast<size_t>(2 * i)], 3, "%02x", bytes[static_cast<size_t>(i)]);
    benchmark::ClobberMemory();
  }
  finish(state);
}
BENCHMARK(print_snprintf)->Name("hex_print/fingerprint/snprintf")->Arg(32);

void print_openssl(benchmark::State& state) {
  const auto size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    OPENSSL_buf2hexstr_ex(text.data(), text.size(), nullptr, bytes.data(), size, '\0');
    benchmark::ClobberMemory();
  }
  finish(state);
}
BENCHMARK(print_openssl)->Name("hex_print/fingerprint/openssl")->Arg(32);
BENCHMARK(print_openssl)->Name("hex_print/4KiB/openssl")->Arg(4 << 10);

void print_buffer_kel(benchmark::State& state) {
  const auto size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    KelBufToSerialize(text.data(), text.size(), bytes.data(), size);
    benchmark::ClobberMemory();
  }
  finish(state);
}
BENCHMARK(print_buffer_kel)->Name("hex_print/4KiB/kel")->Arg(4 << 10);

void prepare_text() { KelBufToSerialize(text.data(), text.size(), bytes.data(), bytes.size()); }

void parse_buffer_kel(benchmark::State& state) {
  prepare_text();
  const auto size = static_cast<size_t>(state.range(0));
  for (auto _ : state) {
    KelBufToDeserialize(parsed.data(), size, text.data(), text.size());
    benchmark::ClobberMemory();
  }
  finish(state);
}
BENCHMARK(parse_buffer_kel)->Name("hex_parse/4KiB/kel")->Arg(4 << 10);

void parse_openssl(benchmark::State& state) {
  prepare_text();
  for (auto _ : state) {
    OPENSSL_hexstr2buf_ex(parsed.data(), parsed.size(), nullptr, text.data(), '\0');
    benchmark::ClobberMemory();
  }
  finish(state);
}
BENCHMARK(parse_openssl)->Name("hex_parse/4KiB/openssl")->Arg(4 << 10);

}  // namespace
