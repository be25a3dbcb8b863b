// The scanner reads a file as the INI reader does, and says where everything is.
#include "tools/check/Scanner.h"

#include <gtest/gtest.h>
#include <ini.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tests/support/TemporaryFolder.h"
#include "tests/tools/check/ConfigGenerator.h"
#include "tests/tools/check/RewrittenFile.h"

namespace {

using check::Line;
using check::LineKind;
using check::Scanner;

// The calls of a handler and the result of reading, for comparison.
struct Calls {
  std::vector<std::string> calls;
  int result = 0;
  bool operator==(const Calls&) const = default;
};

void PrintTo(const Calls& calls, std::ostream* out) {
  for (const auto& call : calls.calls) *out << "\n  " << call;
  *out << "\n  result " << calls.result;
}

std::string callText(const std::string& section, const std::string& name,
                     const std::string& value) {
  return "[" + section + "] <" + name + "> <" + value + ">";
}

// An arbitrary rule by which the handler refuses some names, so that results differ.
bool isGood(const std::string& name) {
  return name.size() % 7 != 3;
}

Calls readByReader(const std::string& path) {
  Calls calls;
  const ini_handler record = [](void* user, const char* section, const char* name,
                                const char* value) {
    static_cast<Calls*>(user)->calls.push_back(callText(section, name, value));
    return isGood(name) ? 1 : 0;
  };
  calls.result = ini_parse(path.c_str(), record, &calls);
  return calls;
}

using File = std::unique_ptr<std::FILE, int (*)(std::FILE*)>;

File openFile(const std::string& path) {
  return {std::fopen(path.c_str(), "r"), std::fclose};
}

Calls readByScanner(const std::string& path) {
  Calls calls;
  const File file = openFile(path);
  Scanner scanner(file.get());
  while (scanner.next()) {
    const Line& line = scanner.line();
    bool good = line.kind != LineKind::BadHeader && line.kind != LineKind::BadPair;
    if (line.kind == LineKind::Pair || line.kind == LineKind::Continuation) {
      const bool isPair = line.kind == LineKind::Pair;
      const std::string name(isPair ? line.name.of(line.text) : scanner.pendingName());
      calls.calls.push_back(
          callText(scanner.section(), name, std::string(line.value.of(line.text))));
      good = isGood(name);
    }
    if (!good && calls.result == 0) calls.result = static_cast<int>(line.chunk);
  }
  return calls;
}

// Expects each place to hold the bytes that the file has there.
void expectPlaces(const std::string& path, const std::string& text, std::uint32_t seed) {
  std::vector<std::string> lines(1);
  for (const char byte : text) {
    if (byte == '\n')
      lines.emplace_back();
    else
      lines.back() += byte;
  }
  const File file = openFile(path);
  Scanner scanner(file.get());
  while (scanner.next()) {
    const Line& line = scanner.line();
    ASSERT_LE(line.number, lines.size()) << "seed " << seed;
    const std::string& whole = lines[line.number - 1];
    ASSERT_LE(line.offset, whole.size()) << "seed " << seed;
    ASSERT_EQ(whole.substr(line.offset, line.text.size()), line.text) << "seed " << seed;
  }
}

TEST(Scanner, ReadsAsTheReaderDoes) {
  RewrittenFile file;
  std::size_t calls = 0;
  std::size_t bad = 0;
  for (std::uint32_t seed = 0; seed < 6000; ++seed) {
    ConfigGenerator generator(seed);
    const std::string text = seed % 2 == 0 ? generator.soup() : generator.configuration(20, {"/x"});
    const std::string path = file.write(text);
    const Calls expected = readByReader(path);
    ASSERT_EQ(readByScanner(path), expected) << "seed " << seed << "\n" << text;
    expectPlaces(path, text, seed);
    calls += expected.calls.size();
    bad += expected.result != 0 ? 1 : 0;
  }
  EXPECT_GT(calls, 20000u);
  EXPECT_GT(bad, 1000u);
}

Line lineOf(const std::string& text, std::string& kept) {
  const TemporaryFolder folder;
  const File file = openFile(folder.write("file", text));
  Scanner scanner(file.get());
  EXPECT_TRUE(scanner.next());
  Line line = scanner.line();
  kept = line.text;
  line.text = kept;
  return line;
}

TEST(Scanner, FindsThePartsOfAPair) {
  std::string text;
  const Line line = lineOf("  Name =  value ; comment \n", text);
  EXPECT_EQ(line.kind, LineKind::Pair);
  EXPECT_EQ(line.name, (check::Span{2, 4}));
  EXPECT_EQ(line.value, (check::Span{10, 5}));
  EXPECT_EQ(line.rest.of(text), "; comment");
}

TEST(Scanner, FindsThePartsOfAHeader) {
  std::string text;
  const Line line = lineOf(" [ a ] b\n", text);
  EXPECT_EQ(line.kind, LineKind::Header);
  EXPECT_EQ(line.name.of(text), " a ");
  EXPECT_EQ(line.rest.of(text), "b");
}

TEST(Scanner, NumbersLinesAsEditorsDo) {
  const TemporaryFolder folder;
  const File file = openFile(folder.write("file",
                                          "\xEF\xBB\xBF"
                                          "a=1\n" +
                                              std::string(1023, 'x') + "tail\nb=2\n"));
  Scanner scanner(file.get());
  struct Place {
    std::size_t number, chunk, offset;
    bool isTail;
    bool operator==(const Place&) const = default;
  };
  std::vector<Place> places;
  while (scanner.next()) {
    const Line& line = scanner.line();
    places.push_back({line.number, line.chunk, line.offset, line.isTail});
  }
  EXPECT_EQ(places, (std::vector<Place>{
                        {1, 1, 3, false}, {2, 2, 0, false}, {2, 3, 1023, true}, {3, 4, 0, false}}));
}

// The reader cuts a long line in the middle of a character.
TEST(Scanner, CountsTheUtf16UnitsBeforeAPieceOfALongLine) {
  const TemporaryFolder folder;
  std::string text;
  while (text.size() < 3000) text += "\u00E4\u97F3\U0001F50A";  // 9 bytes, 4 units
  const File file = openFile(folder.write("file", text + "\na=1\n"));
  Scanner scanner(file.get());
  std::vector<std::size_t> ends;
  while (scanner.next()) {
    check::Utf16Counter counter = scanner.line().before;
    counter.add(scanner.line().text);
    ends.push_back(counter.count());
  }
  // 1023 bytes are 113 times the text and 6 bytes: two characters and one byte of the third.
  EXPECT_EQ(ends, (std::vector<std::size_t>{113 * 4 + 2, 227 * 4 + 1, 334 * 4, 3}));
}

TEST(Utf16Counter, CountsASequenceThatIsNotUtf8AsOneUnit) {
  const auto unitsIn = [](std::string_view text) {
    check::Utf16Counter counter;
    counter.add(text);
    return counter.countToEnd();
  };
  EXPECT_EQ(unitsIn("a\xFC"
                    "b"),
            3u);
  EXPECT_EQ(unitsIn("\xF0\x9F\x98"
                    "b"),
            2u);
  EXPECT_EQ(unitsIn("\xF0\x9F\x98"), 1u);
  EXPECT_EQ(unitsIn("\xC0\x80\xED\xA0\x80"), 5u);  // neither overlong forms nor surrogates
}

}  // namespace
