// The whole program in the simulation, among origins that follow a script and players.
#pragma once

#include <map>
#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/network.h"

namespace weir::test {

using namespace std::chrono_literals;
using namespace std::string_literals;

// What an origin answers to one request.
struct Reply {
  enum End { kKeep, kClose, kStall, kReset };
  struct Piece {
    Time pause;  // before it
    std::string bytes;
  };
  std::vector<Piece> pieces;
  End end = kKeep;  // what becomes of the connection behind the last piece
};

Reply raw(std::string bytes, Reply::End end = Reply::kKeep);
// A status, which may have headers behind it, and a body with its length.
Reply ok(const std::string& body, const std::string& status = "200 OK");
// The head with the length of the body, and so many bytes of it.
Reply cut(const std::string& body, size_t sent, Reply::End end = Reply::kStall);
// The head, then the body in pieces.
Reply slow(const std::string& body, size_t piece, Time pause);

// A master playlist of variants "BANDWIDTH URL"; any other line stands as it is.
std::string master(const std::vector<std::string>& variants);
// A variant playlist whose first segment has that number. Paths are those of a host "o".
std::string list(int first, const std::vector<std::string>& lines, long duration = 10);
std::string key(const std::string& url);
inline const std::string kEnd = "#EXT-X-ENDLIST";

// Answers the requests that are whole, as long as the connection is good for any.
void respond(std::string& received, Pipe& out,
             const std::function<Reply(const std::string& request)>& reply_to);

// By path: what it answers in turn, the last again and again; 404 elsewhere.
using Pages = std::map<std::string, std::vector<Reply>>;

// The pages of a stream of one variant. Segments "/1" to "/9" contain their path.
Pages vod(const std::string& variant, Pages more = {});
inline const std::string kM = "/stream?url=http://o/m";  // requests it
inline const std::string kKey = "0123456789abcdef";

// What a client asks.
struct Ask {
  Time at;
  std::string resource;               // of a GET, or all that is sent, if there is a space in it
  size_t leaves = std::string::npos;  // after so many bytes
  Time pause = {};                    // before each read, which takes 64 KiB at most
};

std::string head(const std::string& status, const std::string& type);
// The answer to a stream that delivers this.
std::string stream(const std::string& media);
extern const std::string kOk, kMapSet;
extern std::ptrdiff_t live_bytes, peak_bytes;  // that the program has and had allocated

class World {
 public:
  // The order of threads is SIM_SEED's in the environment, 0 without it.
  explicit World(const std::vector<std::string>& arguments = {"1048576"});
  // Ends the program, which has to leave nothing behind.
  ~World();

  // Names get addresses from 10.0.0.1 on.
  Host& origin(const std::string& name_and_port, Pages pages = {});
  // Asks, and returns what came.
  std::string get(const Ask& ask);
  // Asks all of them, and returns when all is quiet again.
  void play(const std::vector<Ask>& asks);
  // Also compares the story, see support/story.h.
  void converse(const std::vector<Ask>& asks, bool in_full = false);
  void at(Time time, std::function<void()> act);

  Time since_start() const { return now() - start_; }
  // The log ("! " = standard error), requests to origins ("> "), and observed calls and
  // client results ("~ "), grouped under time stamps.
  std::string transcript;
  bool marker = false;
  bool only_answers = false;

 private:
  void note(const std::string& line);
  std::string stamp() const;
  Time start_;
  Time noted_ = kNever;
  bool running_ = true;
  int acts_ = 0;  // that are still to come
};

}  // namespace weir::test
