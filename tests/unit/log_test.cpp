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
namespace {

using std::string_literals::operator""s;

// Runs `act` with other standard streams.
template <class Act>
void with_streams(int out, int err, Act act) {
  const int streams[] = {dup(STDOUT_FILENO), dup(STDERR_FILENO)};
  (void)dup2(out, STDOUT_FILENO);
  (void)dup2(err, STDERR_FILENO);
  act();
  (void)dup2(streams[0], STDOUT_FILENO);
  (void)dup2(streams[1], STDERR_FILENO);
  for (const int stream : streams) close(stream);
}

// Returns what `act` logs, with both streams in one pipe as under "2>&1 | logger".
template <class Act>
std::string piped(Act act) {
  int ends[2];
  EXPECT_EQ(pipe2(ends, O_CLOEXEC), 0);
  std::string text;
  std::thread reader([&text, end = ends[0]] {
    char piece[4096];
    ssize_t count;
    while ((count = read(end, piece, sizeof piece)) > 0) text.append(piece, piece + count);
    close(end);
  });
  with_streams(ends[1], ends[1], [end = ends[1], &act] {
    close(end);
    act();
  });
  reader.join();
  return text;
}

// Otherwise this never ends.
TEST(Log, FullStandardOutputDelaysNoProblem) {
  int out[2], err[2];
  ASSERT_EQ(pipe2(out, O_NONBLOCK) + pipe(err), 0);
  const std::string much(4096, 'x');
  while (write(out[1], much.data(), much.size()) > 0) {
  }
  (void)fcntl(out[1], F_SETFL, 0);
  with_streams(out[1], err[1], [] {
    log_out_unflushed("progress");
    log_err("one");
    log_err_at_once("two");
  });
  std::string got(99, '\0');
  got.resize(static_cast<size_t>(read(err[0], got.data(), got.size())));
  EXPECT_EQ(got, "one\ntwo\n");
  while (read(out[0], got.data(), 1) > 0) {
  }
  EXPECT_EQ(piped([] { log_out(); }), "progress\n");
  for (const int end : {out[0], out[1], err[0], err[1]}) close(end);
}

TEST(Log, LinesOfManyThreadsNeverMix) {
  constexpr size_t kSize = 100000;  // more than a pipe holds
  for (const bool errors : {false, true}) {
    std::istringstream lines(piped([errors] {
      std::vector<std::thread> threads;
      for (const char name : {'a', 'b', 'c', 'd'}) {
        threads.emplace_back([errors, line = std::string(kSize, name)] {
          for (int i = 0; i < 20; ++i) errors ? log_err(line) : log_out(line);
        });
      }
      for (std::thread& thread : threads) thread.join();
    }));
    int count = 0;
    for (std::string line; std::getline(lines, line); ++count) {
      EXPECT_TRUE(line == std::string(kSize, line[0])) << "mixed";
    }
    EXPECT_EQ(count, 4 * 20);
  }
}

TEST(Log, UnflushedTextIsWrittenWithTheNextLineOfEitherStream) {
  EXPECT_EQ(piped([] {
              // Marks how much has been written.
              const auto bar = [] { (void)!write(STDOUT_FILENO, "|", 1); };
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
            }),
            "|one\ntwo three\n||four\nfive\n|six\n");
}

TEST(Log, PiecesAreJoinedAsTheyAre) {
  using Unsigned = std::numeric_limits<std::uint64_t>;
  using Signed = std::numeric_limits<std::int64_t>;
  EXPECT_EQ(piped([] {
              log_out(123456.7, " ", 1234567.0, " ", 0.1, " ", 1e5, " ", 1e-5, " ", -HUGE_VAL);
              log_err("seq", 7, "URL: ", "a\0b"s, "", "\0"s, Unsigned::max(), Signed::min());
              log_err();
            }),
            "123457 1.23457e+06 0.1 100000 1e-05 -inf\n"
            "seq7URL: a\0b\00018446744073709551615-9223372036854775808\n\n"s);
}

}  // namespace
}  // namespace weir::test
