// The whole program in the simulation, between scripted origins and players.
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
  End end = kKeep;  // of the connection, after the last piece
};

Reply raw(std::string bytes, Reply::End end = Reply::kKeep);
// A status, possibly followed by header lines, and a body with its length.
Reply ok(const std::string& body, const std::string& status = "200 OK");
// A head with the length of the body, and the first `sent` bytes of it.
Reply cut(const std::string& body, size_t sent, Reply::End end = Reply::kStall,
          const std::string& status = "200 OK");
// The head, then the body in pieces.
Reply slow(const std::string& body, size_t piece, Time pause, const std::string& status = "200 OK");

// A master playlist of variants "BANDWIDTH URL".
std::string master(const std::vector<std::string>& variants);
// A variant playlist whose first segment has that number. Paths are on the host "o".
std::string list(int first, const std::vector<std::string>& lines, long duration = 10);
std::string key(const std::string& url);
inline const std::string kEnd = "#EXT-X-ENDLIST";

std::string path_of(const std::string& request);
// The first byte that a request asks for, and the status of the answer that begins there.
size_t offset_of(const std::string& request);
std::string status_from(size_t offset);

// Answers the complete requests in `received` until a reply ends the connection.
void respond(std::string& received, Pipe& out,
             const std::function<Reply(const std::string& request)>& reply_to);

// The replies for each path, in turn; the last one is repeated. Other paths get 404.
using Pages = std::map<std::string, std::vector<Reply>>;

// The pages of a stream of one variant. Segments "/1" to "/7" contain their path.
Pages vod(const std::string& variant, Pages more = {});
inline const std::string kM = "/stream?url=http://o/m";  // requests it
inline const std::string kKey = "0123456789abcdef";

// A client's request.
struct Ask {
  Time at;
  std::string resource;               // of a GET; all that is sent if it contains a space
  size_t leaves = std::string::npos;  // bytes after which the client closes
  Time pause = {};                    // before each read, which takes 64 KiB at most
};

std::string head(const std::string& status, const std::string& type);
// The answer to a request for a stream, with that media.
std::string stream(const std::string& media);
extern const std::string kOk, kMapSet;
extern std::ptrdiff_t live_bytes, peak_bytes;  // allocated by the program

class World {
 public:
  // SIM_SEED in the environment selects a schedule, 0 if it is not set.
  explicit World(const std::vector<std::string>& arguments = {"1048576"});
  // Ends the program and checks that no thread or socket is left.
  ~World();

  // Names get addresses from 10.0.0.1 on.
  Host& origin(const std::string& name_and_port, Pages pages = {});
  // Sends a request and returns all that the client received.
  std::string get(const Ask& ask);
  // Sends each request at its time, and returns when only the program's loop is left.
  void play(const std::vector<Ask>& asks);
  // Plays with an origin "o" of these pages, then compares the story; see support/story.h.
  void converse(const std::vector<Ask>& asks, const Pages& pages = {}, bool in_full = false);
  void at(Time time, std::function<void()> act);
  // Calls act(true) and then act(false).
  void during(Time from, Time to, const std::function<void(bool)>& act);

  Time since_start() const { return now() - start_; }
  // The log ("! " = standard error), requests to origins ("> "), and observed calls and
  // client results ("~ "), grouped under time stamps.
  std::string transcript;
  bool marker = false;

 private:
  void note(const std::string& line);
  std::string stamp() const;
  Time start_;
  Time noted_ = kNever;
  bool running_ = true;
  int acts_ = 0;  // still to come
};

}  // namespace weir::test
