#pragma once

#include <cstdint>

#include "playlist/key_cache.h"
#include "upstream/ucurl.h"

namespace weir {

class CBuff;
struct Band;
struct Chunk;
struct Playing;
struct StreamControl;
struct Streams;

// Downloads the segments of a stream into its buffer in order, and decides when the stream is
// over.
//
// Threads:   one fill pass at a time, each on its own thread, joined before the next one
//            starts. A pass blocks as UCurl::get_stream() does.
// Ownership: the caller owns the constructor's arguments, which must outlive this object.
// Failure:   a segment that cannot be downloaded is skipped; the fourth in a row ends the
//            stream. The reason is on the error stream.
class ChunkFetcher {
 public:
  ChunkFetcher(CBuff& buffer, Streams& streams, StreamControl& control);

  // Downloads the segments of the playlist not yet fetched. Ends early when the buffer is
  // full and when the average speed has left the variant's band. There must be a current
  // variant with its playlist.
  void fill_pass(Playing& playing);

 private:
  struct Pass;

  [[nodiscard]] std::int64_t begin_pass(Playing& playing);
  [[nodiscard]] bool take_chunk(Pass& pass);
  void conclude_pass(const Pass& pass);
  [[nodiscard]] Download fetch_chunk(const Chunk& chunk);
  void note_failure();
  [[nodiscard]] bool note_success(const Chunk& chunk, const Download& download,
                                  std::uint64_t bandwidth);
  [[nodiscard]] bool stays_in(const Band& band);
  void refresh_in(std::int64_t seconds);
  void refresh_at_once();

  // Constant after construction.
  CBuff& buffer_;
  Streams& streams_;
  StreamControl& control_;

  // Used by the fill pass only; kept from one pass to the next.
  UCurl client_;
  KeyCache keys_;
  std::uint64_t last_seq_ = 0;       // sequence number of the last segment delivered
  std::uint32_t failed_chunks_ = 0;  // failed segments in a row
  std::uint32_t empty_reloads_ = 0;  // passes in a row without a new segment
};

}  // namespace weir
