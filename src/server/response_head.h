#pragma once

#include <string_view>

namespace weir {

inline constexpr std::string_view kStreamType = "application/octet-stream";
inline constexpr std::string_view kJsonType = "application/json";
inline constexpr std::string_view kTextType = "plain/text";  // deliberate: clients expect this

// Sends the header block of a response to a client. There is never a Content-Length: the
// body ends with the connection (RFC 9112, section 6.3). The version is always HTTP/1.0.
// Reason phrase and content type are sent as they are, unescaped.
//
// Failure: ignored. One write(); a short or failed one is not repeated. Later writes of the
//          body show that a client has gone.
void send_head(int fd, int status, std::string_view reason, std::string_view content_type);

}  // namespace weir
