#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "upstream/body.h"
#include "upstream/connection.h"
#include "upstream/decryptor.h"
#include "upstream/server_choice.h"

namespace weir {

class CBuff;
class Response;

// The upstream HTTP/1.1 client (RFC 9112): one connection, kept open between segments, with
// retries. A URL with the host "@" or "~" goes to a cache server from chunkCacheMap or
// playlistCacheMap, chosen again for every attempt.
//
// Threads:   one at a time. An attempt blocks for at most 2 s to connect, 2 s to send, 6 s for
//            the status line and 2 s for every other read, plus the time of the resolver.
// Ownership: closes its connection and frees its cipher when destroyed.
// Failure:   in the result; the reason is on the error stream, except that "socket is closed!
//            no response!" is logged as progress.
class UCurl {
 public:
  // Downloads a document of at most 16 MiB into `out` and closes the connection. After a
  // failure `out` is unchanged or contains a part of the document.
  [[nodiscard]] bool get(const std::string& url, std::string& out);

  // Downloads a segment into the buffer, decrypted with AES-128-CBC unless `key` is empty.
  // A download cut short by the server or by `stop_flag` is done. A `position` other than 0
  // resumes an interrupted download there, cipher included. The position returned is 0 if the
  // request failed before its body, so that the next attempt starts the segment again, and
  // after an HTTP/1.0 response.
  [[nodiscard]] Download get_stream(const std::string& url, CBuff& cbuff, const std::string& key,
                                    const std::atomic<bool>& stop_flag, std::uint64_t position);

 private:
  // Reads a response up to the end of its header block. False after the last try or a failed
  // receive.
  [[nodiscard]] bool get_head(const std::string& url, Response& response, bool keep_alive,
                              std::uint64_t position, std::string_view name);
  [[nodiscard]] Outcome get_common(const std::string& url, Response& response, bool keep_alive,
                                   std::uint64_t position);
  [[nodiscard]] Outcome attempt(const std::string& url, Response& response, bool keep_alive,
                                std::uint64_t position);
  [[nodiscard]] Outcome fail_attempt(const char* reason);
  [[nodiscard]] bool send_request(const std::string& text);
  [[nodiscard]] bool get_document(const std::string& url, std::string& out);
  [[nodiscard]] bool prepare_cipher(const std::string& key, bool resume);

  ServerChoice server_;
  Connection connection_;

  // Stays active after a download only if a receive failed, for the download that resumes it.
  Decryptor cipher_;
};

}  // namespace weir
