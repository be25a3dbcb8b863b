// Completion of the keys that a meter server sends.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "standin/Host.h"
#include "tests/module/grpc-gateway/flows/FlowTest.h"
#include "tests/support/SimProcess.h"
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/lsp/Editor.h"

namespace {

using Labels = std::vector<std::string>;

Json optionsWith(const Json& target) {
  return {{"initializationOptions", {{"target", target}}}};
}

// Completes at a "|" in the text of one document.
class Keys : public ::testing::Test {
 protected:
  Json completion(std::string text) {
    const std::size_t place = text.find('|');
    text.erase(place, 1);
    editor->open(uri, text);
    const lsp::Places places(text, lsp::Encoding::Utf16);
    const lsp::Position position = places.positionOf(place);
    return editor->result("textDocument/completion",
                          {{"textDocument", {{"uri", uri}}},
                           {"position", positionOf(static_cast<int>(position.line),
                                                   static_cast<int>(position.character))}});
  }

  // Nothing tells the editor about a message or the end of a stream, so ask until it shows.
  Json completionWith(const std::string& text, const std::function<bool(const Json&)>& fits) {
    const auto end = std::chrono::steady_clock::now() + patience;
    while (std::chrono::steady_clock::now() < end) {
      const Json items = completion(text);
      if (fits(items)) return items;
    }
    throw std::runtime_error("the completion never changed");
  }

  static Labels labelsOf(const Json& items) {
    Labels labels;
    for (const Json& item : items) labels.push_back(item["label"]);
    return labels;
  }

  static bool has(const Json& items, const std::string& label) {
    return std::any_of(items.begin(), items.end(),
                       [&](const Json& item) { return item["label"] == label; });
  }

  // Has the server send both batches, and waits until the editor knows a key of each.
  void send(const Batch& fast, const std::string& fastKey, const Batch& slow,
            const std::string& slowKey) {
    sim->waitEvent("open fast");
    sim->waitEvent("open slow");
    sim->command("send fast " + fast.hex());
    sim->command("send slow " + slow.hex());
    completionWith("[MetersFloat]\nMeter=Key=|",
                   [&](const Json& items) { return has(items, fastKey) && has(items, slowKey); });
  }

  void sendSample() {
    send(Batch()
             .addFloat("peak", 0)
             .addInt("frames", 1)
             .addFloat("level \"A\"", 0)
             .addFloat("", 0)
             .add("spectrum", [](auto& any) { any.mutable_afloat()->add_data(1); })
             .addFloat("gain", 0),
         "peak", Batch().addFloat("temperature", 20).addInt("gain", 3), "temperature");
  }

  // The target is that of --target.
  void start(const std::string& target, const Json& more = Json::object()) {
    editor.emplace(target);
    editor->initialize({}, more);
  }

  // Waits for the next warning.
  std::string warning() {
    const Json params = editor->notification("window/showMessage")["params"];
    EXPECT_EQ(params["type"], 2);
    return params["message"];
  }

  const TemporaryFolder folder;
  const std::string uri = "file://" + folder.path("gateway.conf");
  standin::Host host{{.keepRecords = false}};
  std::optional<SimProcess> sim{std::in_place};
  std::optional<Editor> editor;
};

TEST_F(Keys, OfTheEntrysTypeAndRateComeFirst) {
  start(sim->metersTarget());
  sendSample();
  const Json items = completion("[MetersFloat]\nMeter=Key=|");
  EXPECT_EQ(labelsOf(items), (Labels{"gain", "level \"A\"", "peak", "frames", "temperature"}));
  EXPECT_EQ(items[0]["detail"], "fast float, slow int");
  EXPECT_EQ(items[3]["detail"], "fast int");
  EXPECT_LT(items[2]["sortText"], items[3]["sortText"]);
  EXPECT_EQ(labelsOf(completion("[MetersFloat]\nMeter=Type=slow Key=|")).front(), "temperature");
  EXPECT_EQ(labelsOf(completion("[MetersInt]\nMeter=Key=ga| Type=slow\n")).front(), "gain");
  EXPECT_EQ(labelsOf(completion("[MetersInt]\nMeter=Key=| ; Type=slow\n")).front(), "frames");
}

TEST_F(Keys, OfOtherEntriesOfTheListComeLast) {
  start(sim->metersTarget());
  sendSample();
  const std::string part = folder.write("part.conf", "[MetersFloat]\nMeter=Key=gain\n");
  const Json items = completion("[ParseIfExist:" + part + "]\nFile=" + part +
                                "\n[MetersFloat]\nMeter=Key=temperature Type=slow\n"
                                "Meter=Key=peak|\n");
  EXPECT_EQ(labelsOf(items), (Labels{"level \"A\"", "peak", "frames", "temperature", "gain"}));
  EXPECT_EQ(items[4]["detail"], "fast float, slow int, already in this list");
}

TEST_F(Keys, AreQuotedAsTheConfigurationNeedsThem) {
  start(sim->metersTarget());
  sendSample();
  const std::string quoted = "\"level \\\"A\\\"\"";
  EXPECT_EQ(completion("[MetersFloat]\nMeter=Key=le| Type=fast")[1]["textEdit"],
            Json({{"range", rangeOf(1, 10, 12)}, {"newText", quoted}}));
  const Json item = completion("[MetersFloat]\nMeter=Key=\"level |")[1];
  EXPECT_EQ(item["textEdit"], Json({{"range", rangeOf(1, 10, 17)}, {"newText", quoted}}));
  EXPECT_EQ(item["filterText"], "\"level \"A\"");
  const Json closed = completion("[MetersFloat]\nMeter=Key=\"|\" Type=slow");
  EXPECT_EQ(closed[0]["label"], "temperature");
  EXPECT_EQ(closed[0]["textEdit"],
            Json({{"range", rangeOf(1, 10, 12)}, {"newText", "temperature"}}));
}

TEST_F(Keys, AreOfferedOnlyAsTheKeyOfAMeter) {
  start(sim->metersTarget());
  sendSample();
  for (const std::string text :
       {"[EngineFloat]\nParam=Key=|", "[MetersFloat]\nMeter=CustomKey=|",
        "[MetersFloat]\nMeter=CustomKey=\"|", "[MetersFloat]\nMeter=Key=a ; Key=|"}) {
    EXPECT_EQ(completion(text), Json::array()) << text;
  }
}

TEST_F(Keys, AreCutToThoseThatContainTheTextIfThereAreTooMany) {
  start(sim->metersTarget());
  Batch many;
  for (int i = 0; i < 1001; ++i) many.addFloat("many." + std::to_string(i), 0);
  sim->waitEvent("open fast");
  sim->command("send fast " + many.addFloat("rare", 0).hex());
  const Json all = completionWith("[MetersFloat]\nMeter=Key=|",
                                  [](const Json& items) { return !items.empty(); });
  EXPECT_EQ(all["isIncomplete"], true);
  EXPECT_EQ(all["items"].size(), 1000u);
  const Json some = completion("[MetersFloat]\nMeter=Key=\"AR|");
  EXPECT_EQ(some["isIncomplete"], true);
  EXPECT_EQ(labelsOf(some["items"]), Labels{"rare"});
}

TEST_F(Keys, ComeFromTheTargetOfTheEditorRatherThanTheCommandLine) {
  start("not a target", optionsWith(sim->metersTarget()));
  sendSample();
}

TEST_F(Keys, StayKnownAndNewOnesComeWhenTheServerRestarts) {
  start(sim->metersTarget());
  sendSample();
  const std::string target = sim->metersTarget();
  sim->kill();
  sim.emplace(target);
  const std::string text = "[MetersFloat]\nMeter=Key=|";
  completionWith(text, [&](const Json&) { return sim->hasEvent("open fast"); });
  sim->command("send fast " + Batch().addFloat("new", 0).hex());
  const Json items = completionWith(text, [&](const Json& each) { return has(each, "new"); });
  EXPECT_TRUE(has(items, "gain"));
}

TEST_F(Keys, AreMissedWithOneWarningUntilTheServerIsThere) {
  const std::string target = unusedTarget();
  start(target);
  const std::string text = "[MetersFloat]\nMeter=Key=|";
  completionWith(text, [&](const Json&) { return editor->has("window/showMessage"); });
  const std::string expected = "no keys to complete: no meter server can be reached at " + target;
  EXPECT_TRUE(warning().starts_with(expected));
  sim.emplace(target);
  completionWith(text, [&](const Json&) { return sim->hasEvent("open fast"); });
  EXPECT_FALSE(editor->has("window/showMessage"));
  sendSample();
}

TEST_F(Keys, OfABadTargetAreMissedWithAWarning) {
  start("localhost");
  EXPECT_EQ(
      warning(),
      "no keys to complete: bad target \"localhost\": it has no port, so gRPC uses 443; write "
      "localhost:PORT");
  EXPECT_EQ(completion("[MetersFloat]\nMeter=Key=|"), Json::array());
}

TEST_F(Keys, OfATargetThatIsNoStringAreMissedWithAWarning) {
  start(sim->metersTarget(), optionsWith(50005));
  EXPECT_EQ(
      warning(),
      "no keys to complete: bad target: the initialization option \"target\" must be a string");
  EXPECT_EQ(labelsOf(completion("[Meters]\nEnableSlowMeters=|")), (Labels{"true", "false"}));
}

}  // namespace
