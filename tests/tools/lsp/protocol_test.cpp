// The server, as an editor sees it, and as a client sees it that sends what it should not.
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <string>

#include "standin/Host.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/lsp/Editor.h"

namespace {

enum : int {
  ParseError = -32700,
  InvalidRequest = -32600,
  MethodNotFound = -32601,
  InvalidParams = -32602,
  NotInitialized = -32002,
  Cancelled = -32800,
};

const Json literalActions = {{"textDocument",
                              {{"codeAction", {{"codeActionLiteralSupport", Json::object()}}},
                               {"publishDiagnostics", {{"relatedInformation", true}}}}}};

class Protocol : public ::testing::Test {
 protected:
  void openMain(const std::string& text) {
    editor.initialize(literalActions);
    editor.open(uri, text);
  }

  Json actions(const Json& range, const Json& context = Json::object()) {
    return editor.result(
        "textDocument/codeAction",
        {{"textDocument", {{"uri", uri}}}, {"range", range}, {"context", context}});
  }

  // Expects that the server still answers.
  void expectSound() { EXPECT_EQ(editor.error("no/such/method"), MethodNotFound); }

  int codeOfBadMessage(const std::string& content) {
    editor.write(lsp::framed(content));
    return editor.response(nullptr).at("error").at("code").get<int>();
  }

  const TemporaryFolder folder;
  const std::string uri = "file://" + folder.path("gateway.conf");
  standin::Host host{{.keepRecords = false}};
  Editor editor;
};

const std::string soundText = "[Meters]\nTarget=localhost:50005\n";

// ---- Life -------------------------------------------------------------------------------------

TEST_F(Protocol, SaysWhatTheServerCanDo) {
  const Json answer = editor.initialize();
  EXPECT_EQ(answer["serverInfo"]["name"], "gatewayctl lsp");
  EXPECT_EQ(answer["capabilities"]["textDocumentSync"]["change"], 2);
  EXPECT_EQ(answer["capabilities"]["positionEncoding"], "utf-16");
}

TEST_F(Protocol, ExitsWithZeroAfterAShutdown) {
  editor.initialize();
  EXPECT_TRUE(editor.result("shutdown").is_null());
  editor.notify("exit");
  EXPECT_EQ(editor.exitCode(), 0);
}

TEST_F(Protocol, ExitsWithOneWithoutAShutdown) {
  editor.initialize();
  editor.notify("exit");
  EXPECT_EQ(editor.exitCode(), 1);
}

TEST_F(Protocol, EndsWithItsInput) {
  editor.initialize();
  editor.closeInput();
  EXPECT_EQ(editor.exitCode(), 1);
}

TEST_F(Protocol, EndsWithTheProcessThatStartedIt) {
  const tools::Pipe idle;
  tools::ChildProcess parent("/bin/cat", {}, {.in = idle.read()});
  editor.initialize({}, {{"processId", parent.pid()}});
  parent.signal(SIGKILL);
  EXPECT_EQ(editor.exitCode(), 1);
}

TEST_F(Protocol, RefusesRequestsBeforeInitialize) {
  EXPECT_EQ(editor.error("textDocument/codeAction"), NotInitialized);
  EXPECT_EQ(editor.error("shutdown"), NotInitialized);
  editor.open(uri, "ignored");
  editor.initialize();
  EXPECT_EQ(editor.error("initialize"), InvalidRequest);
  EXPECT_EQ(editor.error("textDocument/codeAction", {{"textDocument", {{"uri", uri}}}}),
            InvalidParams)
      << "the document is not open";
}

TEST_F(Protocol, RefusesRequestsAfterShutdown) {
  editor.initialize();
  editor.result("shutdown");
  EXPECT_EQ(editor.error("shutdown"), InvalidRequest);
  EXPECT_EQ(editor.error("initialize"), InvalidRequest);
  EXPECT_EQ(editor.error("textDocument/codeAction"), InvalidRequest);
}

// As a script does that writes all messages at once.
TEST_F(Protocol, PublishesDiagnosticsBeforeItShutsDown) {
  openMain("nonsense\n");
  editor.ask("shutdown");
  editor.notify("exit");
  EXPECT_FALSE(editor.diagnostics(uri, 1).empty());
  EXPECT_EQ(editor.exitCode(), 0);
}

// ---- Diagnostics ------------------------------------------------------------------------------

TEST_F(Protocol, JudgesTheUnsavedText) {
  openMain("[Meters]\nTarget=localhost:50005\n[MetersFloat]\nMeter=Key=a Type=quick\n");
  const Json list = editor.diagnostics(uri, 1);
  ASSERT_EQ(list.size(), 1u) << list;
  EXPECT_EQ(list[0]["code"], "unknown-type");
  EXPECT_EQ(list[0]["severity"], 1);
  EXPECT_EQ(list[0]["range"], rangeOf(3, 17, 22));
  editor.change(uri, 2, Json::array({{{"range", rangeOf(3, 17, 22)}, {"text", "slow"}}}));
  EXPECT_TRUE(editor.diagnostics(uri, 2).empty());
  editor.change(uri, 3, Json::array({{{"text", "nonsense\n"}}}));
  EXPECT_FALSE(editor.diagnostics(uri, 3).empty());
}

TEST_F(Protocol, WithdrawsTheDiagnosticsOfAClosedDocument) {
  openMain("nonsense\n");
  EXPECT_FALSE(editor.diagnostics(uri, 1).empty());
  editor.notify("textDocument/didClose", {{"textDocument", {{"uri", uri}}}});
  EXPECT_TRUE(editor.diagnostics(uri, nullptr).empty());
}

TEST_F(Protocol, CountsInUtf16UnlessUtf8IsOffered) {
  const std::string text =
      soundText + "[MetersFloat]\nMeter=Key=\"\xC3\xA4\xF0\x9F\x98\x80\" Type=x\n";
  editor.initialize();
  editor.open(uri, text);
  EXPECT_EQ(editor.diagnostics(uri, 1).at(0)["range"], rangeOf(3, 21, 22));
  Editor other;
  const Json answer = other.initialize({{"general", {{"positionEncodings", {"utf-32", "utf-8"}}}}});
  EXPECT_EQ(answer["capabilities"]["positionEncoding"], "utf-8");
  other.open(uri, text);
  EXPECT_EQ(other.diagnostics(uri, 1).at(0)["range"], rangeOf(3, 24, 25));
}

TEST_F(Protocol, JudgesADedicatedFileAsPartOfTheFileThatNamesIt) {
  const std::string part = folder.write("part.conf", "[MetersFloat]\nMeter=Key=a\n");
  const std::string partUri = "file://" + part;
  openMain(soundText + "[ParseIfExist:" + part + "]\nFile=" + part + "\n");
  EXPECT_TRUE(editor.diagnostics(uri, 1).empty());
  editor.open(partUri, "[MetersFloat]\nMeter=Key=a Type=x\n");
  const Json list = editor.diagnostics(partUri, 1);
  ASSERT_EQ(list.size(), 1u) << list;
  EXPECT_EQ(list[0]["severity"], 2) << "the module skips bad lines of dedicated files";
  EXPECT_EQ(list[0]["relatedInformation"][0]["location"]["uri"], uri);
  editor.change(partUri, 2, Json::array({{{"text", "[MetersFloat]\nMeter=Key=a\n"}}}));
  EXPECT_TRUE(editor.diagnostics(partUri, 2).empty());
}

TEST_F(Protocol, ReportsMistakesInADedicatedFileThatIsNotOpen) {
  const std::string part = folder.write("part.conf", "[MetersFloat]\nMeter=Key=a Type=x\n");
  openMain(soundText + "[ParseIfExist:" + part + "]\nFile=" + part + "\n");
  EXPECT_EQ(editor.diagnostics("file://" + part, nullptr).at(0)["code"], "unknown-type");
  folder.write("part.conf", "[MetersFloat]\nMeter=Key=a\n");
  editor.notify("textDocument/didSave", {{"textDocument", {{"uri", uri}}}});
  EXPECT_TRUE(editor.diagnostics("file://" + part, nullptr).empty());
}

TEST_F(Protocol, AsksToHearOfFilesThatOtherProgramsWrite) {
  const std::string part = folder.write("part.conf", "[MetersFloat]\nMeter=Key=a Type=x\n");
  editor.initialize({{"workspace", {{"didChangeWatchedFiles", {{"dynamicRegistration", true}}}}}});
  const Json request = editor.notification("client/registerCapability");
  EXPECT_EQ(request["params"]["registrations"][0]["method"], "workspace/didChangeWatchedFiles");
  editor.send({{"jsonrpc", "2.0"}, {"id", request["id"]}, {"result", nullptr}});
  editor.open(uri, soundText + "[ParseIfExist:" + part + "]\nFile=" + part + "\n");
  EXPECT_FALSE(editor.diagnostics("file://" + part, nullptr).empty());
  folder.write("part.conf", "[MetersFloat]\nMeter=Key=a\n");
  editor.notify("workspace/didChangeWatchedFiles", {{"changes", Json::array()}});
  EXPECT_TRUE(editor.diagnostics("file://" + part, nullptr).empty());
}

// ---- Fixes ------------------------------------------------------------------------------------

TEST_F(Protocol, OffersTheRepairsOfTheChecker) {
  openMain(soundText + "[MetersFloat]\nMeter=key=a Type=SLOW\n");
  const Json list = actions(rangeOf(3, 6, 9));
  ASSERT_EQ(list.size(), 2u) << list;
  EXPECT_EQ(list[0]["kind"], "quickfix");
  EXPECT_EQ(list[0]["isPreferred"], true);
  EXPECT_EQ(list[0]["diagnostics"][0]["code"], "unknown-word");
  EXPECT_EQ(list[0]["edit"]["changes"][uri][0],
            Json({{"range", rangeOf(3, 6, 9)}, {"newText", "Key"}}));
  EXPECT_EQ(list[1]["kind"], "source.fixAll");
  EXPECT_EQ(list[1]["edit"]["changes"][uri][0]["newText"], "Meter=Key=a Type=slow");
}

TEST_F(Protocol, OffersOnlyTheKindsOfActionThatAreWanted) {
  openMain(soundText + "[MetersFloat]\nMeter=key=a\n");
  const auto kinds = [&](const Json& only) {
    Json found = Json::array();
    for (const Json& action : actions(rangeOf(3, 0, 9), {{"only", only}})) {
      found.push_back(action["kind"]);
    }
    return found;
  };
  EXPECT_EQ(kinds({"quickfix"}), Json({"quickfix"}));
  EXPECT_EQ(kinds({"source"}), Json({"source.fixAll"}));
  EXPECT_EQ(kinds({"source.fixAll"}), Json({"source.fixAll"}));
  EXPECT_EQ(kinds({"source.fix"}), Json::array());
  EXPECT_EQ(kinds({"refactor"}), Json::array());
}

TEST_F(Protocol, MarksOnlySafeRepairsAsPreferred) {
  openMain("[Metres]\nTarget=localhost:50005\n");
  const Json list = actions(rangeOf(0, 0, 8));
  ASSERT_EQ(list.size(), 1u) << list;
  EXPECT_EQ(list[0]["isPreferred"], false);
}

// ---- Bad input --------------------------------------------------------------------------------

TEST_F(Protocol, AnswersWhatIsNoJson) {
  EXPECT_EQ(codeOfBadMessage("{"), ParseError);
  EXPECT_EQ(codeOfBadMessage(""), ParseError);
  EXPECT_EQ(codeOfBadMessage("{\"jsonrpc\": \"\xFF\"}"), ParseError);
  EXPECT_EQ(codeOfBadMessage("1e999"), ParseError);
  editor.initialize();
  expectSound();
}

TEST_F(Protocol, AnswersWhatIsNoMessage) {
  for (const char* content :
       {"[]", "7", "{}", R"({"jsonrpc":"1.0","method":"a"})", R"({"jsonrpc":"2.0"})",
        R"({"jsonrpc":"2.0","id":{},"method":"a"})", R"({"jsonrpc":"2.0","id":1.5,"method":"a"})",
        R"({"jsonrpc":"2.0","method":7})", R"({"jsonrpc":"2.0","method":"a","params":7})"}) {
    EXPECT_EQ(codeOfBadMessage(content), InvalidRequest) << content;
  }
  editor.initialize();
  expectSound();
}

std::string nested(std::size_t depth) {
  return std::string(depth, '[') + std::string(depth, ']');
}

TEST_F(Protocol, RefusesMessagesThatAreNestedTooDeeply) {
  constexpr std::size_t deep = 100000;
  EXPECT_EQ(codeOfBadMessage(nested(100)), InvalidRequest) << "it is an array";
  EXPECT_EQ(codeOfBadMessage(nested(101)), ParseError);
  EXPECT_EQ(codeOfBadMessage(std::string(deep, '[')), ParseError);
  for (const std::string member : {"id", "params", "jsonrpc", "other"}) {
    editor.write(
        lsp::framed(R"({"jsonrpc":"2.0","method":"a",")" + member + "\":" + nested(deep) + "}"));
    EXPECT_EQ(editor.response(nullptr)["error"],
              Json({{"code", ParseError}, {"message", "it is nested too deeply"}}))
        << member;
  }
  EXPECT_EQ(codeOfBadMessage("[\"\\\"" + nested(deep) + "\"]"), InvalidRequest) << "in a string";
  editor.initialize();
  expectSound();
}

TEST_F(Protocol, AnswersFramesWithoutALength) {
  editor.write("Content-Type: text\r\n\r\n{}");
  EXPECT_EQ(editor.response(nullptr).at("error").at("code"), ParseError);
  editor.write("Content-Length: many\r\n\r\n");
  EXPECT_EQ(editor.response(nullptr).at("error").at("code"), ParseError);
  editor.initialize();
  expectSound();
}

TEST_F(Protocol, SkipsMessagesThatAreTooLarge) {
  constexpr std::size_t size = lsp::Session::messageLimit + 1;
  editor.initialize();
  editor.write("Content-Length: " + std::to_string(size) + "\r\n\r\n");
  const std::string piece(1 << 20, ' ');
  for (std::size_t left = size; left > 0; left -= std::min(left, piece.size())) {
    editor.write(std::string_view(piece).substr(0, std::min(left, piece.size())));
  }
  EXPECT_EQ(editor.response(nullptr)["error"]["message"],
            "a message of 67108865 bytes, which is more than the 67108864 allowed");
  expectSound();
}

TEST_F(Protocol, TakesLargeMessages) {
  std::string text = soundText + "[MetersFloat]\n";
  for (int i = 0; i < 50000; ++i) text += "Meter=Key=key" + std::to_string(i) + "\n";
  openMain(text);
  EXPECT_TRUE(editor.diagnostics(uri, 1).empty());
}

TEST_F(Protocol, RefusesWrongParams) {
  openMain(soundText);
  const Json document = {{"textDocument", {{"uri", uri}}}};
  for (const Json& params :
       {Json::object(), Json::array(), Json({{"textDocument", 7}}), document,
        Json({{"textDocument", {{"uri", uri}}}, {"range", 7}}),
        Json({{"textDocument", {{"uri", uri}}},
              {"range", {{"start", positionOf(-1, 0)}, {"end", positionOf(0, 0)}}}}),
        Json({{"textDocument", {{"uri", "file:///not/open"}}}, {"range", rangeOf(0, 0, 0)}})}) {
    EXPECT_EQ(editor.error("textDocument/codeAction", params), InvalidParams) << params;
  }
}

TEST_F(Protocol, ReportsNotificationsThatItCannotObey) {
  openMain(soundText);
  editor.notify("textDocument/didOpen", {{"textDocument", 7}});
  EXPECT_EQ(editor.notification("window/logMessage")["params"]["type"], 1);
  editor.change("file:///not/open", 2, Json::array());
  EXPECT_EQ(editor.notification("window/logMessage")["params"]["message"],
            "textDocument/didChange: file:///not/open is not open");
  expectSound();
}

// A text that differs from the editor's would have wrong diagnostics.
TEST_F(Protocol, DropsADocumentWhoseChangeItCannotMake) {
  openMain("nonsense\n");
  EXPECT_FALSE(editor.diagnostics(uri, 1).empty());
  editor.change(uri, 2, Json::array({{{"range", 7}, {"text", ""}}}));
  EXPECT_TRUE(editor.diagnostics(uri, nullptr).empty());
  EXPECT_EQ(editor.error("textDocument/codeAction",
                         {{"textDocument", {{"uri", uri}}}, {"range", rangeOf(0, 0, 0)}}),
            InvalidParams);
}

TEST_F(Protocol, TakesPositionsBeyondTheText) {
  openMain(soundText);
  editor.change(
      uri, 2,
      Json::array({{{"range", {{"start", positionOf(900, 7)}, {"end", positionOf(0, 900)}}},
                    {"text", "]\n"}}}));
  EXPECT_FALSE(editor.diagnostics(uri, 2).empty());
}

TEST_F(Protocol, ReadsHalfASurrogatePairAsAnUnknownCharacter) {
  editor.initialize();
  const std::string document = R"("version":1,"uri":")" + uri + R"(","text":"; \ud83d\n)" +
                               R"([Meters]\nTarget=localhost:50005\n)" +
                               R"([MetersInt]\nMeter=Key=a ; \ud83d\ude00\\u\n")";
  editor.write(lsp::framed(R"({"jsonrpc":"2.0","method":"textDocument/didOpen",)"
                           R"("params":{"textDocument":{)" +
                           document + "}}}"));
  EXPECT_TRUE(editor.diagnostics(uri, 1).empty());
}

// One write, so that the server has read all of it before it obeys the first message.
TEST_F(Protocol, CancelsRequestsThatItHasNotBegun) {
  openMain(soundText);
  const Json params = {{"textDocument", {{"uri", uri}}}, {"range", rangeOf(0, 0, 0)}};
  const Json request = {
      {"jsonrpc", "2.0"}, {"id", "x"}, {"method", "textDocument/codeAction"}, {"params", params}};
  const Json cancel = {
      {"jsonrpc", "2.0"}, {"method", "$/cancelRequest"}, {"params", {{"id", "x"}}}};
  editor.write(lsp::framed(request.dump()) + lsp::framed(cancel.dump()));
  EXPECT_EQ(editor.response("x").at("error").at("code"), Cancelled);
  editor.send(cancel);
  editor.notify("$/cancelRequest", Json::array());
  editor.notify("$/unknown");
  expectSound();
}

TEST_F(Protocol, IgnoresResponses) {
  editor.initialize();
  editor.send({{"jsonrpc", "2.0"}, {"id", 7}, {"result", nullptr}});
  editor.send({{"jsonrpc", "2.0"}, {"id", 8}, {"error", {{"code", 1}, {"message", "no"}}}});
  expectSound();
}

// The pipes hold far less than the questions and the answers. If the server waited for its client
// to read, neither would ever come back.
TEST_F(Protocol, ReadsOnWhileNobodyReadsItsAnswers) {
  editor.initialize();
  const std::string method = "no/such/" + std::string(1 << 20, 'x');
  const int first = editor.ask(method);
  editor.waitForOutput();
  const int second = editor.ask(method);
  EXPECT_EQ(editor.response(first).at("error").at("code"), MethodNotFound);
  EXPECT_EQ(editor.response(second).at("error").at("code"), MethodNotFound);
}

}  // namespace
