// The log: what a line holds, where it goes, and that any thread may write it.
#include <latch>
#include <thread>

#include "tests/standin/with_host.h"

using standin::LogLine;

namespace {

class Log : public WithHost {
 protected:
  Texts texts() {
    Texts result;
    for (const auto& line : host.log()) result.push_back(line.text);
    return result;
  }
};

}  // namespace

TEST_F(Log, ALineHoldsEverythingThatWasPassed) {
  const auto before = std::chrono::system_clock::now();
  sonalith_log(3, "src/file.cpp", 42, 1, "%s(%s, %p) %d%%", "startCycle", "gateway",
               static_cast<void*>(nullptr), 7);
  const auto lines = host.log();
  ASSERT_EQ(lines.size(), 1U);
  EXPECT_GE(lines[0].time, before);
  EXPECT_LE(lines[0].time, std::chrono::system_clock::now());
  EXPECT_EQ(lines[0].level, 3);
  EXPECT_EQ(lines[0].file, "src/file.cpp");
  EXPECT_EQ(lines[0].line, 42);
  EXPECT_EQ(lines[0].one, 1);
  EXPECT_EQ(lines[0].format, "%s(%s, %p) %d%%");
  EXPECT_EQ(lines[0].arguments, (Texts{"startCycle", "gateway", "(nil)", "7"}));
  EXPECT_EQ(lines[0].text, "startCycle(gateway, (nil)) 7%");
}

TEST_F(Log, EachArgumentIsKeptAsItAppearsInTheText) {
  sonalith_log(1, "file", 1, 1, "%5d|%-4s|%.2s|%*d|%+.1f|%lx|%hhu|%c|100%%|%zu", 42, "ab", "cdef",
               3, 7, 2.25, 255L, 300, 'x', std::size_t{9});
  const auto line = host.log().at(0);
  EXPECT_EQ(line.arguments, (Texts{"   42", "ab  ", "cd", "  7", "+2.2", "ff", "44", "x", "9"}));
  EXPECT_EQ(line.text, "   42|ab  |cd|  7|+2.2|ff|44|x|100%|9");
}

TEST_F(Log, AFixedTextHasNoArguments) {
  sonalith_log(1, "file", 1, 1, "a fixed text");
  EXPECT_EQ(host.log().at(0).format, "a fixed text");
  EXPECT_EQ(host.log().at(0).arguments, Texts{});
}

TEST_F(Log, TextsMayHaveAnyLength) {
  Texts expected;
  for (const std::size_t length : {0, 1, 15, 16, 255, 256, 4096, 100000}) {
    expected.push_back(std::string(length, 'x') + "!");
    sonalith_log(1, "file", 1, 1, "%s!", std::string(length, 'x').c_str());
  }
  EXPECT_EQ(texts(), expected);
}

TEST_F(Log, TheJournalShowsLevelAndText) {
  sonalith_log(1, "file", 1, 1, "one");
  sonalith_log(4, "file", 1, 1, "two");
  EXPECT_EQ(host.journal(), (Texts{"log 1 one", "log 4 two"}));
}

TEST_F(Log, TheSinkGetsEachLineOnTheThreadThatLogs) {
  std::vector<LogLine> seen;
  std::thread::id thread;
  host.setLogSink([&](const LogLine& line) {
    seen.push_back(line);
    thread = std::this_thread::get_id();
  });
  std::thread logging([] { sonalith_log(2, "src/file.cpp", 7, 1, "hello"); });
  const auto expected = logging.get_id();
  logging.join();
  ASSERT_EQ(seen.size(), 1U);
  EXPECT_EQ(seen[0].level, 2);
  EXPECT_EQ(seen[0].file, "src/file.cpp");
  EXPECT_EQ(seen[0].line, 7);
  EXPECT_EQ(seen[0].one, 1);
  EXPECT_EQ(seen[0].text, "hello");
  EXPECT_EQ(thread, expected);
}

TEST_F(Log, TheSinkMayCallTheHost) {
  std::size_t known = 0;
  host.setLogSink([&](const LogLine&) { known = host.log().size() + host.outstanding().blocks; });
  sonalith_log(1, "file", 1, 1, "text");
  EXPECT_EQ(known, 1U);
}

TEST_F(Log, ARemovedSinkGetsNoLines) {
  int lines = 0;
  host.setLogSink([&](const LogLine&) { ++lines; });
  sonalith_log(1, "file", 1, 1, "text");
  host.setLogSink({});
  sonalith_log(1, "file", 1, 1, "text");
  EXPECT_EQ(lines, 1);
  EXPECT_EQ(texts(), Texts(2, "text"));
}

TEST_F(Log, TheSinkAndTheLogGetTheLinesOfSeveralThreadsInOneOrder) {
  constexpr int linesOfEach = 500;
  Texts seen;
  host.setLogSink([&](const LogLine& line) { seen.push_back(line.text); });
  std::latch begin(4);
  std::vector<std::thread> threads;
  for (int thread = 0; thread < 4; ++thread) {
    threads.emplace_back([&begin, thread] {
      begin.arrive_and_wait();
      for (int i = 0; i < linesOfEach; ++i) sonalith_log(1, "file", 1, 1, "%d %d", thread, i);
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(seen.size(), 4U * linesOfEach);
  EXPECT_EQ(seen, texts());
}

TEST_F(Log, ClearRecordsForgetsLinesButNotBlocks) {
  void* block = sonalith_calloc(1, 8);
  sonalith_log(1, "file", 1, 1, "text");
  host.clearRecords();
  EXPECT_EQ(texts(), Texts{});
  EXPECT_EQ(host.journal(), Texts{});
  sonalith_free(block);
  EXPECT_EQ(host.journal(), Texts{"free #1"});
}

TEST_F(Log, NeitherLogNorJournalIsKeptIfTheChoicesSaySo) {
  host.setChoices({.keepRecords = false});
  int lines = 0;
  host.setLogSink([&](const LogLine&) { ++lines; });
  sonalith_log(1, "file", 1, 1, "text");
  sonalith_free(sonalith_calloc(1, 8));
  EXPECT_EQ(lines, 1);
  EXPECT_EQ(texts(), Texts{});
  EXPECT_EQ(host.journal(), Texts{});
}

TEST_F(Log, ALineWithoutASourcePathIsAViolation) {
  sonalith_log(1, nullptr, 1, 1, "text");
  EXPECT_EQ(texts(), Texts{});
  EXPECT_EQ(host.violations(), Texts{"sonalith_log: null argument"});
}
