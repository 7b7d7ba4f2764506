/**
 * @file
 * HTTP and HTTPS requests over libcurl, one at a time and synchronous.
 *
 * - CURLClient: a session with mutual TLS that keeps its connections open between requests.
 *   storage::CURLClientAdapter puts it behind storage::CURLClientInterface, for callers who want to
 *   put another transport in its place.
 * - CurlRequest: a request object with more methods, captured response headers and, if wanted, the
 *   caller's memory for the response.
 * - CURLBuffer: a response body.
 *
 * Any status is a success of the transfer: ask for it. Redirects are not followed. Without a NAT
 * proxy (kel/address.h) the proxy variables of the environment count, as libcurl reads them.
 *
 * **TLS.** Certificates, keys and CA bundles are PEM files. The peer is verified against the CA
 * file alone, or against the system's trust store where none is given, and its certificate must
 * be for the host of the URL, unless a call that says so switches that off. The server name that
 * goes into the client hello is another matter: by it a server chooses which authority's chain it
 * presents. It is "QXCA" or "ECA" after CURLClient::Init(), the caller's after the plain forms, and
 * otherwise the URL's host. libcurl has no option for it: the client sets it in OpenSSL as the
 * handshake starts, which needs a libcurl built with OpenSSL. HTTP servers may answer status 421
 * when it is not the host that the request names; send them the header "Host: QXCA".
 *
 * **Memory.** A response is kept whole. Lack of memory fails the call with a report; nothing
 * throws.
 *
 * **Threads.** An object is used by one thread at a time; different objects are independent. The
 * library's start, or CurlRequest::global_init(), comes before the first object. Timeouts use no
 * signal. No object survives fork(2).
 *
 * The header needs none of libcurl's or OpenSSL's, but includes <curl/curl.h> where that can be
 * found, since the type CURLcode of the TLS-context hooks cannot be declared beside it.
 *
 * @code
 * CURLClient client;
 * client.SetTimeout(30);
 * if (!client.Init("/etc/svc/ca.pem", "/etc/svc/key.pem", "/etc/svc/cert.pem", "", nullptr,
 * nullptr, false, false)) return -1; if (!client.Execute("https://store:8443/list", {"Accept:
 * application/json"}, "", storage::curl::GET) || client.GetResponseCode() != 200) return -1;
 * puts(client.GetBuffer().GetContent());   // ends in a NUL
 * @endcode
 */
#ifndef KEL_HTTP_H
#define KEL_HTTP_H

#include <kel/export.h>

#ifdef __cplusplus

#include <stddef.h>

#include <string>
#include <vector>

#if __has_include(<curl/curl.h>)
#include <curl/curl.h>
#else
enum CURLcode : unsigned;
struct curl_slist;
#endif

struct ssl_st;                      // SSL
typedef struct ssl_ctx_st SSL_CTX;  // as OpenSSL declares it

/**
 * A hook that sets up the TLS context of each new connection: certificates, trust, callbacks.
 *
 * @param curl  libcurl's handle
 * @param ctx   the context, borrowed; lives as long as the connection
 * @param data  what was installed with the hook; the CURLClient itself for the hook of Init()
 * @return CURLE_OK, or what the transfer then fails with
 */
typedef CURLcode (*CURLContextHook)(void* curl, SSL_CTX* ctx, void* data);

/**
 * A response body: bytes that grow at the end, NUL bytes among them.
 *
 * The capacity is a multiple of 1,024 bytes and starts at 1,024. Up to 64 KiB it is the least that
 * holds the content. Beyond that it grows by half at a time while there is memory, so that n bytes
 * cost O(n) whatever the pieces they come in; large blocks are moved by the kernel instead of
 * copied, and what no byte was written to takes no memory. It never shrinks: a buffer that held a
 * large body holds its memory until it is destroyed.
 */
class KEL_API CURLBuffer {
 public:
  CURLBuffer();
  ~CURLBuffer();
  CURLBuffer(const CURLBuffer&) = delete;
  CURLBuffer& operator=(const CURLBuffer&) = delete;

  /**
   * Adds size * nmemb bytes, which are not from this buffer. Returns their count; 0, with the
   * content as it was, for a null `data` or a product beyond size_t (EINVAL) or without memory,
   * all reported.
   */
  size_t Append(const void* data, size_t size, size_t nmemb);
  /// Adds one NUL byte, which then counts in the length; false without memory, which is reported.
  bool Finalize();
  /// Sets the length to 0; the capacity stays.
  void Reset();
  /// The bytes, valid until the next Append() or Finalize(); null only where memory never sufficed.
  const char* GetContent() const;
  /// The number of bytes, the NUL of Finalize() included.
  size_t GetContentLength() const;
  /// The number of bytes that fit without growing.
  size_t GetCapacity() const;

 private:
  bool Reserve(size_t needed, const char* caller);
  bool Resize(size_t capacity);

  size_t length_ = 0;
  char* bytes_ = nullptr;
  size_t capacity_ = 0;
};

/** A request body on its way: the caller's bytes, how many have gone, how many there are. */
struct CURLPutDataBuffer {
  const char* data;
  size_t position;
  size_t size;
};

namespace storage::curl {
/** The method of CURLClient::Execute(). Other values, HEAD among them, are sent as GET. */
enum HttpMethod : int { GET = 0, POST = 1, HEAD = 2, PUT = 3, DELETE = 4 };
}  // namespace storage::curl

/**
 * A session: made ready once by one of the Init forms, then any number of requests, until Close().
 * Connections stay open between requests. One request leaves nothing to the next but those and the
 * response, which the next replaces.
 */
class KEL_API CURLClient {
 public:
  /// Timeout 120 seconds; needs Init before it can do anything.
  CURLClient();
  /// Close().
  ~CURLClient();
  CURLClient(const CURLClient&) = delete;
  CURLClient& operator=(const CURLClient&) = delete;

  /** @name Making ready
   * True at once when the client is ready already, with nothing changed. Files are not read before
   * the first connection, so a missing one fails Execute(). All failures are reported. @{ */
  /**
   * Mutual TLS with setHXPKIArtifacts(true, externalCA, hook, reserved). Tries three times, with a
   * second's pause after each failure.
   *
   * @param caCert      CA bundle; empty: the system's trust store
   * @param key,cert    the client's key, without a pass phrase, and certificate; neither may be
   *                    empty, even where `hook` brings others
   * @param serverName  kept, not used: the server name is "ECA" or "QXCA"
   * @param hook        the TLS-context hook for `externalCA`; not used without
   * @param reserved    not used, like `unused`
   * @param externalCA  `hook` brings certificate and trust, not the files; server name "ECA"
   */
  bool Init(const std::string& caCert, const std::string& key, const std::string& cert,
            const std::string& serverName, CURLContextHook hook, CURLContextHook reserved,
            bool externalCA, bool unused);
  /**
   * TLS from files, each used when its path is not empty. Tries three times like Init().
   *
   * @param caCert      CA bundle. **Empty switches verification of the peer off**
   * @param serverName  server name of the client hello, at most 255 bytes; empty: the URL's host
   */
  bool Init_withoutsslctxCallback(const std::string& caCert, const std::string& key,
                                  const std::string& cert, const std::string& serverName);
  /// As above without a client certificate; tries once.
  bool InitNoClientCert(const std::string& caCert, const std::string& serverName);
  /// Seconds for connecting, and for each whole transfer, from the next Init on. 0: 300 for
  /// connecting, no limit for the transfer. Values beyond 24 days count as that.
  void SetTimeout(unsigned int seconds);
  /// Closes the connections. The last response stays; another request needs another Init.
  void Close();
  /** @} */

  /** @name Requests
   * @{ */
  /**
   * Sends one request and keeps the response, with a NUL behind its body.
   *
   * A PUT sends the body whatever its size; POST and every other method with a body are sent as
   * POST; DELETE without one as DELETE; the rest as GET. A POST is an
   * application/x-www-form-urlencoded one unless the headers say otherwise. A request that found a
   * kept connection closed by the server is sent again on a new one.
   *
   * @param headers  whole lines, "Name: value"; those with CR, LF or NUL are refused (EINVAL).
   *                 "Name:" takes one of libcurl's own away
   * @param body     may hold any bytes; used until the call returns
   * @return true when the whole response was received, whatever its status. False, reported, else:
   *         not initialised (EINVAL), refused arguments, a failed or cut-off transfer, a timeout,
   *         lack of memory; GetBuffer() then has what came, without a NUL, and the status is 0
   *         where the transfer failed. Transfers of more than 60 seconds are told in a warning.
   */
  bool Execute(const std::string& url, const std::vector<std::string>& headers,
               const std::string& body, storage::curl::HttpMethod method);
  /// The last response's body; GetContentLength() counts the NUL behind it.
  const CURLBuffer& GetBuffer() const;
  /// The last response's status; 0 when there was none.
  long GetResponseCode() const;
  /// A copy with everything but letters, digits and "-._~" as %XX; empty for null or, reported,
  /// without memory.
  std::string encodeUrl(const char* text) const;
  /** @} */

  /** @name Parts of Init, for sessions of other kinds
   * Each works on the handle that the last Init made and fails without one. @{ */
  /// Forgets the method of the last request; 0 or libcurl's code.
  int ResetOpt();
  /// Stores the four strings; false for one with a NUL (EINVAL) or without memory, both reported.
  bool setCustomSecurityCreds(const std::string& caCert, const std::string& key,
                              const std::string& cert, const std::string& serverName);
  /**
   * Reads a pass phrase, the first line of a file without CR and LF. It is never logged and no copy
   * but `out` stays in memory; wiping that is the caller's part.
   *
   * @param out  receives at most 1,023 characters; unchanged on failure
   * @return 0; -1 when the file cannot be opened or read, -2 when it is empty, both with a warning
   */
  static int loadPassphraseFromFile(const std::string& path, std::string& out);
  /// Installs a hook for new connections, or none for null; 0 or libcurl's code, reported.
  int setContextFunction(CURLContextHook hook, void* data);
  /// Takes the CA file and folder away: nothing is trusted but what a hook adds. 0 or a code.
  int setupCAInfoToNULL();
  /// Sends everything through the NAT proxy, which also resolves the names ("socks5h"), when
  /// get_nat_qxproxy() knows one; false, reported, when that cannot be set.
  bool setSocksProxyOptionsIfRequired();
  /**
   * Applies the stored files and the server name "ECA" or "QXCA".
   *
   * @param verify      false leaves key and certificate out and verification as it is
   * @param externalCA  trust nothing but what `hook` sets up
   * @return 0; -1, reported, when `verify` is set and key or certificate are not; libcurl's last
   *         code when options were refused, each of which is reported, and which is no failure
   *         of Init()
   */
  int setHXPKIArtifacts(bool verify, bool externalCA, CURLContextHook hook,
                        CURLContextHook reserved);
  /// libcurl's write callback; `buffer` is a CURLBuffer. The count of bytes taken, or 0.
  static size_t WriteCallback(char* ptr, size_t size, size_t nmemb, void* buffer);
  /// libcurl's read callback; `putBuffer` is a CURLPutDataBuffer. The count of bytes given.
  static size_t PutDataCallback_(char* ptr, size_t size, size_t nmemb, void* putBuffer);
  /** @} */

 private:
  bool Prepare(const char* caller);
  bool InitImp(const std::string& caCert, const std::string& key, const std::string& cert,
               const std::string& serverName, CURLContextHook hook, CURLContextHook reserved,
               bool externalCA);
  bool InitImp_withoutsslctxCallback(const std::string& caCert, const std::string& key,
                                     const std::string& cert, const std::string& serverName);
  int SetMethod(storage::curl::HttpMethod method);
  bool ReplaceHeaders(const std::vector<std::string>& headers);
  bool Perform();
  int SetServerName(const char* name);
  static CURLcode ContextHook(void* curl, void* ctx, void* client);
  static void SendServerName(const ssl_st* ssl, int where, int result);

  bool initialised_ = false;
  void* handle_ = nullptr;  // CURL
  curl_slist* header_list_ = nullptr;
  unsigned int timeout_ = 120;
  long response_code_ = 0;
  char error_text_[256] = "";
  CURLBuffer response_;
  CURLPutDataBuffer request_body_ = {};
  std::string ca_cert_path_;
  std::string client_key_path_;
  std::string client_cert_path_;
  std::string server_name_;

  char sent_server_name_[256] = "";  // empty: libcurl's own choice
  CURLContextHook context_hook_ = nullptr;
  void* context_data_ = nullptr;
  void (*info_callback_)(const ssl_st* ssl, int where, int result) = nullptr;
};

namespace storage {

/**
 * What callers need of a session, as CURLClient does it; implement it to put another transport in
 * its place. The order of the virtual functions is part of the binary interface.
 */
class KEL_API CURLClientInterface {
 public:
  virtual const CURLBuffer& GetBuffer() const = 0;
  virtual bool InitNoClientCert(const std::string& caCert, const std::string& serverName) = 0;
  virtual bool Init(const std::string& caCert, const std::string& key, const std::string& cert,
                    const std::string& serverName, CURLContextHook hook, CURLContextHook reserved,
                    bool externalCA, bool unused) = 0;
  virtual bool Init_withoutsslctxCallback(const std::string& caCert, const std::string& key,
                                          const std::string& cert,
                                          const std::string& serverName) = 0;
  virtual bool Execute(const std::string& url, const std::vector<std::string>& headers,
                       const std::string& body, curl::HttpMethod method) = 0;
  virtual void SetTimeout(unsigned int seconds) = 0;
  virtual long GetResponseCode() = 0;
  virtual std::string encodeUrl(const char* text) = 0;
  virtual ~CURLClientInterface();
};

/** A CURLClient behind the interface. */
class KEL_API CURLClientAdapter final : public CURLClientInterface {
 public:
  CURLClientAdapter();
  ~CURLClientAdapter() override;
  const CURLBuffer& GetBuffer() const override;
  bool InitNoClientCert(const std::string& caCert, const std::string& serverName) override;
  bool Init(const std::string& caCert, const std::string& key, const std::string& cert,
            const std::string& serverName, CURLContextHook hook, CURLContextHook reserved,
            bool externalCA, bool unused) override;
  bool Init_withoutsslctxCallback(const std::string& caCert, const std::string& key,
                                  const std::string& cert, const std::string& serverName) override;
  bool Execute(const std::string& url, const std::vector<std::string>& headers,
               const std::string& body, curl::HttpMethod method) override;
  void SetTimeout(unsigned int seconds) override;
  long GetResponseCode() override;
  std::string encodeUrl(const char* text) override;

 private:
  CURLClient client_;
};

}  // namespace storage

/**
 * One request after another: optional putData() and getData(memory), then start(), headers(),
 * perform(), and the questions about the response. perform() may be called again to repeat the
 * request; the next start() forgets it, with the caller's memory that was lent to it.
 *
 * Results are 0 or libcurl's codes, for curl_easy_strerror(); -1 without a handle. Only lack of
 * memory and refused headers are reported. perform() after a start() that failed, or none, gives
 * what that gave, or -1.
 *
 * @code
 * CurlRequest request;
 * request.putData(text.data(), text.size());
 * if (request.start("https://store/notes/1", CurlRequest::PATCH, cert, key, ca, 10, 60) != 0) ...
 * request.headers("Content-Type: text/plain");
 * if (request.perform() == 0 && request.getHttpRespCode() == 200) use(request.getDataString());
 * @endcode
 */
class KEL_API CurlRequest {
 public:
  /// Other values are sent as GET.
  enum HttpMethod : int { POST = 0, GET = 1, PUT = 2, DELETE = 3, HEAD = 4, PATCH = 5 };

  /// libcurl's start with all its features, which the library's start has in it; counted. 0 or a
  /// code. Not thread-safe together with other threads that use libcurl.
  static int global_init();
  /// Ends what a global_init() began, after the last object is gone.
  static void global_cleanup();

  CurlRequest();
  ~CurlRequest();
  CurlRequest(const CurlRequest&) = delete;
  CurlRequest& operator=(const CurlRequest&) = delete;

  /**
   * Prepares a request with TLS files and verification on.
   *
   * @param certFile,keyFile,caFile  used when not empty; without `caFile` the system's trust store
   * @param connectTimeout,timeout   seconds to connect, and for the whole transfer; 0: 300, and
   * none
   */
  int start(const std::string& url, HttpMethod method, const std::string& certFile,
            const std::string& keyFile, const std::string& caFile, long connectTimeout,
            long timeout);
  /**
   * Prepares a request without TLS files.
   *
   * @param verifyHost  whether the certificate must be for the URL's host
   * @param verifyPeer  whether an authority that the system trusts must have signed it
   */
  int start(const std::string& url, HttpMethod method, long connectTimeout, long timeout,
            bool verifyHost, bool verifyPeer);
  /// Adds a whole line, "Name: value", to the request; false, reported, for one with CR, LF or NUL
  /// (EINVAL) or without memory.
  bool headers(const std::string& line);
  /// Adds all lines, up to the first that is refused.
  bool headers(const std::vector<std::string>& lines);
  /// The body of the next POST, PUT or PATCH, borrowed until the request is done. Others send none.
  void putData(const char* data, size_t size);
  /// Memory for the next response, borrowed until it has been read there. A response that does not
  /// fit fills it, and perform() then gives CURLE_WRITE_ERROR.
  void getData(char* buffer, size_t capacity);
  /// Sends the request, without waiting for "100 Continue", and receives the response.
  int perform();

  /// The body, unless it went to the caller's memory.
  const std::string& getDataString() const;
  /// The caller's memory; null when there is none.
  char* getData() const;
  /// How many bytes of the response are in it.
  size_t getDataSize() const;
  /// The lines of the response's head, those of interim responses before them.
  const std::string& getHeader() const;
  /// The status; 0 when there was no response.
  long getHttpRespCode() const;
  /// As CURLClient::encodeUrl().
  std::string encodeUrl(const char* text) const;
  /// As above, for text with NUL bytes.
  std::string encodeUrl(const std::string& text) const;

 private:
  /// The caller's memory for a response.
  struct ResponseMemory {
    char* data;
    size_t position;
    size_t capacity;
    bool in_use;
  };

  int Prepare(const std::string& url, HttpMethod method, long connectTimeout, long timeout);
  int SetBody();
  static size_t Receive(char* ptr, size_t size, size_t nmemb, void* request);

  void* handle_ = nullptr;  // CURL
  std::string response_;
  std::string response_headers_;
  CURLPutDataBuffer body_ = {};
  ResponseMemory memory_ = {};
  curl_slist* header_list_ = nullptr;

  curl_slist* last_header_ = nullptr;
  HttpMethod method_ = GET;
  int start_code_ = -1;       // what start() came to; nothing is sent unless it is 0
  bool body_sent_ = false;    // the next start() forgets the body
  bool memory_used_ = false;  // and the caller's memory
};

#endif
#endif
