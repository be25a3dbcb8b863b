// The log book, the queue of lines, and slots, notifications and ages as programs and people see
// them.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <array>
#include <future>
#include <optional>
#include <sstream>

#include "tools/common/ChildProcess.h"
#include "tools/common/Json.h"
#include "tools/host/Json.h"
#include "tools/host/LineQueue.h"
#include "tools/host/LogBook.h"
#include "tools/host/Reporter.h"

namespace {

using host::ageText;
using host::jsonOf;
using host::LogBook;
using standin::LogLine;
using standin::SlotSet;
using standin::SlotValue;
using tools::jsonText;
using namespace std::chrono_literals;

LogLine lineOf(int level, const std::string& text) {
  return {.time = std::chrono::system_clock::time_point(1500ms),
          .level = level,
          .file = "src/a.cpp",
          .line = 7,
          .one = 1,
          .format = "%s",
          .arguments = {text},
          .text = text};
}

std::vector<std::string> textsFrom(const LogBook& book, std::uint64_t from) {
  std::vector<std::string> texts;
  for (const LogLine& line : book.linesFrom(from).lines) texts.push_back(line.text);
  return texts;
}

TEST(LogBook, ReturnsTheLinesFromANumberOn) {
  LogBook book;
  EXPECT_EQ(book.linesFrom(0).next, 0u);
  for (const char* text : {"a", "b", "c"}) book.add(lineOf(1, text));
  EXPECT_EQ(textsFrom(book, 0), (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_EQ(textsFrom(book, 2), std::vector<std::string>{"c"});
  EXPECT_EQ(textsFrom(book, 3), std::vector<std::string>{});
  EXPECT_EQ(textsFrom(book, 99), std::vector<std::string>{});
  EXPECT_EQ(book.linesFrom(0).next, 3u);
}

TEST(LogBook, KeepsTheLatestLines) {
  LogBook book;
  for (std::size_t i = 0; i < LogBook::kept + 2; ++i) book.add(lineOf(1, std::to_string(i)));
  const auto all = book.linesFrom(0);
  EXPECT_EQ(all.lines.size(), LogBook::kept);
  EXPECT_EQ(all.lines.front().text, "2");
  EXPECT_EQ(all.next, LogBook::kept + 2);
  EXPECT_EQ(textsFrom(book, LogBook::kept + 1), std::vector<std::string>{"1001"});
}

TEST(LogBook, CountsLinesByLevel) {
  LogBook book;
  for (const int level : {1, 1, 3, 4, 4, 4, 9, -1}) book.add(lineOf(level, ""));
  EXPECT_EQ(book.counts(), (std::array<std::uint64_t, 4>{3, 0, 1, 4}));
}

TEST(Json, DescribesASlot) {
  const auto now = host::Clock::now();
  EXPECT_EQ(jsonText(jsonOf({SlotSet::Slow, gateway::ValueType::Int, "queue", "queue.length"},
                            {SlotValue(3), now - 1250ms, 1}, now)),
            R"({"age":1.25,"changes":1,"key":"queue.length","moved":true,"name":"queue",)"
            R"("set":"slow","type":"int","value":3})");
}

TEST(Json, DescribesNotificationsAndLogLines) {
  EXPECT_EQ(jsonText(jsonOf(host::Notification{3,
                                               std::chrono::system_clock::time_point(1500ms),
                                               {{"gain", "-6.5"}},
                                               {host::Delivery::State::Failed, "INTERNAL"}})),
            R"({"changes":[{"name":"gain","value":"-6.5"}],)"
            R"("delivery":{"reason":"INTERNAL","state":"failed"},"number":3,"time":1.5})");
  EXPECT_EQ(jsonText(jsonOf(lineOf(2, "up"))),
            R"({"file":"src/a.cpp","level":2,"line":7,"text":"up","time":1.5})");
}

TEST(Age, IsRoundedToOneUnit) {
  EXPECT_EQ(ageText(0ms), "0.0 s");
  EXPECT_EQ(ageText(340ms), "0.3 s");
  EXPECT_EQ(ageText(45s), "45 s");
  EXPECT_EQ(ageText(119s), "119 s");
  EXPECT_EQ(ageText(12min), "12 min");
  EXPECT_EQ(ageText(3h), "3 h");
  EXPECT_EQ(ageText(120h), "5 d");
}

// ---- The queue of lines -----------------------------------------------------------------------

std::string allOf(int descriptor) {
  std::string text;
  std::array<char, 4096> part;
  for (ssize_t got = 0; (got = read(descriptor, part.data(), part.size())) > 0;) {
    text.append(part.data(), static_cast<std::size_t>(got));
  }
  return text;
}

class Queue : public ::testing::Test {
 protected:
  tools::Pipe pipe;
  static std::string droppedText(std::size_t lines) {
    return "dropped " + std::to_string(lines) + "\n";
  }

  std::optional<host::LineQueue> queue{std::in_place, pipe.write(), 100'000, droppedText};
};

TEST_F(Queue, WritesAllThatFitsInOrder) {
  std::string all;
  for (int i = 0; i < 100; ++i) {
    const std::string line = std::to_string(i) + "\n";
    queue->add(line);
    all += line;
  }
  queue.reset();
  pipe.closeWrite();
  EXPECT_EQ(allOf(pipe.read()), all);
}

// More than a pipe and the queue hold. The queue may report more than once, since lines are dropped
// while its thread starts, too.
TEST_F(Queue, DropsForAReaderThatStopsAndSaysHowMany) {
  const std::string line(99, 'x');
  constexpr std::size_t added = 10000;
  for (std::size_t i = 0; i < added; ++i) queue->add(line + "\n");
  auto reading = std::async(std::launch::async, [&] { return allOf(pipe.read()); });
  queue->finish();
  pipe.closeWrite();
  std::istringstream text(reading.get());
  std::size_t written = 0, dropped = 0;
  for (std::string each; std::getline(text, each);) {
    if (each == line) {
      ++written;
    } else {
      ASSERT_EQ(each.rfind("dropped ", 0), 0u) << each;
      dropped += std::stoul(each.substr(8));
    }
  }
  EXPECT_GT(dropped, 0u);
  EXPECT_EQ(written + dropped, added);
}

TEST_F(Queue, GivesUpAtTheEndOnAReaderThatStops) {
  for (int i = 0; i < 10000; ++i) queue->add(std::string(99, 'x') + "\n");
  queue->finish();
  EXPECT_FALSE(queue->failed());
}

TEST_F(Queue, FailsWhenTheDiskIsFull) {
  const int full = open("/dev/full", O_WRONLY);
  host::LineQueue lines(full, 1000, [](std::size_t) { return ""; });
  lines.add("x\n");
  lines.finish();
  EXPECT_TRUE(lines.failed());
  close(full);
}

}  // namespace
