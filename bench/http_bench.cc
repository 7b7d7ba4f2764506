// CURLClient beside bare libcurl with the same options, on connections that nginx keeps open. Bare
// libcurl gathers the response in a std::string that it keeps between requests.
#include <kel/http.h>
#include <kel/library.h>

#include <benchmark/benchmark.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "support/nginx.h"

namespace {

constexpr size_t kLarge = size_t{100} << 20;

void require(bool condition) {
  if (!condition) std::abort();
}

/// nginx with a file of 5,000 bytes and one of 100 MiB.
class Peer {
 public:
  Peer() {
    const std::string files = server_.folder / "files/";
    for (const char* name : {"small", "large"}) std::ofstream(files + name, std::ios::binary);
    std::filesystem::resize_file(files + "small", 5000);
    std::filesystem::resize_file(files + "large", kLarge);
  }
  std::string plain(const char* path) const {
    return "http://localhost:" + std::to_string(server_.http) + path;
  }
  std::string tls(const char* path) const {
    return "https://localhost:" + std::to_string(server_.https) + path;
  }
  std::string file(const char* name) const { return server_.folder / name; }

 private:
  tqutil::LibAutoInit library_{"http_bench"};
  kel::testing::HttpsServer server_;
};

const Peer& peer() {
  static const Peer started;
  return started;
}

class Bare {
 public:
  Bare() {
    set(CURLOPT_NOSIGNAL, 1L);
    set(CURLOPT_CONNECTTIMEOUT, 120L);
    set(CURLOPT_TIMEOUT, 120L);
    set(CURLOPT_ERRORBUFFER, &error_[0]);
    set(CURLOPT_WRITEFUNCTION, &append);
    set(CURLOPT_WRITEDATA, &body_);
    set(CURLOPT_CAPATH, nullptr);
    set(CURLOPT_CAINFO, peer().file("ca.pem").c_str());
    set(CURLOPT_SSLCERT, peer().file("client.pem").c_str());
    set(CURLOPT_SSLKEY, peer().file("client.key").c_str());
  }
  ~Bare() { curl_slist_free_all(headers_); }
  Bare(const Bare&) = delete;
  Bare& operator=(const Bare&) = delete;

  size_t get(const std::string& url) {
    body_.clear();
    set(CURLOPT_URL, url.c_str());
    set(CURLOPT_HTTPGET, 1L);
    set(CURLOPT_HTTPHEADER, nullptr);
    curl_slist_free_all(headers_);
    headers_ = curl_slist_append(nullptr, "Accept: text/plain");
    set(CURLOPT_HTTPHEADER, headers_);
    require(curl_easy_perform(handle_.get()) == CURLE_OK);
    long code = 0;
    require(curl_easy_getinfo(handle_.get(), CURLINFO_RESPONSE_CODE, &code) == CURLE_OK);
    return code == 200 ? body_.size() : 0;
  }

 private:
  template <class Value>
  void set(CURLoption option, Value value) {
    require(curl_easy_setopt(handle_.get(), option, value) == CURLE_OK);
  }
  static size_t append(char* data, size_t size, size_t nmemb, void* body) {
    static_cast<std::string*>(body)->append(data, size * nmemb);
    return size * nmemb;
  }

  std::unique_ptr<CURL, decltype(&curl_easy_cleanup)> handle_{curl_easy_init(), curl_easy_cleanup};
  curl_slist* headers_ = nullptr;
  char error_[CURL_ERROR_SIZE] = "";
  std::string body_;
};

class Kel {
 public:
  Kel() {
    require(client_.Init_withoutsslctxCallback(peer().file("ca.pem"), peer().file("client.key"),
                                               peer().file("client.pem"), "localhost"));
  }
  size_t get(const std::string& url) {
    require(client_.Execute(url, {"Accept: text/plain"}, "", storage::curl::GET));
    return client_.GetResponseCode() == 200 ? client_.GetBuffer().GetContentLength() - 1 : 0;
  }

 private:
  CURLClient client_;
};

template <class Client>
void get(benchmark::State& state, const std::string& url, size_t size) {
  Client client;
  require(client.get(url) == size);
  for (auto _ : state) require(client.get(url) == size);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

/// With a new client for each body, whose buffer has to grow.
template <class Client>
void get_first(benchmark::State& state, const std::string& url, size_t size) {
  for (auto _ : state) require(Client().get(url) == size);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void kel_get_tls(benchmark::State& s) { get<Kel>(s, peer().tls("/files/small"), 5000); }
void bare_get_tls(benchmark::State& s) { get<Bare>(s, peer().tls("/files/small"), 5000); }
BENCHMARK(kel_get_tls)->Name("get_tls/5000/kel")->UseRealTime();
BENCHMARK(bare_get_tls)->Name("get_tls/5000/libcurl")->UseRealTime();

void kel_get(benchmark::State& s) { get<Kel>(s, peer().plain("/files/small"), 5000); }
void bare_get(benchmark::State& s) { get<Bare>(s, peer().plain("/files/small"), 5000); }
BENCHMARK(kel_get)->Name("get/5000/kel")->UseRealTime();
BENCHMARK(bare_get)->Name("get/5000/libcurl")->UseRealTime();

void kel_body(benchmark::State& s) { get<Kel>(s, peer().plain("/files/large"), kLarge); }
void bare_body(benchmark::State& s) { get<Bare>(s, peer().plain("/files/large"), kLarge); }
BENCHMARK(kel_body)->Name("body/100MiB/kel")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(bare_body)->Name("body/100MiB/libcurl")->UseRealTime()->Unit(benchmark::kMillisecond);

void kel_first(benchmark::State& s) { get_first<Kel>(s, peer().plain("/files/large"), kLarge); }
void bare_first(benchmark::State& s) { get_first<Bare>(s, peer().plain("/files/large"), kLarge); }
BENCHMARK(kel_first)->Name("first_body/100MiB/kel")->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(bare_first)
    ->Name("first_body/100MiB/libcurl")
    ->UseRealTime()
    ->Unit(benchmark::kMillisecond);

}  // namespace
