#pragma once

#include <netinet/in.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

struct evp_cipher_ctx_st;

namespace weir {

class CBuff;

struct CipherFree {
  void operator()(evp_cipher_ctx_st* context) const;
};

// The upstream HTTP/1.1 client (RFC 9112): one connection at a time, kept open
// between segments, with retries over cache servers. URLs of the hosts "@" and
// "~" go to a server from chunkCacheMap or playlistCacheMap, chosen anew for
// every attempt. "https" URLs are fetched as plain HTTP on port 80; that is meant.
//
// Threads:   one at a time. It blocks for 2 s to connect, 2 s to send, 6 s for a
//            status line and 2 s for every other read, and as long as the
//            resolver takes.
// Ownership: closes its connection and frees its cipher when destroyed.
// Failure:   false or -1 from get() and get_stream(), with the reason on the
//            error stream. Nothing is thrown out of them.
class UCurl {
 public:
  UCurl() = default;
  ~UCurl();
  UCurl(const UCurl&) = delete;
  UCurl& operator=(const UCurl&) = delete;

  // Downloads a document into `out`; the connection is closed afterwards. After
  // a failure `out` holds what it held before, or a part of the document. One of
  // more than 16 MiB is a failure.
  [[nodiscard]] bool get(const std::string& url, std::string& out);

  // Downloads a segment into the buffer, deciphered with AES-128-CBC when `key`
  // isn't empty. Returns the body bytes received, or -1; `speed_kbps` is set on
  // success, in units of 1024 bit/s, measured over the body alone. A download
  // that is cut short by the server or by `stop_flag` (may be null) is a success.
  // `from_bytes` other than 0 resumes an interrupted download, cipher included;
  // after a failure `position` says from where.
  [[nodiscard]] std::int64_t get_stream(const std::string& url, CBuff& cbuff, bool close_after,
                                        double& speed_kbps, const std::string& key,
                                        const std::atomic<bool>* stop_flag,
                                        std::uint64_t from_bytes);

  // The same for clear media that nobody stops.
  [[nodiscard]] std::int64_t get_stream(const std::string& url, CBuff& cbuff, bool close_after,
                                        double& speed_kbps, std::uint64_t from_bytes);

  // Closes the connection if there is one.
  void close_if_open();

  // The offset in the upstream resource that the last body download reached.
  std::uint64_t position = 0;

 private:
  friend class UCurlPeer;  // tests of single steps

  enum class Status { kOk, kNoStatusLine, kNotSuccessful };  // 2xx; none; any other

  // url.cpp
  void parse_url(const std::string& url);
  void substitute_host(const std::string& target);
  void use_cache_server(std::string server, std::uint32_t kind);

  // connection.cpp
  [[nodiscard]] bool connect_to(const std::string& to_host, int to_port);
  [[nodiscard]] bool resolve(const std::string& name);
  [[nodiscard]] bool finish_connect(int error);
  void disconnect();

  // response.cpp
  [[nodiscard]] std::string recv_string(std::size_t length, std::chrono::seconds timeout);
  [[nodiscard]] std::int64_t recv_into(void* destination, std::size_t length);
  [[nodiscard]] Status read_status(std::string& response);
  void read_headers(std::string& response);
  void append_bounded(std::string& text, const std::string& piece);
  [[noreturn]] void fail_receive(const char* text);
  [[noreturn]] void fail_inside_head(std::chrono::steady_clock::time_point since);
  [[nodiscard]] const std::string* find_header(const std::string& name) const;

  // request.cpp
  [[nodiscard]] bool get_common(const std::string& url, std::string& response, bool keep_alive,
                                std::uint64_t from_bytes);
  enum class Attempt { kDone, kFailed, kRefused };  // refused: no further attempt
  [[nodiscard]] Attempt attempt(const std::string& url, std::string& response, bool keep_alive,
                                std::uint64_t from_bytes);
  [[nodiscard]] bool parse_url_or_log(const std::string& url);
  [[nodiscard]] std::string request_text(bool keep_alive, std::uint64_t from_bytes) const;
  [[nodiscard]] bool send_request(const std::string& text);
  [[nodiscard]] bool get_document(const std::string& url, std::string& out);
  [[nodiscard]] std::int64_t get_segment(const std::string& url, CBuff& cbuff, bool close_after,
                                         double& speed_kbps, const std::string& key,
                                         const std::atomic<bool>* stop_flag,
                                         std::uint64_t from_bytes);
  void invalidate_cache_server();

  // body.cpp
  struct Body {
    std::string* out;                    // either this ...
    CBuff* cbuff;                        // ... or this takes the bytes
    const std::atomic<bool>* stop_flag;  // may be null
    std::uint64_t received = 0;          // body bytes from the network, before deciphering
  };
  [[nodiscard]] bool download_body(std::string& response, Body& body, const std::string& key,
                                   bool resume);
  [[nodiscard]] bool prepare_cipher(const std::string& key, bool resume);
  void read_to_end(const std::string& first, Body& body);
  void fill_string(const std::string& first, Body& body, std::uint64_t length);
  void fill_buffer(const std::string& first, Body& body, std::uint64_t length);
  [[nodiscard]] bool deliver_first(const std::string& first, CBuff& cbuff);
  [[nodiscard]] bool receive_clear(Body& body);
  [[nodiscard]] bool receive_encrypted(Body& body, unsigned char* input);
  void finish_cipher(CBuff& cbuff);
  [[nodiscard]] bool stopped(const Body& body);
  [[nodiscard]] bool out_of_memory();
  [[nodiscard]] std::optional<std::uint64_t> content_length() const;
  [[nodiscard]] std::uint64_t range_start() const;

  // The connection. connected_host and connected_port survive its end.
  int sock = -1;
  sockaddr_in addr{};
  std::string connected_host;
  int connected_port = -1;

  // The last URL, after substitution.
  std::uint32_t https = 0;  // 1 for "https"; it makes no difference
  std::string host;
  int port = 0;
  std::string path;              // begins with "/"
  std::uint32_t cache_kind = 0;  // 0 real host, 1 from chunkCacheMap, 2 from playlistCacheMap
  std::string cache_server;      // as the map has it, when cache_kind isn't 0

  // The last response.
  std::uint32_t http11 = 0;                                  // 1 HTTP/1.1, 0 HTTP/1.0
  std::vector<std::pair<std::string, std::string>> headers;  // in order, duplicates kept

  // Kept when a read throws, for the download that resumes; else null between downloads.
  std::unique_ptr<evp_cipher_ctx_st, CipherFree> cipher;
};

}  // namespace weir
