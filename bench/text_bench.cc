// Codecs and conversions beside OpenSSL, GLib and iconv.
#include <kel/base64.h>
#include <kel/charconv.h>
#include <kel/url.h>

#include <benchmark/benchmark.h>
#include <glib.h>
#include <iconv.h>
#include <openssl/crypto.h>
#include <openssl/evp.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <string>

namespace {

constexpr size_t kSize = 64 << 10;

const std::string& bytes() {
  static const std::string made = [] {
    std::mt19937 random(1);
    std::string s(kSize, '\0');
    for (char& c : s) c = static_cast<char>(random());
    return s;
  }();
  return made;
}
const unsigned char* unsigned_bytes() {
  return reinterpret_cast<const unsigned char*>(bytes().data());
}

const std::string& base64() {
  static const std::string made = [] {
    std::string s(KEL_BASE64_SIZE(kSize), '\0');
    s.resize(Base64Encode(unsigned_bytes(), kSize, s.data(), s.size()));
    return s;
  }();
  return made;
}

const std::string& hex() {
  static const std::string made = [] {
    std::string s;
    blob2hexstring(unsigned_bytes(), kSize, s);
    return s;
  }();
  return made;
}

/// Words of one to twelve letters in four alphabets, of which each takes one more byte a letter; in
/// `mixed` they alternate at random, else the text is plain ASCII.
std::string make_text(bool mixed) {
  std::mt19937 random(2);
  const unsigned starts[] = {'a', 0x430, 0x3042, 0x1F600};
  std::string text;
  while (text.size() < kSize) {
    const unsigned start = starts[mixed ? random() % 4 : 0];
    for (size_t letters = 1 + random() % 12; letters != 0; --letters) {
      unsigned char out[6];
      text.append(out, wc_to_utf8c(static_cast<wchar_t>(start + random() % 26), out));
    }
    text += ' ';
  }
  return text;
}
const std::string& text(bool mixed) {
  static const std::string plain = make_text(false), alternating = make_text(true);
  return mixed ? alternating : plain;
}

/// Runs `call` on the same input again and again.
template <class Call>
void repeat(benchmark::State& state, size_t size, Call call) {
  for (auto _ : state) {
    auto result = call();
    benchmark::DoNotOptimize(result);
    benchmark::ClobberMemory();
  }
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

char out_text[2 * kSize + 16];
unsigned char out_bytes[2 * kSize + 16];

void kel_base64_encode(benchmark::State& state) {
  repeat(state, kSize,
         [] { return Base64Encode(unsigned_bytes(), kSize, out_text, sizeof out_text); });
}
BENCHMARK(kel_base64_encode)->Name("base64_encode/64KiB/kel");

void openssl_base64_encode(benchmark::State& state) {
  repeat(state, kSize,
         [] { return EVP_EncodeBlock(out_bytes, unsigned_bytes(), static_cast<int>(kSize)); });
}
BENCHMARK(openssl_base64_encode)->Name("base64_encode/64KiB/openssl");

void kel_base64_decode(benchmark::State& state) {
  repeat(state, base64().size(),
         [] { return Base64Decode(base64().c_str(), out_bytes, sizeof out_bytes); });
}
BENCHMARK(kel_base64_decode)->Name("base64_decode/64KiB/kel");

void openssl_base64_decode(benchmark::State& state) {
  repeat(state, base64().size(), [] {
    return EVP_DecodeBlock(out_bytes, reinterpret_cast<const unsigned char*>(base64().data()),
                           static_cast<int>(base64().size()));
  });
}
BENCHMARK(openssl_base64_decode)->Name("base64_decode/64KiB/openssl");

void kel_hex_encode(benchmark::State& state) {
  repeat(state, kSize, [] { return HexEncode(bytes().data(), out_text, kSize); });
}
BENCHMARK(kel_hex_encode)->Name("hex_encode/64KiB/kel");

void openssl_hex_encode(benchmark::State& state) {
  repeat(state, kSize, [] {
    return OPENSSL_buf2hexstr_ex(out_text, sizeof out_text, nullptr, unsigned_bytes(), kSize, '\0');
  });
}
BENCHMARK(openssl_hex_encode)->Name("hex_encode/64KiB/openssl");
BENCHMARK(openssl_base64_encode)->Name("hex_encode/64KiB/openssl_base64");

/// In place, so the text has to be there anew each time; the peer gets no such copy.
void kel_hex_decode(benchmark::State& state) {
  repeat(state, hex().size(), [] {
    std::memcpy(out_text, hex().data(), hex().size());
    return HexDecode(out_text, static_cast<int>(hex().size()));
  });
}
BENCHMARK(kel_hex_decode)->Name("hex_decode/64KiB/kel");

void openssl_hex_decode(benchmark::State& state) {
  repeat(state, hex().size(), [] {
    return OPENSSL_hexstr2buf_ex(out_bytes, sizeof out_bytes, nullptr, hex().c_str(), '\0');
  });
}
BENCHMARK(openssl_hex_decode)->Name("hex_decode/64KiB/openssl");
BENCHMARK(openssl_base64_decode)->Name("hex_decode/64KiB/openssl_base64");

void kel_url_encode(benchmark::State& state) {
  static char encoded[3 * kSize + 64];
  repeat(state, text(false).size(), [] { return URLEncode(text(false).c_str(), encoded); });
}
BENCHMARK(kel_url_encode)->Name("url_encode/64KiB/kel");

void glib_url_encode(benchmark::State& state) {
  repeat(state, text(false).size(), [] {
    char* const encoded = g_uri_escape_string(text(false).c_str(), nullptr, 0);
    g_free(encoded);
    return encoded;
  });
}
BENCHMARK(glib_url_encode)->Name("url_encode/64KiB/glib");

void kel_validate(benchmark::State& state, bool mixed) {
  const std::string& s = text(mixed);
  repeat(state, s.size(), [&] {
    return is_valid_utf8_string(reinterpret_cast<const unsigned char*>(s.data()),
                                static_cast<int>(s.size()));
  });
}
BENCHMARK_CAPTURE(kel_validate, mixed, true)->Name("utf8_validate/mixed/kel");
BENCHMARK_CAPTURE(kel_validate, ascii, false)->Name("utf8_validate/ascii/kel");

void glib_validate(benchmark::State& state, bool mixed) {
  const std::string& s = text(mixed);
  repeat(state, s.size(),
         [&] { return g_utf8_validate(s.data(), static_cast<gssize>(s.size()), nullptr); });
}
BENCHMARK_CAPTURE(glib_validate, mixed, true)->Name("utf8_validate/mixed/glib");
BENCHMARK_CAPTURE(glib_validate, ascii, false)->Name("utf8_validate/ascii/glib");

void kel_to_wide(benchmark::State& state, bool mixed) {
  const std::string& s = text(mixed);
  repeat(state, s.size(), [&] {
    wchar_t* const wide = utf8towcs_malloced(s.c_str());
    utf8free(wide);
    return wide;
  });
}
BENCHMARK_CAPTURE(kel_to_wide, mixed, true)->Name("utf8_to_wide/mixed/kel");
BENCHMARK_CAPTURE(kel_to_wide, ascii, false)->Name("utf8_to_wide/ascii/kel");

/// With an open descriptor, into memory that is allocated once.
void iconv_to_wide(benchmark::State& state, bool mixed) {
  const std::string& s = text(mixed);
  const iconv_t descriptor = iconv_open("WCHAR_T", "UTF-8");
  std::wstring wide(s.size(), L'\0');
  repeat(state, s.size(), [&] {
    char* from = const_cast<char*>(s.data());
    char* to = reinterpret_cast<char*>(wide.data());
    size_t left = s.size(), room = wide.size() * sizeof(wchar_t);
    return iconv(descriptor, &from, &left, &to, &room);
  });
  iconv_close(descriptor);
}
BENCHMARK_CAPTURE(iconv_to_wide, mixed, true)->Name("utf8_to_wide/mixed/iconv");
BENCHMARK_CAPTURE(iconv_to_wide, ascii, false)->Name("utf8_to_wide/ascii/iconv");

void kel_from_wide(benchmark::State& state) {
  wchar_t* const wide = utf8towcs_malloced(text(true).c_str());
  repeat(state, text(true).size(), [&] {
    char* const utf8 = wcstoutf8_malloced(wide);
    utf8free(utf8);
    return utf8;
  });
  utf8free(wide);
}
BENCHMARK(kel_from_wide)->Name("wide_to_utf8/mixed/kel");

void iconv_from_wide(benchmark::State& state) {
  wchar_t* const wide = utf8towcs_malloced(text(true).c_str());
  const iconv_t descriptor = iconv_open("UTF-8", "WCHAR_T");
  std::string utf8(text(true).size(), '\0');
  repeat(state, text(true).size(), [&] {
    char* from = reinterpret_cast<char*>(wide);
    char* to = utf8.data();
    size_t left = std::wcslen(wide) * sizeof(wchar_t), room = utf8.size();
    return iconv(descriptor, &from, &left, &to, &room);
  });
  iconv_close(descriptor);
  utf8free(wide);
}
BENCHMARK(iconv_from_wide)->Name("wide_to_utf8/mixed/iconv");

}  // namespace
