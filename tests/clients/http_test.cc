// HTTP and HTTPS against nginx, through a SOCKS5 proxy, and what happens when something fails.
#include <kel/http.h>
#include <kel/library.h>

#include <openssl/ssl.h>
#include <sys/select.h>

#include "support/nginx.h"
#include "support/test.h"

using namespace kel::testing;
namespace http = storage::curl;

namespace {

using GetInfo = Hooked<"curl_easy_getinfo", CURLcode(CURL*, CURLINFO, void*)>;
using Select = Hooked<"select", int(int, fd_set*, fd_set*, fd_set*, timeval*)>;
using Open = Hooked<"fopen", FILE*(const char*, const char*)>;

std::string folder;  // the server's; its "vq.conf" stands in for the product's configuration file
int pauses = 0;
int steps = 0;  // of handshakes

std::string pem(const std::string& name) { return folder + name + ".pem"; }
std::string key(const std::string& name) { return folder + name + ".key"; }

class Http : public ::testing::Test {
 protected:
  Http() { write_file((folder = server.folder / "") + "vq.conf", ""); }

  std::string plain(const std::string& path) const {
    return "http://localhost:" + http_port + path;
  }
  std::string tls(const std::string& host = "localhost") const {
    return "https://" + host + ":" + https_port + "/who";
  }
  std::string body() {  // without the NUL behind it
    return {client.GetBuffer().GetContent(), client.GetBuffer().GetContentLength() - 1};
  }
  long status(const std::string& path, http::HttpMethod method, const std::string& text = "") {
    return client.Execute(plain(path), {}, text, method) ? client.GetResponseCode() : -1;
  }
  /// The names of both sides as the server knows them, its status if not 200, or the error.
  std::string who(const std::string& name, const std::string& host = "localhost") {
    if (!client.Execute(tls(host), {"Host: " + (name.empty() ? host : name)}, "", http::GET))
      return reports.take_texts().back();
    return client.GetResponseCode() == 200 ? body() : std::to_string(client.GetResponseCode());
  }
  std::string ask(const std::string& ca, const std::string& cert, const std::string& name = "",
                  const std::string& host = "localhost") {
    client.Close();
    EXPECT_TRUE(cert.empty()
                    ? client.InitNoClientCert(pem(ca), name)
                    : client.Init_withoutsslctxCallback(pem(ca), key(cert), pem(cert), name));
    return who(name, host);
  }

  tqutil::LibAutoInit library{"http_test"};
  HttpsServer server;
  const std::string http_port = std::to_string(server.http);
  const std::string https_port = std::to_string(server.https);
  ReportCapture reports;
  CURLClient client;
  Open open{[](const char* path, const char* mode) {
    return Open::real(path[1] == 'u' ? (folder + "vq.conf").c_str() : path, mode);
  }};
  Select select{[](int, fd_set*, fd_set*, fd_set*, timeval*) { return ++pauses, 0; }};
};

TEST_F(Http, OneRequestLeavesNothingToTheNext) {
  CurlRequest request;
  ASSERT_TRUE(client.InitNoClientCert("", ""));
  std::mt19937 random(9);
  const size_t sizes[] = {0, 0, 1, 1023, 1024, 1025, 70'000, 1'000'000};
  const char* const names[] = {"POST", "GET", "PUT", "DELETE", "HEAD", "PATCH", "GET"};
  for (unsigned i = 0; i < 300; ++i) {
    const std::string sent = random_bytes(random, sizes[random() % 8]);
    std::vector<std::string> headers = {"Expect:"};
    if (random() % 2 == 0) headers.push_back("X-Mark: " + std::to_string(i));
    const auto echo = [&](const std::string& name) {
      std::string text = name + " /echo HTTP/1.1\r\nHost: localhost:" + http_port + "\r\n";
      text += "Accept: */*\r\n" + (headers.size() == 2 ? headers[1] + "\r\n" : "");
      if (name[0] != 'P') return text + "\r\n";
      text += "Content-Length: " + std::to_string(sent.size()) + "\r\n";
      if (name != "PUT") text += "Content-Type: application/x-www-form-urlencoded\r\n";
      return text + "\r\n" + sent;
    };
    const auto method = random() % 6;
    ASSERT_TRUE(client.Execute(plain("/echo"), headers, sent, http::HttpMethod(method)));
    const bool posts = method == http::POST || (method != http::PUT && !sent.empty());
    const char* const others[] = {"GET", "GET", "GET", "PUT", "DELETE", "GET"};
    ASSERT_TRUE(body() == echo(posts ? "POST" : others[method])) << body().substr(0, 200);

    const auto other = random() % 7;
    std::string memory(sent.size() + 1000, 0);
    if (names[other][0] == 'P' || i % 2 == 0) request.putData(sent.data(), sent.size());
    if (i % 3 == 0) request.getData(memory.data(), memory.size());
    request.start(plain("/echo"), CurlRequest::HttpMethod(other), 5, 9, true, true);
    EXPECT_TRUE(request.headers(headers));
    for (int repeat = 0; repeat < 2; ++repeat) {
      ASSERT_EQ(request.perform(), 0);
      EXPECT_THAT(request.getHeader(), StartsWith("HTTP/1.1 200 OK\r\nServer: "));
      ASSERT_EQ(request.getData(), i % 3 == 0 ? memory.data() : nullptr);
      ASSERT_TRUE(
          (request.getData() ? memory.substr(0, request.getDataSize()) : request.getDataString()) ==
          (other == CurlRequest::HEAD ? "" : echo(names[other])));
    }
  }
  std::string little("...");
  request.getData(little.data(), little.size());
  request.start(plain("/echo"), CurlRequest::GET, 5, 9, true, true);
  EXPECT_EQ(request.perform(), CURLE_WRITE_ERROR);
  EXPECT_EQ(little, "GET");
  EXPECT_FALSE(request.headers("X: y\r\nZ: 1") || request.headers(std::string("X: \0", 4)));
}

TEST_F(Http, FilesRedirectsAndTransfersThatFail) {
  EXPECT_EQ(status("/", http::GET), -1);
  const auto begin_with_timeout = [&](unsigned seconds) {
    client.Close();
    client.SetTimeout(seconds);
    return client.InitNoClientCert("", "");
  };
  ASSERT_TRUE(begin_with_timeout(60));
  EXPECT_EQ(status("/files/new/" + client.encodeUrl("a b"), http::PUT, std::string(5000, 0)), 201);
  EXPECT_EQ(status("/files/new/a%20b", http::GET), 200);
  EXPECT_EQ(body(), std::string(5000, 0));
  EXPECT_EQ(client.GetBuffer().GetCapacity(), 5120);
  EXPECT_EQ(status("/moved", http::GET), 302);
  std::filesystem::resize_file(folder + "files/new/a b", size_t{100} << 20);
  EXPECT_EQ(status("/files/new/a%20b", http::GET), 200);
  EXPECT_EQ(client.GetBuffer().GetContentLength(), (size_t{100} << 20) + 1);
  ASSERT_TRUE(begin_with_timeout(1));
  EXPECT_EQ(status("/slow/new/a%20b", http::GET), -1);
  ASSERT_TRUE(begin_with_timeout(60));
  EXPECT_EQ(status("/cut", http::GET), -1);
  const GetInfo long_time([](CURL* handle, CURLINFO what, void* out) {
    const CURLcode code = GetInfo::real(handle, what, out);
    if (what == CURLINFO_TOTAL_TIME_T) *static_cast<curl_off_t*>(out) += 61'000'000;
    return code;
  });
  EXPECT_EQ(status("/files/new/a%20b", http::DELETE), 204);
  const std::string failed = "Execute: failed to perform CURL session, error: ";
  EXPECT_THAT(reports.take_texts(),
              ElementsAre("Execute: not initialised", StartsWith(failed + "Operation timed out"),
                          failed + "transfer closed with 6 bytes remaining to read",
                          "Execute: the curl excuting time exceeded 60s (61)"));
}

TEST_F(Http, BothSidesAreVerifiedAndTheServerNameSelectsTheChain) {
  EXPECT_EQ(ask("ca", "client"), "localhost CN=client");
  EXPECT_EQ(ask("ca", "client", "QXCA", "127.0.0.1"), "QXCA CN=client");
  EXPECT_EQ(ask("eca", "client", "ECA"), "ECA CN=client");
  for (const char* cert : {"", "stranger", "expired"}) EXPECT_EQ(ask("ca", cert), "400") << cert;
  EXPECT_THAT(ask("ca", "client", "ECA"), HasSubstr("certificate problem: unable to get local"));
  EXPECT_THAT(ask("eca", "client"), HasSubstr("certificate problem: unable to get local"));
  EXPECT_THAT(ask("ca", "client", "EXPIRED"), EndsWith("certificate has expired"));
  EXPECT_THAT(ask("ca", "client", "QXCA", "127.0.0.2"), HasSubstr("no alternative certificate"));
  storage::CURLClientAdapter adapter;
  storage::CURLClientInterface& other = adapter;
  ASSERT_TRUE(other.Init(pem("ca"), key("client"), pem("client"), "", nullptr, nullptr, false, 0));
  EXPECT_TRUE(other.Execute(tls(), {"Host: QXCA"}, "", http::GET));
  EXPECT_STREQ(other.GetBuffer().GetContent(), "QXCA CN=client");
  client.Close();
  const auto bring_certificates = [](void*, SSL_CTX* ctx, void*) {
    SSL_CTX_set_info_callback(ctx, [](const SSL*, int, int) { ++steps; });
    SSL_CTX_use_certificate_file(ctx, pem("client").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_use_PrivateKey_file(ctx, key("client").c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_load_verify_locations(ctx, pem("eca").c_str(), nullptr);
    return CURLE_OK;
  };
  ASSERT_TRUE(client.Init(pem("ca"), "-", "-", "", bring_certificates, nullptr, true, false));
  EXPECT_EQ(who("ECA"), "ECA CN=client");
  EXPECT_GT(steps, 2);

  CurlRequest request;
  request.start(tls(), CurlRequest::GET, pem("client"), key("client"), pem("ca"), 5, 9);
  EXPECT_EQ(request.perform(), 0);
  EXPECT_EQ(request.getDataString(), "localhost CN=client");
}

TEST_F(Http, RefusedOptionsMissingFilesAndNoMemory) {
  EXPECT_FALSE(client.Init("", "", "cert", "", nullptr, nullptr, false, false));
  EXPECT_EQ(pauses, 3);
  EXPECT_THAT(reports.take_texts(), Contains("InitImp: setHXPKIArtifacts failed").Times(3));
  int missed = 0;
  const auto run = [&] {
    bool done = client.encodeUrl("\xff") == "%FF";
    for (const bool external : {false, true}) {
      client.Close();
      done &= client.Init("", key("client"), pem("client"), "", nullptr, nullptr, external, 0);
      done &= client.Execute(plain("/echo"), {"A: b", "C: d"}, "12", http::DELETE);
      EXPECT_TRUE(!done || body().ends_with("\r\n\r\n12"));
    }
    CurlRequest request;
    request.putData("12", 2);
    request.start(plain("/echo"), CurlRequest::PATCH, "", "", pem("ca"), 5, 9);
    done &= request.perform() == 0;
    EXPECT_TRUE(!done || request.getDataString().ends_with("\r\n\r\n12"));
    missed += !done;
  };
  fail_each<"curl_easy_setopt", CURLcode(CURL*, CURLoption, void*)>(CURLE_OUT_OF_MEMORY, 0, run);
  const auto texts = reports.take_texts();
  for (const std::string option : {"SSLCERTTYPE", "SNI_HOSTNAME", "SSLKEY", "CAINFO"})
    EXPECT_THAT(texts,
                Contains("curl_easy_setop CURLOPT_" + option + " failed，Err:27,Out of memory"));
  EXPECT_GT(std::exchange(missed, 0), 30);
  fail_each<"curl_slist_append", curl_slist*(curl_slist*, const char*)>(nullptr, 0, run);
  fail_each<"curl_easy_init", CURL*()>(nullptr, ENOMEM, run);
  fail_each<"curl_easy_escape", char*(CURL*, const char*, int)>(nullptr, ENOMEM, run);
  EXPECT_EQ(missed, 7);  // a failing Init has two more attempts
  fail_each<"realloc", void*(void*, size_t)>(nullptr, ENOMEM, [] {
    CURLBuffer buffer;
    size_t all = buffer.Append(std::string(1024, 'x').data(), 2, 512);
    all += buffer.Finalize();
    EXPECT_EQ(buffer.GetContentLength(), all);
  });
  EXPECT_THAT(reports.take_texts(), Contains(StartsWith("Could not allocate 2048 bytes (Finali")));
}

TEST_F(Http, GoesThroughTheProxyOfTheProductsConfiguration) {
  const std::string port = std::to_string(server.socks) + "\n";
  write_file(folder + "vq.conf", "NAT_QXPROXY_HOST = 127.0.0.1\nNAT_QXPROXY_PORT = " + port);
  EXPECT_EQ(ask("ca", "client"), "localhost CN=client");
  EXPECT_THAT(read_file(folder + "socks.log"), HasSubstr("connected to localhost:" + https_port));
}

TEST_F(Http, ReadsAPassPhraseAndTellsNobody) {
  const ReportCapture all(KEL_LOG_VERBOSE | KEL_LOG_TRACE);
  std::string phrase = "kept";
  const auto load = [&](const std::string& text) {
    write_file(folder + "phrase", text);
    return CURLClient::loadPassphraseFromFile(folder + "phrase", phrase);
  };
  EXPECT_EQ(load(""), -2);
  EXPECT_EQ(CURLClient::loadPassphraseFromFile(folder, phrase), -1);
  EXPECT_EQ(phrase, "kept");
  EXPECT_EQ(load(std::string(2000, 'p')), 0);
  EXPECT_EQ(phrase, std::string(1023, 'p'));
  EXPECT_EQ(load("secret\r\nnext"), 0);
  EXPECT_EQ(phrase, "secret");
  const std::string get = "loadPassphraseFromFile: Failed to get passphrase file,";
  EXPECT_THAT(reports.take_texts(),
              ElementsAre(get + "No data available", EndsWith("return -2"), get + "Is a directory",
                          EndsWith("return -1"), EndsWith("return 0"), EndsWith("return 0")));
}

}  // namespace
