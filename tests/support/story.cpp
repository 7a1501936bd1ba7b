#include "support/story.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "support/bytes.h"
#include "support/fibers.h"

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

// An expression for the lines of a phrase, and the format of the line that replaces them. A
// {hole} is one word, a {HOLE} any text; one that occurs twice is the same both times.
struct Phrase {
  std::string lines, name;

  void end() {
    static const std::regex kSpecial(R"([.*+?^$()|\[\]\\])"), kAnyHole(R"(\{(\w+)\})");
    lines = std::regex_replace(lines, kSpecial, "\\$&") + "(?=\n)";
    name = "\n  * " + name;
    std::smatch found;
    for (char number = '1'; std::regex_search(lines, found, kAnyHole); ++number) {
      const std::string hole = found.str();
      if (name.find(hole) == name.npos) throw std::logic_error(name + " loses " + hole);
      lines.replace(static_cast<size_t>(found.position()), hole.size(),
                    hole[1] < 'a' ? "(.*)" : "(\\S*)");
      lines = replaced(lines, hole, std::string("\\") + number);
      name = replaced(name, hole, std::string("$") + number);
    }
  }
};

std::vector<Phrase> read_phrases() {
  std::vector<Phrase> phrases;
  for (const std::string& line : lines_of(contents_of(STORIES "/phrases.txt"))) {
    if (line.starts_with("  ")) {
      phrases.back().lines += "\n" + line;
    } else if (!line.empty() && line[0] != '#') {
      phrases.push_back({"", line});
    }
  }
  for (Phrase& phrase : phrases) phrase.end();
  return phrases;
}

// A turn of the refresh timer in which nothing is due: the seconds until something is, and 0
// while the last download is still running. -1 for other lines.
long idle_turn(const std::string& line) {
  static const std::regex kTurn("  not yet refresh time: (.*)|  refresh will not be done.*");
  std::smatch parts;
  return std::regex_match(line, parts, kTurn) ? std::atol(parts.str(1).c_str()) : -1;
}

// Without idle turns, and with relative times.
std::string without_idle_turns(const std::string& transcript) {
  const Lines in = lines_of(transcript);
  Lines out = {""};
  std::string stamp;
  long now = 0, shown = -9, loop = 0;  // in milliseconds
  long turn = -1, turn_at = 0;         // the timer's last idle turn
  size_t first_turn = 0;               // the line of the first one of a row
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
    const long left = idle_turn(line);
    const bool follows = left >= 0 && now == turn_at + 1000 && left == std::max(turn - 1, 0L);
    if (left >= 0) turn = left, turn_at = now;
    if (follows) {
      std::string& first = out[first_turn];
      first = first.substr(0, first.find(", until")) + ", until " + stamp;
      continue;
    }
    const bool connects = now == shown + 2000 && line == "  ! ERR: connect timeout";
    if (now == shown + 1 || connects)
      out.push_back(connects ? "  2 s later" : "  1 ms later");
    else if (now != shown)
      out.push_back(stamp);
    if (left >= 0) first_turn = out.size();
    shown = now;
    out.push_back(line);
  }
  std::string text;
  for (const std::string& line : out) text += line + "\n";
  return text;
}

std::string shorten(const std::string& transcript) {
  static const std::vector<Phrase> kPhrases = read_phrases();
  std::string text = without_idle_turns(transcript);
  for (const auto& [lines, name] : kPhrases)
    text = std::regex_replace(text, std::regex(lines), name);
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
  const Inside inside;
  const std::string name = testing::UnitTest::GetInstance()->current_test_info()->name();
  const std::string path = STORIES "/" + name + ".txt";
  // The sign of 0 / 0 depends on the processor.
  const std::string story = replaced(in_full ? transcript : shorten(transcript), "-nan", "nan");
  const char* const logs = std::getenv("STORY_LOGS");
  if (logs != nullptr) std::ofstream(logs + ("/" + name) + ".txt") << transcript;
  if (std::getenv("UPDATE_STORIES") != nullptr) std::ofstream(path) << story;
  const auto comparable = std::getenv("SIM_SEED") != nullptr ? answers_of : lines_of;
  Lines lines = comparable(story), wanted = comparable(contents_of(path));
  lines.resize(std::max(lines.size(), wanted.size()), "(the end)");
  wanted.resize(lines.size(), "(the end)");
  for (size_t i = 0; i < lines.size(); ++i) ASSERT_EQ(lines[i], wanted[i]) << path << ":" << i + 1;
}

}  // namespace weir::test
