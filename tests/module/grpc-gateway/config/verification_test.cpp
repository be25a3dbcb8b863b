// The verification of a configuration that was read: its rules, their order, and what each logs.
#include <array>

#include "tests/module/grpc-gateway/config/config_fixture.h"

namespace gateway {
namespace {

const Line needsTarget{3, "meters target can't be empty if fast or slow meters are set"};
const Line metersNeedTarget{3, "meters target can't be empty is some meters are set"};
const Line needsRate{3, "at least one meter type must be enabled"};
const Line metersFailed{1, "Meters settings verification failed!"};

const Line paramsNeedTarget{3, "engine target can't be empty is some engine parameters are set"};
const Line engineFailed{1, "Engine settings verification failed!"};

const Line meterKeyEmpty{3, "MeterEntry Key field can't be empty"};
const Line engineKeyEmpty{3, "EngineEntry Key field can't be empty"};
const Line customKeyLong{3, "MeterEntry CustomKey maximum size is 99"};
const Line meterEntriesFailed{1, "MeterEntry string settings verification failed!"};
const Line engineEntriesFailed{1, "EngineEntry string settings verification failed!"};

// One of the twelve lists, as a file spells it.
struct List {
  const char* section;
  const char* lineStart;

  std::string line(const std::string& words) const {
    return std::string("[") + section + "]\n" + lineStart + words + "\n";
  }
};

// In the order of their verification.
constexpr std::array meterLists{List{"MetersString", "Meter=Type=slow "},
                                List{"MetersInt", "Meter=Type=slow "},
                                List{"MetersUint", "Meter=Type=slow "},
                                List{"MetersFloat", "Meter=Type=slow "},
                                List{"MetersString", "Meter="},
                                List{"MetersInt", "Meter="},
                                List{"MetersUint", "Meter="},
                                List{"MetersFloat", "Meter="}};
constexpr std::array engineLists{List{"EngineString", "Param="}, List{"EngineInt", "Param="},
                                 List{"EngineUint", "Param="}, List{"EngineFloat", "Param="}};

const std::string bothOff = "EnableFastMeters=false\nEnableSlowMeters=false\n";

class ConfigVerification : public ConfigTest {
 protected:
  // Expects that a file passes all stages and nothing is logged.
  void expectSound(const std::string& text) {
    EXPECT_TRUE(read(text).valid) << text;
    EXPECT_EQ(log(), Lines{}) << text;
  }
  // Expects that a file is refused and exactly these lines are logged.
  void expectFaults(const std::string& text, const Lines& lines) {
    EXPECT_FALSE(read(text).valid) << text;
    EXPECT_EQ(log(), lines) << text;
  }
};

// ---- Meters settings ----------------------------------------------------------------------------

std::string metersSection(const char* target, bool fast, bool slow) {
  return std::string("[Meters]\nTarget=") + target +
         "\nEnableFastMeters=" + (fast ? "true" : "false") +
         "\nEnableSlowMeters=" + (slow ? "true" : "false") + "\n";
}

TEST_F(ConfigVerification, RatesAndMetersNeedATargetAndATargetNeedsARate) {
  const std::string meter = "[MetersInt]\nMeter=Key=a\n";
  expectFaults(metersSection("", true, true), {needsTarget, metersFailed});
  expectFaults(metersSection("", true, false), {needsTarget, metersFailed});
  expectFaults(metersSection("", false, true), {needsTarget, metersFailed});
  expectSound(metersSection("", false, false));
  expectSound(metersSection("m", true, true));
  expectSound(metersSection("m", true, false));
  expectSound(metersSection("m", false, true));
  expectFaults(metersSection("m", false, false), {needsRate, metersFailed});

  expectFaults(metersSection("", true, true) + meter, {needsTarget, metersFailed});
  expectFaults(metersSection("", true, false) + meter, {needsTarget, metersFailed});
  expectFaults(metersSection("", false, true) + meter, {needsTarget, metersFailed});
  expectFaults(metersSection("", false, false) + meter, {metersNeedTarget, metersFailed});
  expectSound(metersSection("m", true, true) + meter);
  expectSound(metersSection("m", true, false) + meter);
  expectSound(metersSection("m", false, true) + meter);
  expectFaults(metersSection("m", false, false) + meter, {needsRate, metersFailed});
}

TEST_F(ConfigVerification, AFileWithoutMeterSettingsNeedsAMetersTarget) {
  expectFaults("[Engine]\nTarget=e\n", {needsTarget, metersFailed});
}

TEST_F(ConfigVerification, AMeterInAnyListNeedsAMetersTarget) {
  for (const List& list : meterLists) {
    expectFaults("[Meters]\n" + bothOff + list.line("Key=a"), {metersNeedTarget, metersFailed});
  }
}

TEST_F(ConfigVerification, AMeterOfADisabledRateIsSound) {
  for (const List& list : meterLists) {
    expectSound("[Meters]\nTarget=m\nEnableSlowMeters=false\n" + list.line("Key=a"));
    expectSound("[Meters]\nTarget=m\nEnableFastMeters=false\n" + list.line("Key=a"));
  }
}

// ---- Engine settings ----------------------------------------------------------------------------

TEST_F(ConfigVerification, AParameterInAnyListNeedsAnEngineTarget) {
  for (const List& list : engineLists) {
    expectFaults("[Meters]\nTarget=m\n" + list.line("Key=a"), {paramsNeedTarget, engineFailed});
    expectSound(targets + list.line("Key=a"));
  }
}

TEST_F(ConfigVerification, AnEngineTargetNeedsNoParameters) {
  expectSound(targets);
}

// ---- Entries ------------------------------------------------------------------------------------

TEST_F(ConfigVerification, AnEmptyKeyFailsInEveryList) {
  for (const List& list : meterLists) {
    expectFaults(targets + list.line("CustomKey=c"), {meterKeyEmpty, meterEntriesFailed});
  }
  for (const List& list : engineLists) {
    expectFaults(targets + list.line("CustomKey=c"), {engineKeyEmpty, engineEntriesFailed});
  }
}

TEST_F(ConfigVerification, ACustomKeyOf99BytesPassesAndOneOf100Fails) {
  const std::string longest = "Key=a CustomKey=" + std::string(99, 'c');
  for (const List& list : meterLists) {
    expectSound(targets + list.line(longest));
    expectFaults(targets + list.line(longest + "c"), {customKeyLong, meterEntriesFailed});
  }
  for (const List& list : engineLists) {
    expectSound(targets + list.line(longest));
    expectFaults(targets + list.line(longest + "c"), {customKeyLong, engineEntriesFailed});
  }
}

TEST_F(ConfigVerification, TheLimitOfACustomKeyCountsBytes) {
  std::string euros = "Key=a CustomKey=";
  for (int i = 0; i < 33; ++i) euros += "\xE2\x82\xAC";
  expectSound(targets + meterLists[0].line(euros));
  expectFaults(targets + meterLists[0].line(euros + "x"), {customKeyLong, meterEntriesFailed});
}

TEST_F(ConfigVerification, KeysAndDefaultValuesHaveNoLimit) {
  const std::string text(400, 'x');
  expectSound(targets + std::string("[MetersString]\nMeter=Key=") + text + " DefaultValue=" + text +
              "\n[EngineString]\nParam=Key=" + text + "\n");
}

TEST_F(ConfigVerification, AnEmptyKeyHidesALongCustomKeyOfTheSameEntry) {
  const std::string both = "CustomKey=" + std::string(100, 'c');
  expectFaults(targets + meterLists[0].line(both), {meterKeyEmpty, meterEntriesFailed});
  expectFaults(targets + engineLists[0].line(both), {engineKeyEmpty, engineEntriesFailed});
}

TEST_F(ConfigVerification, OnlyTheFirstBadEntryOfAListIsLogged) {
  const std::string good = "Key=a";
  const std::string empty = "CustomKey=b";
  const std::string tooLong = "Key=c CustomKey=" + std::string(100, 'c');
  const List& meters = meterLists[5];
  expectFaults(targets + meters.line(good) + meters.line(empty) + meters.line(tooLong),
               {meterKeyEmpty, meterEntriesFailed});
  expectFaults(targets + meters.line(good) + meters.line(tooLong) + meters.line(empty),
               {customKeyLong, meterEntriesFailed});
  const List& params = engineLists[1];
  expectFaults(targets + params.line(good) + params.line(empty) + params.line(tooLong),
               {engineKeyEmpty, engineEntriesFailed});
  expectFaults(targets + params.line(good) + params.line(tooLong) + params.line(empty),
               {customKeyLong, engineEntriesFailed});
}

TEST_F(ConfigVerification, ListsAreCheckedInOrderUntilOneFails) {
  const std::string tooLong = "Key=a CustomKey=" + std::string(100, 'c');
  for (std::size_t i = 0; i + 1 < meterLists.size(); ++i) {
    const List& first = meterLists[i];
    const List& second = meterLists[i + 1];
    expectFaults(targets + second.line(tooLong) + first.line(""),
                 {meterKeyEmpty, meterEntriesFailed});
    expectFaults(targets + second.line("") + first.line(tooLong),
                 {customKeyLong, meterEntriesFailed});
  }
  for (std::size_t i = 0; i + 1 < engineLists.size(); ++i) {
    const List& first = engineLists[i];
    const List& second = engineLists[i + 1];
    expectFaults(targets + second.line(tooLong) + first.line(""),
                 {engineKeyEmpty, engineEntriesFailed});
    expectFaults(targets + second.line("") + first.line(tooLong),
                 {customKeyLong, engineEntriesFailed});
  }
}

// ---- Repeated keys ------------------------------------------------------------------------------

TEST_F(ConfigVerification, ARepeatedKeyIsLoggedByTheSummaryAlone) {
  for (const List& list : meterLists) {
    expectFaults(targets + list.line("Key=a") + list.line("Key=a CustomKey=b"),
                 {meterEntriesFailed});
  }
  for (const List& list : engineLists) {
    expectFaults(targets + list.line("Key=a") + list.line("Key=a CustomKey=b"),
                 {engineEntriesFailed});
  }
}

TEST_F(ConfigVerification, RepeatedKeysNeedNotBeNeighbours) {
  const List& list = meterLists[6];
  expectFaults(
      targets + list.line("Key=b") + list.line("Key=c") + list.line("Key=a") + list.line("Key=b"),
      {meterEntriesFailed});
}

TEST_F(ConfigVerification, ARepeatedKeyEndsItsStage) {
  expectFaults(
      targets + meterLists[0].line("Key=a") + meterLists[0].line("Key=a") + meterLists[1].line(""),
      {meterEntriesFailed});
  expectFaults(targets + engineLists[0].line("Key=a") + engineLists[0].line("Key=a") +
                   engineLists[1].line(""),
               {engineEntriesFailed});
}

TEST_F(ConfigVerification, ABadEntryHidesARepeatedKeyOfItsList) {
  const List& list = meterLists[4];
  expectFaults(targets + list.line("Key=a") + list.line("Key=a") +
                   list.line("Key=b CustomKey=" + std::string(100, 'c')),
               {customKeyLong, meterEntriesFailed});
}

TEST_F(ConfigVerification, TwoEmptyKeysAreLoggedOnceAsEmpty) {
  expectFaults(targets + meterLists[5].line("") + meterLists[5].line(""),
               {meterKeyEmpty, meterEntriesFailed});
  expectFaults(targets + engineLists[1].line("") + engineLists[1].line(""),
               {engineKeyEmpty, engineEntriesFailed});
}

TEST_F(ConfigVerification, AllTwelveListsMayShareAKey) {
  std::string text = targets;
  for (const List& list : meterLists) text += list.line("Key=a");
  for (const List& list : engineLists) text += list.line("Key=a");
  expectSound(text);
}

TEST_F(ConfigVerification, KeysAreEqualOnlyIfAllBytesAre) {
  for (const List& list : {meterLists[5], engineLists[1]}) {
    expectSound(targets + list.line("Key=a") + list.line("Key=A") + list.line("Key=aa") +
                list.line("Key=\"a \"") + list.line("Key=\" a\""));
  }
}

TEST_F(ConfigVerification, ACustomKeyMayBeRepeated) {
  std::string text = targets;
  for (const List& list : meterLists) {
    text += list.line("Key=a CustomKey=c") + list.line("Key=b CustomKey=c");
  }
  for (const List& list : engineLists) {
    text += list.line("Key=a CustomKey=c") + list.line("Key=b CustomKey=c");
  }
  expectSound(text);
}

// ---- Stages -------------------------------------------------------------------------------------

TEST_F(ConfigVerification, EveryStageRunsEvenIfEarlierOnesFail) {
  expectFaults("[Meters]\nTarget=m\n" + bothOff + meterLists[0].line("") +
                   engineLists[0].line("CustomKey=" + std::string(100, 'c')),
               {needsRate, metersFailed, paramsNeedTarget, engineFailed, meterKeyEmpty,
                meterEntriesFailed, engineKeyEmpty, engineEntriesFailed});
}

TEST_F(ConfigVerification, AStageThatPassesDoesNotUndoAnEarlierFault) {
  expectFaults("[Meters]\nTarget=\n[Engine]\nTarget=e\n" + meterLists[0].line("Key=a") +
                   engineLists[0].line("Key=a"),
               {needsTarget, metersFailed});
  expectFaults(targets + meterLists[0].line("") + engineLists[0].line("Key=a"),
               {meterKeyEmpty, meterEntriesFailed});
}

TEST_F(ConfigVerification, ItLeavesTheListsUnchanged) {
  EXPECT_EQ(
      read(targets + meterLists[5].line("Key=b") + meterLists[5].line("Key=a") +
           meterLists[5].line("Key=b") + engineLists[1].line("")),
      unsound({.fastMeterInts = {{.key = "b"}, {.key = "a"}, {.key = "b"}}, .engineInts = {{}}}));
}

}  // namespace
}  // namespace gateway
