// What the server says about a place in a document.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "standin/Host.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/lsp/Editor.h"
#include "tools/check/Vocabulary.h"
#include "tools/lsp/Descriptions.h"

namespace {

using Labels = std::vector<std::string>;

class Features : public ::testing::Test {
 protected:
  explicit Features(const Json& capabilities = {}) { editor.initialize(capabilities); }

  Json ask(const std::string& method, int line, int character) {
    return editor.result("textDocument/" + method, {{"textDocument", {{"uri", uri}}},
                                                    {"position", positionOf(line, character)}});
  }

  // Each replaces what the previous one has opened.
  void open(const std::string& text) { editor.open(uri, text); }

  std::string hover(int line, int character) {
    const Json answer = ask("hover", line, character);
    return answer.is_null() ? "" : answer["contents"]["value"].get<std::string>();
  }

  Labels labelsAtTheEndOf(const std::string& text) {
    open(text);
    const lsp::Places places(text, lsp::Encoding::Utf16);
    const lsp::Position end = places.positionOf(text.size());
    Labels labels;
    for (const Json& item :
         ask("completion", static_cast<int>(end.line), static_cast<int>(end.character))) {
      labels.push_back(item["label"]);
    }
    return labels;
  }

  const TemporaryFolder folder;
  const std::string uri = "file://" + folder.path("gateway.conf");
  standin::Host host{{.keepRecords = false}};
  Editor editor;
};

const std::string sample =
    "[Meters]\n"
    "Target=localhost:50005\n"
    "[MetersFloat]\n"
    "Meter=Key=a\n"
    "Meter=Key=b CustomKey=level DefaultValue=-60.5\n"
    "Meter=Key=c Type=slow\n"
    "[Engine]\n"
    "Target=localhost:50006\n"
    "[EngineInt]\n"
    "Param=Key=delay\n";

// ---- Hover ------------------------------------------------------------------------------------

TEST_F(Features, HoverShowsTheSlotOfALine) {
  open(sample);
  EXPECT_TRUE(
      hover(3, 0).starts_with("`gateway_float_0`: the fast float slot at position 0 of its "
                              "list, with the default 0.0; its key is `a`"))
      << hover(3, 0);
  EXPECT_TRUE(
      hover(4, 0).starts_with("`level`: the fast float slot at position 1 of its list, with "
                              "the default -60.5; its key is `b`"))
      << hover(4, 0);
  EXPECT_TRUE(hover(5, 0).starts_with("`gateway_float_0`: the slow float slot at position 0 "))
      << hover(5, 0);
  EXPECT_TRUE(
      hover(9, 0).starts_with("`gateway_int_0`: the engine int slot at position 0 of its "
                              "list; its key is `delay`"))
      << hover(9, 0);
}

TEST_F(Features, HoverSaysThatTheModuleRefusesTheConfiguration) {
  open(sample + "nonsense\n");
  EXPECT_NE(hover(4, 0).find("once the module accepts the configuration"), std::string::npos)
      << hover(4, 0);
}

TEST_F(Features, HoverExplainsTheWordUnderThePointer) {
  open(sample);
  EXPECT_EQ(hover(1, 2), "`Target`: " + lsp::describeKey("Meters", "Target"));
  EXPECT_NE(hover(4, 14).find("`CustomKey=`: " + lsp::describeWord("CustomKey")),
            std::string::npos);
  EXPECT_EQ(hover(0, 3), lsp::describeSection("Meters"));
  EXPECT_EQ(hover(10, 0), "") << "at the end of the text";
}

TEST_F(Features, HoverExplainsTheRuleThatIsBroken) {
  open("[Meters]\nTarget=localhost:50005\n[MetersInt]\nMeter=Key=a Type=SLOW\n");
  const std::string shown = hover(3, 18);
  EXPECT_NE(shown.find("unknown-type: a Type other than fast or slow. Type is the rate"),
            std::string::npos)
      << shown;
  EXPECT_EQ(hover(3, 2).find("unknown-type"), std::string::npos);
}

TEST_F(Features, HoverShowsTheSlotsOfADedicatedFileInItsMainFile) {
  const std::string part = folder.write("part.conf", "[MetersFloat]\nMeter=Key=z\n");
  open(sample + "[ParseIfExist:" + part + "]\nFile=" + part + "\n");
  editor.open("file://" + part, "[MetersFloat]\nMeter=Key=z\n");
  const Json answer = editor.result(
      "textDocument/hover",
      {{"textDocument", {{"uri", "file://" + part}}}, {"position", positionOf(1, 0)}});
  EXPECT_TRUE(answer["contents"]["value"].get<std::string>().starts_with("`gateway_float_2`"))
      << answer;
}

TEST(Descriptions, CoverTheWholeVocabulary) {
  for (const check::Section& section : check::namedSections()) {
    EXPECT_NE(lsp::describeSection(section.name), "") << section.name;
    for (const std::string& key : section.keys) {
      EXPECT_NE(lsp::describeKey(section.name, key), "") << section.name << " " << key;
    }
  }
  EXPECT_NE(lsp::describeKey("ParseIfExist:/etc/x.conf", "File"), "");
  for (const std::string& word : check::wordsOf(check::SectionKind::MeterEntries)) {
    EXPECT_NE(lsp::describeWord(word), "") << word;
  }
  EXPECT_EQ(lsp::describeKey("Meters", "Meter"), "");
  EXPECT_EQ(lsp::describeWord("Target"), "");
}

// ---- Completion -------------------------------------------------------------------------------

TEST_F(Features, CompletionKnowsTheSections) {
  const Labels labels = labelsAtTheEndOf("[Meters]\n[Me");
  EXPECT_EQ(labels.size(), 11u);
  EXPECT_EQ(labels.front(), "Meters");
  EXPECT_EQ(labels.back(), "ParseIfExist:");
  const Json item = ask("completion", 1, 3)[0];
  EXPECT_EQ(item["textEdit"], Json({{"range", rangeOf(1, 1, 3)}, {"newText", "Meters]"}}));
}

TEST_F(Features, CompletionKnowsTheKeysOfTheSection) {
  EXPECT_EQ(labelsAtTheEndOf("[Meters]\nT"),
            (Labels{"Target", "EnableFastMeters", "EnableSlowMeters"}));
  EXPECT_EQ(labelsAtTheEndOf("[EngineInt]\n"), (Labels{"Param"}));
  EXPECT_EQ(labelsAtTheEndOf("[ParseIfExist:/x]\n"), (Labels{"File"}));
  EXPECT_EQ(labelsAtTheEndOf("[Nowhere]\n"), Labels{});
  EXPECT_EQ(labelsAtTheEndOf(""), Labels{});
  EXPECT_EQ(labelsAtTheEndOf("[Meters]\n; T"), Labels{});
}

TEST_F(Features, CompletionKnowsTheWordsOfAnEntry) {
  EXPECT_EQ(labelsAtTheEndOf("[MetersInt]\nMeter="),
            (Labels{"Key=", "CustomKey=", "Type=", "DefaultValue="}));
  EXPECT_EQ(labelsAtTheEndOf("[EngineInt]\nParam="), (Labels{"Key=", "CustomKey="}));
  EXPECT_EQ(labelsAtTheEndOf("[MetersInt]\nMeter=Key=a D"),
            (Labels{"CustomKey=", "Type=", "DefaultValue="}));
  EXPECT_EQ(labelsAtTheEndOf("[MetersInt]\nMeter=Key=a\n  Key=b Ty"),
            (Labels{"CustomKey=", "Type=", "DefaultValue="}))
      << "an indented line is another entry";
  EXPECT_EQ(labelsAtTheEndOf("[MetersInt]\nMeter=Key=\"a "), Labels{}) << "within quotes";
}

TEST_F(Features, CompletionKnowsValues) {
  EXPECT_EQ(labelsAtTheEndOf("[MetersInt]\nMeter=Key=a Type=s"), (Labels{"fast", "slow"}));
  EXPECT_EQ(ask("completion", 1, 18)[1]["textEdit"],
            Json({{"range", rangeOf(1, 17, 18)}, {"newText", "slow"}}));
  EXPECT_EQ(labelsAtTheEndOf("[Meters]\nEnableSlowMeters="), (Labels{"true", "false"}));
  EXPECT_EQ(labelsAtTheEndOf("[Meters]\nTarget="), Labels{});
  EXPECT_EQ(labelsAtTheEndOf("[EngineInt]\nParam=Key=a Type="), Labels{});
}

TEST_F(Features, CompletionReplacesTheBlanksBeforeTheCursor) {
  ASSERT_EQ(labelsAtTheEndOf("[Meters]\nTarget \t").front(), "Target");
  EXPECT_EQ(ask("completion", 1, 8)[0]["textEdit"],
            Json({{"range", rangeOf(1, 0, 8)}, {"newText", "Target="}}));
  EXPECT_EQ(labelsAtTheEndOf("[Meters]\nEnableFastMeters= true "), (Labels{"true", "false"}));
  EXPECT_EQ(ask("completion", 1, 23)[1]["textEdit"],
            Json({{"range", rangeOf(1, 18, 23)}, {"newText", "false"}}));
  EXPECT_EQ(ask("completion", 1, 18)[1]["textEdit"],
            Json({{"range", rangeOf(1, 18, 18)}, {"newText", "false"}}))
      << "blanks alone stay";
}

TEST_F(Features, CompletionEndsWhereACommentBegins) {
  EXPECT_EQ(labelsAtTheEndOf("[MetersInt]\nMeter=Key=a ;Ty"), Labels{});
  EXPECT_EQ(labelsAtTheEndOf("[MetersInt]\nMeter=Key=a # Ty"), Labels{});
  EXPECT_EQ(labelsAtTheEndOf("[Meters]\nEnableSlowMeters=true ; t"), Labels{});
}

// ---- Symbols ----------------------------------------------------------------------------------

TEST_F(Features, SymbolsAreFlatUnlessTheEditorKnowsNestedOnes) {
  open(sample);
  const Json list =
      editor.result("textDocument/documentSymbol", {{"textDocument", {{"uri", uri}}}});
  ASSERT_EQ(list.size(), 10u) << list;
  EXPECT_EQ(list[0]["name"], "Meters");
  EXPECT_EQ(list[1]["name"], "Target");
  EXPECT_EQ(list[1]["containerName"], "Meters");
  EXPECT_EQ(list[1]["location"], Json({{"uri", uri}, {"range", rangeOf(1, 0, 22)}}));
}

class NestedSymbols : public Features {
 protected:
  NestedSymbols()
      : Features({{"textDocument",
                   {{"documentSymbol", {{"hierarchicalDocumentSymbolSupport", true}}}}}}) {}
};

TEST_F(NestedSymbols, AreTheSectionsWithTheirEntries) {
  open(sample + "Param=\n");
  const Json list =
      editor.result("textDocument/documentSymbol", {{"textDocument", {{"uri", uri}}}});
  ASSERT_EQ(list.size(), 4u) << list;
  EXPECT_EQ(list[1]["name"], "MetersFloat");
  EXPECT_EQ(list[1]["selectionRange"], rangeOf(2, 0, 13));
  EXPECT_EQ(list[1]["range"]["end"], positionOf(5, 21));
  ASSERT_EQ(list[1]["children"].size(), 3u);
  EXPECT_EQ(list[1]["children"][0]["name"], "a");
  EXPECT_EQ(list[1]["children"][1]["name"], "level");
  EXPECT_EQ(list[1]["children"][1]["detail"], "b");
  EXPECT_EQ(list[3]["children"][1]["name"], "?") << "an empty name is not allowed";
}

// ---- Definition -------------------------------------------------------------------------------

TEST_F(Features, DefinitionIsTheDedicatedFile) {
  const std::string part = folder.write("a part.conf", "");
  open("[ParseIfExist:" + part + "]\nFile=" + part + "\nFile=/no/file\n  " + part + "\n");
  for (const int line : {0, 1, 3}) {
    const Json place = ask("definition", line, 8);
    EXPECT_EQ(place["uri"], "file://" + folder.path("a%20part.conf")) << line;
    EXPECT_EQ(place["range"], rangeOf(0, 0, 0));
  }
  EXPECT_TRUE(ask("definition", 2, 8).is_null()) << "there is no such file";
  open(sample);
  EXPECT_TRUE(ask("definition", 1, 0).is_null());
}

}  // namespace
