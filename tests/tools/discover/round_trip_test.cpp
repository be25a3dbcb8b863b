// The module takes what discover writes: a server's keys, whatever they look like, arrive in the
// slots of the configuration.
#include "tests/support/TemporaryFolder.h"
#include "tests/tools/discover/DiscoverTest.h"

namespace {

using standin::SlotSet;
using standin::SlotValue;

class RoundTrip : public DiscoverTest {
 protected:
  // Starts the module with the configuration, and waits until both streams are open.
  void startWith(const std::string& configuration) {
    expectToPassTheCheck(configuration);
    ASSERT_EQ(start(configuration), 0) << configuration;
    servers.waitEvent("open fast ");
    servers.waitEvent("open slow ");
  }

  static void expectToPassTheCheck(const std::string& configuration) {
    const TemporaryFolder files;
    ToolProcess check({"check", files.write("gateway.conf", configuration)});
    EXPECT_EQ(check.waitExit(), 0) << check.errors() << testing::PrintToString(check.lines());
  }

  // Waits for the slot to hold the text. Earlier values of the same message have arrived by then.
  bool comes(SlotSet set, const std::string& name, const std::string& text) {
    return host.waitUntil([&] { return read(set, name) == SlotValue(text); });
  }

  SlotValue read(SlotSet set, const std::string& name) const {
    return instance.slot(set, name).read();
  }
};

// A configuration can hold all of these. The last two make the longest possible line, without and
// with quotes.
const std::vector<std::string> nastyKeys = {
    "dsp state",
    "it's",
    "\"quoted\"",
    "both ' and \"",
    ";first",
    "in;side",
    "after ;blank",
    "after\t;tab",
    "after\r;return",
    " ; ; ",
    "#first",
    "in#side",
    "after #blank",
    "back\\slash",
    "\\",
    "\\\\",
    "ends with\\",
    "\\n",
    "tab\tbetween",
    " leading",
    "trailing ",
    "\ttabs\t",
    "  ",
    "\r",
    "\v\f",
    "return\r",
    "\x1b[1m",
    "\x7f",
    "[section]",
    "[x",
    "a:b",
    "$HOME",
    "`date`",
    "*?{}()&|<>!~",
    "\xef\xbb\xbfmark",
    "\xc3\xa4\xc3\xb6\xc3\xbc \xe2\x82\xac \xf0\x9f\x8e\x9a",
    "\xc2\xa0",
    "\xc2\x85",
    "Key",
    "Type",
    "'",
    "\"",
    "\"\"",
    "''",
    "%s%n",
    std::string(200, 'x'),
    std::string(1003, 'y'),
    " " + std::string(1000, 'z'),
};

TEST_F(RoundTrip, NastyKeysArriveInTheirSlots) {
  Batch names;
  Batch values;
  for (std::size_t i = 0; i < nastyKeys.size(); ++i) {
    names.addString(nastyKeys[i], "");
    values.addString(nastyKeys[i], "value " + std::to_string(i));
  }
  const auto result = hear(sending({names}, {Batch().addInt("a", 1)}));
  ASSERT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output.find("; Not carried"), result.output.npos) << result.output;
  startWith(result.output);
  ASSERT_EQ(instance.slots(SlotSet::Fast).size(), nastyKeys.size());
  servers.command("send fast " + values.hex());
  for (std::size_t i = 0; i < nastyKeys.size(); ++i) {
    EXPECT_TRUE(
        comes(SlotSet::Fast, "gateway_string_" + std::to_string(i), "value " + std::to_string(i)))
        << nastyKeys[i];
  }
  instance.stop();
}

TEST_F(RoundTrip, EachTypeAndRateArrivesInItsSlot) {
  const auto batch = [](int number) {
    return Batch()
        .addInt("a key", -number)
        .addUint("a.key", static_cast<std::uint32_t>(number))
        .addFloat("a_key", static_cast<float>(number) / 2)
        .addString("key", "text " + std::to_string(number));
  };
  const auto result = hear(sending({batch(0)}, {batch(0)}), {"--custom-keys"});
  startWith(result.output);
  servers.command("send fast " + batch(3).hex());
  servers.command("send slow " + batch(7).hex());
  for (const auto& [set, number] : {std::pair(SlotSet::Fast, 3), std::pair(SlotSet::Slow, 7)}) {
    EXPECT_TRUE(comes(set, "key", "text " + std::to_string(number)));
    EXPECT_EQ(read(set, "a_key"), SlotValue(-number));
    EXPECT_EQ(read(set, "a_key_2"), SlotValue(static_cast<std::uint32_t>(number)));
    EXPECT_EQ(read(set, "a_key_3"), SlotValue(static_cast<float>(number) / 2));
  }
  instance.stop();
}

TEST_F(RoundTrip, KeysThatAreNotCarriedDoNotHarmTheRest) {
  const auto batch = [](float value, const std::string& text) {
    return Batch()
        .addFloat("a=b\r\n[Meters]\nTarget=elsewhere", value)
        .addFloat(std::string(5000, ';'), value)
        .add("\n\n", [](auto& any) { any.mutable_afloat(); })
        .addFloat("level", value)
        .addString("state", text);
  };
  const auto result = hear(sending({batch(1, "")}, {Batch().addInt("a", 1)}));
  EXPECT_EQ(result.exitCode, 0);
  startWith(result.output);
  ASSERT_EQ(instance.slots(SlotSet::Fast).size(), 2u);
  servers.command("send fast " + batch(2.5f, "running").hex());
  EXPECT_TRUE(comes(SlotSet::Fast, "gateway_string_0", "running"));
  EXPECT_EQ(read(SlotSet::Fast, "gateway_float_0"), SlotValue(2.5f));
  instance.stop();
}

}  // namespace
