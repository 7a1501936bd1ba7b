#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "upstream/body.h"
#include "upstream/connection.h"
#include "upstream/decryptor.h"
#include "upstream/server_choice.h"

namespace weir {

class CBuff;
class Response;

// The upstream HTTP/1.1 client (RFC 9112): one connection at a time, kept open
// between segments, with retries over cache servers. URLs of the hosts "@" and
// "~" go to a server from chunkCacheMap or playlistCacheMap, chosen anew for
// every attempt.
//
// Threads:   one at a time. It blocks for 2 s to connect, 2 s to send, 6 s for a
//            status line and 2 s for every other read, and as long as the
//            resolver takes.
// Ownership: closes its connection and frees its cipher when destroyed.
// Failure:   false or nothing, with the reason in the log, nearly always on the error
//            stream ("socket is closed! no response!" is progress).
class UCurl {
 public:
  struct Download {
    std::uint64_t bytes = 0;  // of the body, before decryption
    double speed_kbps = 0;    // units of 1024 bit/s, over the body alone; may be infinite or NaN
  };

  // Downloads a document into `out`; the connection is closed afterwards. After
  // a failure `out` holds what it held before, or a part of the document. One of
  // more than 16 MiB is a failure.
  [[nodiscard]] bool get(const std::string& url, std::string& out);

  // Downloads a segment into the buffer, decrypted with AES-128-CBC when `key`
  // isn't empty. A download cut short by the server or by `stop_flag` is a success.
  // A `from_bytes` other than 0 resumes an interrupted download, cipher included;
  // after a failure `position` says from where.
  [[nodiscard]] std::optional<Download> get_stream(const std::string& url, CBuff& cbuff,
                                                   const std::string& key,
                                                   const std::atomic<bool>& stop_flag,
                                                   std::uint64_t from_bytes);

  // The offset in the resource that the last segment's download reached. It is 0 where
  // the request failed before its body, so that the next attempt starts the segment anew,
  // and after an HTTP/1.0 response.
  std::uint64_t position = 0;

 private:
  // The head was read; no usable answer came; the answer isn't 2xx, which ends the
  // attempts; a receive failed, which ends the tries.
  enum class Attempt { kDone, kFailed, kRefused, kBroken };

  // Gets a response up to the end of its head. False after the last try, and when a
  // receive failed.
  [[nodiscard]] bool get_head(const std::string& url, Response& response, bool keep_alive,
                              std::uint64_t from_bytes, std::string_view name);
  [[nodiscard]] Attempt get_common(const std::string& url, Response& response, bool keep_alive,
                                   std::uint64_t from_bytes);
  [[nodiscard]] Attempt attempt(const std::string& url, Response& response, bool keep_alive,
                                std::uint64_t from_bytes);
  [[nodiscard]] Attempt fail_attempt(const char* reason);
  [[nodiscard]] bool send_request(const std::string& text);
  [[nodiscard]] bool get_document(const std::string& url, std::string& out);
  [[nodiscard]] bool prepare_cipher(const std::string& key, bool resume);

  ServerChoice server_;
  Connection connection_;

  // Kept when a receive fails, for the download that resumes; else stopped between downloads.
  Decryptor cipher_;
};

}  // namespace weir
