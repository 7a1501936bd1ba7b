#include "support/story.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <utility>
#include <vector>

namespace weir::test {

namespace {

using Lines = std::vector<std::string>;

Lines lines_of(const std::string& text) {
  Lines lines;
  std::istringstream stream(text);
  for (std::string line; std::getline(stream, line);) lines.push_back(line);
  return lines;
}

std::string contents_of(const std::string& path) {
  return (std::ostringstream() << std::ifstream(path).rdbuf()).str();
}

const char* variable(const char* name) {
  const char* const value = std::getenv(name);
  return value == nullptr ? "" : value;
}

// A phrase as an expression for its lines, and the line that replaces them. A {hole} is one
// word, a {HOLE} any text; one that occurs twice is the same both times.
struct Phrase {
  std::string lines, name;
  Lines holes;

  // The number of a hole as a group of the expression, with that mark in front.
  std::string group(const std::string& hole, char mark) const {
    return std::string(1, mark).append(
        std::to_string(std::find(holes.begin(), holes.end(), hole) - holes.begin() + 1));
  }

  void add(std::string line) {
    static const std::regex special(R"([.*+?^$()|\[\]\\])");
    static const std::regex any_hole(R"(\{(\w+)\})");
    line = std::regex_replace(line, special, "\\$&");
    for (std::smatch found; std::regex_search(line, found, any_hole);) {
      const std::string hole = found[1];
      const bool known = std::find(holes.begin(), holes.end(), hole) != holes.end();
      if (!known) holes.push_back(hole);
      const std::string any = hole[0] < 'a' ? "(.*)" : "(\\S*)";
      line = std::string(found.prefix()) + (known ? group(hole, '\\') : any) + found.suffix().str();
    }
    lines += "\n  " + line;
  }

  std::string apply(const std::string& text) const {
    std::string shorter = "\n  * " + name;
    for (const std::string& hole : holes) {
      const size_t at = shorter.find("{" + hole + "}");
      if (at == shorter.npos) throw std::logic_error("a phrase that loses its " + hole);
      shorter.replace(at, hole.size() + 2, group(hole, '$'));
    }
    return std::regex_replace(text, std::regex(lines + "(?=\n)"), shorter);
  }
};

std::vector<Phrase> read_phrases() {
  std::vector<Phrase> phrases;
  for (const std::string& line : lines_of(contents_of(STORIES "/phrases.txt"))) {
    if (line.starts_with("  ")) {
      phrases.back().add(line.substr(2));
    } else if (!line.empty() && line[0] != '#') {
      phrases.push_back({"", line, {}});
    }
  }
  return phrases;
}

// A turn of the refresh timer in which nothing is due. It counts seconds, or the last
// download is still running.
struct Turn {
  long at = 0;  // milliseconds
  std::string text;
  long left = 0;

  bool parse(long now, const std::string& line) {
    static const std::regex turn("  (not yet refresh time: |refresh will not be done.*?)(\\d*)");
    std::smatch parts;
    if (!std::regex_match(line, parts, turn)) return false;
    *this = {now, parts[1], std::atol(parts.str(2).c_str())};
    return true;
  }

  bool follows(const Turn& last) const {
    return at == last.at + 1000 && text == last.text && left == std::max(last.left - 1, 0L);
  }
};

// Without idle turns, and with relative times.
std::string without_idle_turns(const std::string& transcript) {
  const Lines in = lines_of(transcript);
  Lines out = {""};
  std::string stamp;
  long now = 0, shown = -9, loop = 0;
  Turn last;
  size_t first = 0;  // the line of the first one of its kind
  for (size_t i = 0; i < in.size(); ++i) {
    const std::string& line = in[i];
    if (line[0] != ' ') {
      now = std::lround(std::stod(stamp = line) * 1000);
      continue;
    }
    const bool idle = line == "  after select" && now == loop + 1000;
    if (line == "  loop" || idle) loop = now;
    if (idle && i + 1 < in.size() && in[i + 1] == "  loop") {
      ++i;
      continue;
    }
    Turn turn;
    const bool waits = turn.parse(now, line);
    if (waits && turn.follows(std::exchange(last, turn))) {
      out[first] = out[first].substr(0, out[first].find(", until")) + ", until " + stamp;
      continue;
    }
    if (now == shown + 1) {
      out.push_back("  1 ms later");
    } else if (now == shown + 2000 && line == "  ! ERR: connect timeout") {
      out.push_back("  2 s later");
    } else if (now != shown) {
      out.push_back(stamp);
    }
    if (waits) first = out.size();
    shown = now;
    out.push_back(line);
  }
  std::string text;
  for (const std::string& line : out) text += line + "\n";
  return text;
}

std::string shorten(const std::string& transcript) {
  static const std::vector<Phrase> phrases = read_phrases();
  std::string text = without_idle_turns(transcript);
  for (const Phrase& phrase : phrases) text = phrase.apply(text);
  return std::regex_replace(text.substr(1), std::regex("(^|\n)([0-9.]+) s\n  "), "$1$2  ");
}

// Under another schedule only what clients get and when is comparable.
Lines answers_of(const std::string& story) {
  Lines answers;
  for (const std::string& line : lines_of(story)) {
    const size_t at = line.find("~ got ");
    if (at != line.npos) answers.push_back(line.substr(at));
  }
  std::sort(answers.begin(), answers.end());
  return answers;
}

}  // namespace

void compare(const std::string& transcript, bool in_full) {
  const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
  const std::string path = STORIES "/" + name + ".txt";
  const std::string story = in_full ? transcript : shorten(transcript);
  if (*variable("STORY_LOGS")) {
    std::ofstream(variable("STORY_LOGS") + ("/" + name) + ".txt") << transcript;
  }
  if (*variable("UPDATE_STORIES")) std::ofstream(path) << story;
  const auto comparable = *variable("SIM_SEED") ? answers_of : lines_of;
  const Lines lines = comparable(story);
  const Lines wanted = comparable(contents_of(path));
  for (size_t i = 0; i < std::max(lines.size(), wanted.size()); ++i) {
    ASSERT_EQ(i < lines.size() ? lines[i] : "(the end)",
              i < wanted.size() ? wanted[i] : "(the end)")
        << path << ":" << i + 1;
  }
}

}  // namespace weir::test
