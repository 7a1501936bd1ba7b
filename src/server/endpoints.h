// The endpoints. Each function sends a whole response, header block included.
//
// Threads:   any. answer_stream() blocks for as long as the player listens.
// Ownership: the caller owns the descriptor.
// Failure:   not reported; a failed write is not repeated.
#pragma once

namespace weir {

struct RequestLine;
struct Service;

// "/stream", "/stream.ts": the media of the master playlist `url`, from segment `startFrom`
// on (negative: counted from the end). The body ends when the whole stream has been
// sent, when a write fails, or when the buffer has been empty for more than 15 s.
// Without `url` the answer is 406.
void answer_stream(int fd, const RequestLine& request, Service& service);

// "/update-cache-map": replaces the maps given as `chunk` and `playlist`. Any text is a map.
void answer_update(int fd, const RequestLine& request, Service& service);

// "/stats.json": the figures of the stream that wrote last, zeros before the first one.
void answer_stats(int fd, const RequestLine& request, Service& service);

// "/watchdog": pings the watchdog, unless the method is HEAD.
void answer_watchdog(int fd, const RequestLine& request, Service& service);

}  // namespace weir
