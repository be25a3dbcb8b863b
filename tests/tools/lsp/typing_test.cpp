// Many small changes, as typing makes them.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <string>
#include <vector>

#include "standin/Host.h"
#include "tests/tools/check/ConfigGenerator.h"
#include "tests/tools/lsp/Editor.h"

namespace {

// A text as an editor holds it: lines of UTF-16 units, each with the bytes that it stands for.
class EditedText {
 public:
  explicit EditedText(const std::string& text) { insert(0, text); }

  std::string text() const {
    std::string all;
    for (const std::string& unit : units_) all += unit;
    return all;
  }

  // A random change as the protocol has it, after which this text has changed, too.
  Json changeAtRandom(ConfigGenerator& generator) {
    std::size_t begin = wholeAt(generator.below(units_.size() + 1));
    std::size_t end = wholeAt(std::min(units_.size(), begin + generator.below(12)));
    const std::string inserted = textAtRandom(generator);
    const Json range = {{"start", positionAt(begin)}, {"end", positionAt(end)}};
    units_.erase(units_.begin() + static_cast<std::ptrdiff_t>(begin),
                 units_.begin() + static_cast<std::ptrdiff_t>(end));
    insert(begin, inserted);
    return {{"range", range}, {"text", inserted}};
  }

 private:
  static std::string textAtRandom(ConfigGenerator& generator) {
    static const std::vector<std::string> pieces = {"",
                                                    "",
                                                    "",
                                                    "a",
                                                    "\n",
                                                    "[Meters]\n",
                                                    "Meter=Key=\xC3\xA4",
                                                    "\xF0\x9F\x98\x80",
                                                    " Type=slow",
                                                    "\xE2\x82\xAC",
                                                    "=",
                                                    "]",
                                                    " ;",
                                                    "\"",
                                                    "\xF0\x9F\x98\x80\n",
                                                    "\r\n",
                                                    "\tb"};
    return pieces[generator.below(pieces.size())];
  }

  // The second half of a pair stands for no bytes.
  void insert(std::size_t at, const std::string& text) {
    std::vector<std::string> added;
    for (std::size_t i = 0; i < text.size();) {
      const auto first = static_cast<unsigned char>(text[i]);
      const std::size_t size = first < 0x80 ? 1 : first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
      added.push_back(text.substr(i, size));
      if (size == 4) added.emplace_back();
      i += size;
    }
    units_.insert(units_.begin() + static_cast<std::ptrdiff_t>(at), added.begin(), added.end());
  }

  // A place that is neither within a pair nor within a line end, where no editor has a cursor.
  std::size_t wholeAt(std::size_t unit) const {
    while (unit > 0 && unit < units_.size() &&
           (units_[unit].empty() || (units_[unit] == "\n" && units_[unit - 1] == "\r"))) {
      --unit;
    }
    return unit;
  }

  Json positionAt(std::size_t unit) const {
    int line = 0;
    int character = 0;
    for (std::size_t i = 0; i < unit; ++i) {
      const bool isEnd = units_[i] == "\n";
      line += isEnd ? 1 : 0;
      character = isEnd ? 0 : character + 1;
    }
    return positionOf(line, character);
  }

  std::vector<std::string> units_;
};

// An editor sends only valid UTF-8.
std::string plain(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return static_cast<unsigned char>(c) > 0x7F; }, '?');
  return text;
}

class Typing : public ::testing::Test {
 protected:
  standin::Host host{{.keepRecords = false}};
};

TEST_F(Typing, EndsInTheDiagnosticsOfTheFinalText) {
  Editor editor;
  editor.initialize();
  std::size_t withDiagnostics = 0;
  int version = 0;  // never the same again, so that old diagnostics are not taken for new ones
  for (std::uint32_t seed = 0; seed < 150; ++seed) {
    ConfigGenerator generator(seed);
    // One URI, so that the name of the file is the same in all messages.
    const std::string uri = "file:///nowhere/gateway.conf";
    EditedText text(plain(generator.configuration(seed % 2 == 0 ? 0 : 10, {})));
    editor.open(uri, text.text(), ++version);
    for (std::size_t round = 1 + generator.below(40); round > 0; --round) {
      Json changes = Json::array();
      for (std::size_t i = 1 + generator.below(3); i > 0; --i) {
        changes.push_back(text.changeAtRandom(generator));
      }
      editor.change(uri, ++version, changes);
    }
    const Json typed = editor.diagnostics(uri, version);
    editor.notify("textDocument/didClose", {{"textDocument", {{"uri", uri}}}});
    editor.open(uri, text.text(), ++version);
    const Json anew = editor.diagnostics(uri, version);
    editor.notify("textDocument/didClose", {{"textDocument", {{"uri", uri}}}});
    ASSERT_EQ(typed, anew) << "seed " << seed << "\n" << text.text();
    withDiagnostics += anew.empty() ? 0 : 1;
  }
  EXPECT_GT(withDiagnostics, 30u);
}

// One write, so that all changes are there when the server begins to judge.
TEST_F(Typing, HasOnlyTheNewestTextJudged) {
  Editor editor;
  editor.initialize();
  const std::string uri = "file:///nowhere/gateway.conf";
  editor.open(uri, "");
  editor.diagnostics(uri, 1);
  std::string changes;
  constexpr int last = 300;
  for (int version = 2; version <= last; ++version) {
    const Json change = {{"range", rangeOf(0, 0, 0)}, {"text", "x"}};
    const Json params = {{"textDocument", {{"uri", uri}, {"version", version}}},
                         {"contentChanges", Json::array({change})}};
    changes += lsp::framed(
        Json({{"jsonrpc", "2.0"}, {"method", "textDocument/didChange"}, {"params", params}})
            .dump());
  }
  editor.write(changes);
  int published = 0;
  const Json newest = editor.wait([&](const Json& message) {
    const bool isPublished = message.value("method", "") == "textDocument/publishDiagnostics";
    published += isPublished ? 1 : 0;
    return isPublished && message["params"]["version"] == last;
  });
  // The pipe is smaller than the changes, so the server may begin before the last has come.
  EXPECT_LT(published, last / 2);
  EXPECT_EQ(newest["params"]["diagnostics"][0]["range"], rangeOf(0, 0, last - 1));
}

// As many as an editor sends that has a cursor in each line.
TEST_F(Typing, TakesManyChangesInOneMessage) {
  Editor editor;
  editor.initialize();
  std::string text = "[Meters]\nTarget=localhost:50005\n[MetersFloat]\n";
  constexpr int firstLine = 3;
  constexpr int lines = 10000;
  Json changes = Json::array();
  for (int i = 0; i < lines; ++i) {
    text += "eter=Key=key" + std::to_string(i) + "\n";
    changes.push_back({{"range", rangeOf(firstLine + i, 0, 0)}, {"text", "M"}});
  }
  const std::string uri = "file:///nowhere/gateway.conf";
  editor.open(uri, text);
  EXPECT_FALSE(editor.diagnostics(uri, 1).empty());
  editor.change(uri, 2, changes);
  EXPECT_TRUE(editor.diagnostics(uri, 2).empty());
}

}  // namespace
