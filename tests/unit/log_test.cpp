#include "base/log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

namespace weir::test {

using std::string_literals::operator""s;

// Returns what `act` logs, with both streams in one pipe as under "2>&1 | logger", or without
// the standard output if that is another descriptor.
template <class Act>
static std::string piped(Act act, int out = -1) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  std::string text;
  std::thread reader([&text, end = ends[0]] {
    char piece[4096];
    ssize_t count;
    while ((count = read(end, piece, sizeof piece)) > 0) text.append(piece, piece + count);
    close(end);
  });
  const int streams[] = {dup(STDOUT_FILENO), dup(STDERR_FILENO)};
  (void)dup2(out < 0 ? ends[1] : out, STDOUT_FILENO);
  (void)dup2(ends[1], STDERR_FILENO);
  close(ends[1]);
  act();
  for (const int fd : {STDOUT_FILENO, STDERR_FILENO}) {
    (void)dup2(streams[fd - STDOUT_FILENO], fd);
    close(streams[fd - STDOUT_FILENO]);
  }
  reader.join();
  return text;
}

// Otherwise this never ends.
TEST(Log, FullStandardOutputDelaysNoProblem) {
  int out[2];
  ASSERT_EQ(pipe2(out, O_NONBLOCK), 0);
  while (write(out[1], out, 1) > 0) {
  }
  (void)fcntl(out[1], F_SETFL, 0);
  const auto act = [] {
    log_out_unflushed("progress");
    log_err("one");
    log_err_at_once("two");
  };
  EXPECT_EQ(piped(act, out[1]), "one\ntwo\n");
  EXPECT_EQ(piped([] { log_out(); }), "progress\n");
  for (const int end : out) close(end);
}

TEST(Log, LinesOfManyThreadsNeverMix) {
  constexpr size_t kSize = 100000;  // more than a pipe holds
  for (const bool errors : {false, true}) {
    std::istringstream lines(piped([errors] {
      std::vector<std::thread> threads;
      for (const char name : {'a', 'b', 'c', 'd'}) {
        threads.emplace_back([errors, line = std::string(kSize, name)] {
          for (int i = 0; i < 20; ++i) {
            log_out_unflushed("");
            errors ? log_err(line) : log_out(line);
          }
        });
      }
      for (std::thread& thread : threads) thread.join();
    }));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count)
      EXPECT_TRUE(line == std::string(kSize, line[0])) << "mixed";
    EXPECT_EQ(count, 4 * 20);
  }
}

TEST(Log, UnflushedTextIsWrittenWithTheNextLineOfEitherStream) {
  const auto act = [] {
    const auto bar = [] { (void)!write(STDOUT_FILENO, "|", 1); };  // what comes before is written
    log_out_unflushed("one\n");
    log_out_unflushed("two ");
    bar();
    log_out("three");
    bar();
    log_out_unflushed("four\n");
    bar();
    log_err("five");
    bar();
    log_err_at_once("six");
  };
  EXPECT_EQ(piped(act), "|one\ntwo three\n||four\nfive\n|six\n");
}

TEST(Log, PiecesAreJoinedAsTheyAre) {
  using Unsigned = std::numeric_limits<std::uint64_t>;
  using Signed = std::numeric_limits<std::int64_t>;
  const auto act = [] {
    log_out(123456.7, " ", 1234567.0, " ", 0.1, " ", 1e5, " ", 1e-5, " ", -HUGE_VAL);
    log_err("seq", 7, "URL: ", "a\0b"s, "", "\0"s, Unsigned::max(), Signed::min());
    log_err();
  };
  EXPECT_EQ(piped(act),
            "123457 1.23457e+06 0.1 100000 1e-05 -inf\n"
            "seq7URL: a\0b\00018446744073709551615-9223372036854775808\n\n"s);
}

}  // namespace weir::test
