// Recording from several threads, to files that are slow, full or closed.
#include "tools/recording/Recorder.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "tests/support/FileText.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/recording/Recordings.h"
#include "tools/common/ChildProcess.h"

namespace {

using namespace recording;

TEST(Recorder, KeepsTheOrderOfEachThread) {
  constexpr int count = 2000;
  const TemporaryFolder folder;
  const OutputFile file(folder.path("file"));
  {
    Recorder recorder(file);
    const auto feed = [&](Stream stream) {
      for (int i = 0; i < count; ++i) recorder.add(Kind::Message, stream, 1, std::to_string(i));
    };
    std::thread other(feed, Stream::Slow);
    feed(Stream::Fast);
    other.join();
    recorder.close();
    EXPECT_EQ(recorder.totalsOf(Stream::Fast).messages, 2000u);
  }
  const auto result = readBack(textOf(folder.path("file")));
  EXPECT_EQ(result.error, "");
  ASSERT_EQ(result.records.size(), 2u * count);
  int next[2] = {0, 0};
  for (const auto& record : result.records) {
    EXPECT_EQ(record.content, std::to_string(next[static_cast<int>(record.stream)]++));
  }
}

// Fills a pipe, so that the next write to it waits for a reader. Returns how many bytes that took.
// They fill whole pages, or the kernel would append the next write to the last one.
std::size_t fill(const tools::Pipe& pipe) {
  const int flags = fcntl(pipe.write(), F_GETFL);
  fcntl(pipe.write(), F_SETFL, flags | O_NONBLOCK);
  const std::string page(4096, '\0');
  std::size_t filling = 0;
  for (ssize_t count; (count = write(pipe.write(), page.data(), page.size())) > 0;) {
    filling += static_cast<std::size_t>(count);
  }
  EXPECT_EQ(errno, EAGAIN);
  fcntl(pipe.write(), F_SETFL, flags);
  return filling;
}

// A writer that can't write: its pipe is full until the records have been added.
TEST(Recorder, SaysWhatASlowFileMadeItLose) {
  constexpr std::size_t limit = 1 << 20;
  constexpr std::uint64_t sent = 100;
  const std::string noise = [] {
    std::string bytes(100000, '\0');
    std::uint32_t state = 1;
    for (char& byte : bytes) byte = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    return bytes;
  }();
  const tools::Pipe pipe;
  const std::size_t filling = fill(pipe);
  const OutputFile file("/dev/fd/" + std::to_string(pipe.write()));
  Recorder recorder(file, limit);
  for (std::uint64_t i = 0; i < sent; ++i) {
    recorder.add(Kind::Message, Stream::Fast, 1, std::to_string(i) + " " + noise);
  }
  recorder.add(Kind::Ended, Stream::Fast, 1, contentOf(EndContent{0, ""}));
  const auto totals = recorder.totalsOf(Stream::Fast);
  EXPECT_GT(totals.lost.messages, 0u);
  EXPECT_EQ(totals.messages + totals.lost.messages, sent);
  EXPECT_NE(recorder.lossOf(Stream::Fast).find(" bytes were lost. /dev/fd/"), std::string::npos);
  std::string bytes;
  std::thread reader([&] {
    std::string piece(65536, '\0');
    for (;;) {
      const auto count = read(pipe.read(), piece.data(), piece.size());
      if (count <= 0) break;
      bytes.append(piece, 0, static_cast<std::size_t>(count));
      if (bytes.size() <= filling) continue;
      if (readBack(std::string_view(bytes).substr(filling)).error.empty()) break;
    }
    bytes.erase(0, filling);
  });
  recorder.close();
  reader.join();
  const auto result = readBack(bytes);
  EXPECT_EQ(result.error, "");
  std::uint64_t messages = 0;
  LostContent lost;
  for (const auto& record : result.records) {
    if (record.kind == Kind::Lost) {
      lost = lostIn(record.content);
      EXPECT_EQ(messages, totals.messages) << "the loss comes before the messages that follow it";
    }
    if (record.kind == Kind::Message) {
      EXPECT_TRUE(record.content.starts_with(std::to_string(messages++) + " "));
    }
  }
  EXPECT_EQ(lost.messages, totals.lost.messages);
  EXPECT_EQ(lost.bytes, totals.lost.bytes);
  EXPECT_EQ(result.records.back().kind, Kind::Ended);
}

TEST(Recorder, LosesWhatNoRecordCanHold) {
  const TemporaryFolder folder;
  const std::string path = folder.path("file");
  const OutputFile file(path);
  Recorder recorder(file);
  recorder.add(Kind::Message, Stream::Engine, 1, std::string(contentLimit + 1, 'x'));
  recorder.add(Kind::Message, Stream::Engine, 2, std::string(contentLimit, 'x'));
  recorder.close();
  EXPECT_EQ(recorder.lossOf(Stream::Engine),
            "engine: 1 messages of 16777217 bytes were lost. 1 of them exceeded the 16 MiB that a "
            "record can hold");
  const auto result = readBack(textOf(path));
  EXPECT_EQ(result.error, "");
  ASSERT_EQ(result.records.size(), 2u);
  EXPECT_EQ(lostIn(result.records[0].content).bytes, contentLimit + 1);
  EXPECT_EQ(result.records[1].number, 2u);
}

void expectFailure(const std::string& path, const std::string& error) {
  const OutputFile file(path);
  Recorder recorder(file);
  recorder.add(Kind::Message, Stream::Fast, 1, "lost");
  pollfd failure{recorder.failureDescriptor(), POLLIN, 0};
  EXPECT_EQ(poll(&failure, 1, 60000), 1);
  recorder.add(Kind::Message, Stream::Fast, 1, "too late");
  try {
    recorder.close();
    ADD_FAILURE() << "no error";
  } catch (const std::runtime_error& problem) {
    EXPECT_EQ(problem.what(), error);
  }
}

TEST(Recorder, ReportsAFullDiskAtOnce) {
  expectFailure("/dev/full", "can't write /dev/full: No space left on device");
}

TEST(Recorder, ReportsAClosedPipeAtOnce) {
  std::signal(SIGPIPE, SIG_IGN);
  const int saved = dup(STDOUT_FILENO);
  {
    const tools::Pipe pipe;
    dup2(pipe.write(), STDOUT_FILENO);
  }
  expectFailure("-", "can't write standard output: Broken pipe");
  dup2(saved, STDOUT_FILENO);
  close(saved);
}

TEST(OutputFile, SaysWhyItCannotBeWritten) {
  try {
    const OutputFile file("/nowhere/file");
    ADD_FAILURE() << "no error";
  } catch (const std::runtime_error& problem) {
    EXPECT_STREQ(problem.what(), "can't write /nowhere/file: No such file or directory");
  }
}

}  // namespace
