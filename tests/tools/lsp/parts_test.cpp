// Frames and positions.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "tools/lsp/Documents.h"
#include "tools/lsp/Framing.h"
#include "tools/lsp/Positions.h"

namespace {

using lsp::Encoding;
using lsp::FrameReader;
using lsp::Places;
using lsp::Position;

// The contents of the frames, with problems in angle brackets.
std::vector<std::string> contentsIn(FrameReader& reader) {
  std::vector<std::string> contents;
  while (const auto frame = reader.next()) {
    contents.push_back(frame->problem.empty() ? frame->content : "<" + frame->problem + ">");
  }
  return contents;
}

using Contents = std::vector<std::string>;

TEST(Framing, SplitsAStreamWhereverItIsCut) {
  const std::string stream = lsp::framed("first") + lsp::framed("") +
                             "content-length:  3 \r\nContent-Type: x\r\n\r\n123" +
                             lsp::framed("\r\n\r\n");
  for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
    FrameReader reader(100);
    reader.add(stream.substr(0, cut));
    Contents contents = contentsIn(reader);
    reader.add(stream.substr(cut));
    for (const auto& each : contentsIn(reader)) contents.push_back(each);
    EXPECT_EQ(contents, (Contents{"first", "", "123", "\r\n\r\n"})) << cut;
  }
}

TEST(Framing, SkipsAContentThatIsTooLarge) {
  const std::string stream = lsp::framed("12345") + lsp::framed("1234");
  FrameReader reader(4);
  Contents contents;
  for (const char byte : stream) {
    reader.add({&byte, 1});
    for (const auto& each : contentsIn(reader)) contents.push_back(each);
  }
  EXPECT_EQ(contents,
            (Contents{"<a message of 5 bytes, which is more than the 4 allowed>", "1234"}));
}

TEST(Framing, FindsTheNextFrameAfterGarbage) {
  const std::string problem = "<a header without a valid Content-Length>";
  for (const std::string garbage :
       {"Content-Length: x\r\n\r\n{}", "Content-Length: 99999999999999999999999\r\n\r\n",
        "\r\n\r\n", "Content-Length: -1\r\n\r\n", "Content-Length: 1 2\r\n\r\n1"}) {
    FrameReader reader(100);
    reader.add(garbage + lsp::framed("good"));
    EXPECT_EQ(contentsIn(reader), (Contents{problem, "good"})) << garbage;
  }
  FrameReader reader(100);
  reader.add(std::string(2 * FrameReader::headerLimit, 'x'));
  EXPECT_EQ(contentsIn(reader), (Contents{problem}));
  reader.add(lsp::framed("good"));
  EXPECT_EQ(contentsIn(reader), (Contents{problem, "good"}));
}

TEST(Positions, CountUnitsOfTheEncoding) {
  const std::string text = "a\xC3\xA4\xF0\x9F\x98\x80z\r\n\xFF\xC3x\n";
  const Places units(text, Encoding::Utf16);
  const Places bytes(text, Encoding::Utf8);
  EXPECT_EQ(units.positionOf(7), (Position{0, 4})) << "of the z";
  EXPECT_EQ(bytes.positionOf(7), (Position{0, 7}));
  EXPECT_EQ(units.offsetOf({0, 4}), 7u);
  EXPECT_EQ(units.offsetOf({0, 3}), 3u) << "within a pair";
  EXPECT_EQ(bytes.offsetOf({0, 5}), 3u) << "within a character";
  EXPECT_EQ(units.offsetOf({0, 99}), 8u) << "before the line end";
  EXPECT_EQ(units.positionOf(12), (Position{1, 2})) << "after two bytes that are not UTF-8";
  EXPECT_EQ(units.offsetOf({1, 2}), 12u);
  EXPECT_EQ(units.offsetOf({2, 0}), text.size());
  EXPECT_EQ(units.offsetOf({99, 5}), text.size());
}

TEST(Positions, KeepALoneCarriageReturnInItsLine) {
  const std::string text = "a\rb\nc";
  const Places places(text, Encoding::Utf16);
  EXPECT_EQ(places.lineCount(), 2u);
  EXPECT_EQ(places.positionOf(2), (Position{0, 2}));
}

std::vector<std::size_t> startsIn(const Places& places) {
  std::vector<std::size_t> starts;
  for (std::size_t line = 0; line < places.lineCount(); ++line) {
    starts.push_back(places.startOf(line));
  }
  return starts;
}

TEST(Positions, FollowEachReplacement) {
  const std::string text = "a\n\nbc\r\nd\n";
  for (std::size_t begin = 0; begin <= text.size(); ++begin) {
    for (std::size_t end = begin; end <= text.size(); ++end) {
      for (const std::string added : {"", "x", "\n", "x\n\ny", "\nlonger than the text\n"}) {
        const std::string changed = text.substr(0, begin) + added + text.substr(end);
        Places places(text, Encoding::Utf16);
        places.replace(begin, end, changed, added.size());
        EXPECT_EQ(startsIn(places), startsIn(Places(changed, Encoding::Utf16)))
            << begin << ".." << end << " " << added;
        EXPECT_EQ(places.line(0), changed.substr(0, changed.find_first_of("\r\n")));
      }
    }
  }
}

TEST(Uris, LeadToPathsAndBack) {
  for (const std::string path : {"/etc/a b.conf", "/tmp/\xC3\xA4%41.conf", "/a:b#c?d", "/"}) {
    EXPECT_EQ(lsp::pathOf(lsp::uriOf(path)), path);
  }
  EXPECT_EQ(lsp::uriOf("/etc/a b.conf"), "file:///etc/a%20b.conf");
  EXPECT_EQ(lsp::pathOf("file://machine/etc/a.conf"), "/etc/a.conf");
  EXPECT_EQ(lsp::pathOf("untitled:Untitled-1"), "untitled:Untitled-1");
  EXPECT_EQ(lsp::pathOf("file:///50%"), "/50%");
  EXPECT_EQ(lsp::pathOf("file:///a%zz"), "/a%zz");
}

}  // namespace
