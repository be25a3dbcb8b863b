// What a comparison says about two configurations is what differs between them.
#include "tools/check/Comparison.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "standin/Host.h"
#include "tests/tools/check/ConfigGenerator.h"
#include "tests/tools/check/RewrittenFile.h"
#include "tools/check/Checker.h"
#include "tools/check/ComparisonReport.h"

namespace {

using check::Change;
using check::Comparison;
using check::Configured;
using check::SlotChange;
using tools::ConfiguredSlot;

using Changes = std::vector<Change>;

class ComparisonTest : public ::testing::Test {
 protected:
  // Nothing if the module refuses the text.
  std::optional<Configured> read(const std::string& text) {
    const check::Checked checked =
        check::check({.path = file_.write(text), .name = "x", .withSlots = true});
    if (checked.verdict != check::Verdict::Accepted) return std::nullopt;
    return Configured{checked.settings, checked.slots};
  }

  // Float meters, one a line.
  Configured meters(const std::vector<std::string>& entries, const std::string& more = "") {
    std::string text =
        "[Meters]\nTarget=localhost:1\n[Engine]\nTarget=localhost:2\n[MetersFloat]\n";
    for (const std::string& each : entries) text += "Meter=" + each + "\n";
    return read(text + more).value();
  }

 private:
  RewrittenFile file_;
  const standin::Host host_{{.keepRecords = false}};
};

// The slots that the comparison says there are, in the host's order.
std::vector<ConfiguredSlot> applied(const Comparison& comparison,
                                    std::vector<ConfiguredSlot> slots) {
  for (const SlotChange& change : comparison.slots) {
    if (!change.before) continue;
    const auto found = std::find(slots.begin(), slots.end(), *change.before);
    if (found == slots.end()) throw std::logic_error("the slot " + change.before->name);
    slots.erase(found);
  }
  for (const SlotChange& change : comparison.slots) {
    if (change.after) slots.push_back(*change.after);
  }
  std::sort(slots.begin(), slots.end(), [](const auto& a, const auto& b) {
    return std::tuple(a.set, gateway::indexOf(a.type), a.position) <
           std::tuple(b.set, gateway::indexOf(b.type), b.position);
  });
  return slots;
}

void replaceIn(std::string& line, const std::string& old, const std::string& now) {
  const std::size_t at = line.find(old);
  if (at != line.npos) line.replace(at, old.size(), now);
}

// The text after a few edits as people make them: lines removed, repeated, moved and changed.
std::string edited(std::string text, ConfigGenerator& random) {
  std::vector<std::string> lines;
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t end = std::min(text.find('\n', at), text.size() - 1) + 1;
    lines.push_back(text.substr(at, end - at));
    at = end;
  }
  const auto any = [&] {
    return lines.begin() + static_cast<std::ptrdiff_t>(random.below(lines.size()));
  };
  for (std::size_t n = 1 + random.below(3); n > 0 && lines.size() > 1; --n) {
    const auto line = any();
    switch (random.below(8)) {
      case 0:
        lines.erase(line);
        break;
      case 1:
        lines.insert(line, *any());
        break;
      case 2:
        std::iter_swap(line, any());
        break;
      case 3:
        lines.insert(line, "Meter=Key=k" + std::to_string(random.below(100)) + "\n");
        break;
      case 4:
        lines.insert(line, "[MetersInt]\n");
        break;
      case 5:
        replaceIn(*line, "Meter=", "Meter=Type=slow ");
        break;
      case 6:
        replaceIn(*line, "Key=k", "Key=m");
        break;
      case 7:
        replaceIn(*line, "DefaultValue=1", "DefaultValue=2");
        break;
    }
  }
  std::string result;
  for (const std::string& each : lines) result += each;
  return result;
}

TEST_F(ComparisonTest, AppliedToTheOldSlotsGivesTheNewOnes) {
  constexpr std::uint32_t pairs = 6000;
  std::size_t compared = 0;
  std::set<Change> seen;
  for (std::uint32_t seed = 0; seed < pairs; ++seed) {
    ConfigGenerator random(seed);
    const std::string text = random.configuration(0, {});
    const auto before = read(text);
    const auto after = read(edited(text, random));
    if (!before || !after) continue;
    ++compared;
    EXPECT_TRUE(compare(*before, *before).isEmpty()) << "seed " << seed;
    const Comparison comparison = compare(*before, *after);
    ASSERT_EQ(applied(comparison, before->slots), after->slots) << "seed " << seed;
    EXPECT_EQ(applied(compare(*after, *before), after->slots), before->slots) << "seed " << seed;
    EXPECT_EQ(comparison.isEmpty(),
              before->slots == after->slots && before->settings == after->settings)
        << "seed " << seed;
    for (const SlotChange& change : comparison.slots) {
      const Changes changes = change.changes();
      seen.insert(changes.begin(), changes.end());
    }
  }
  EXPECT_GT(compared, pairs / 5);
  EXPECT_EQ(seen.size(), 8u);  // the kinds of change
}

// Seen from the other side, a new slot is gone and a renamed one is renamed.
TEST_F(ComparisonTest, IsTheSameInBothDirections) {
  for (std::uint32_t seed = 0; seed < 2000; ++seed) {
    ConfigGenerator random(seed);
    const std::string text = random.configuration(0, {});
    const auto before = read(text);
    const auto after = read(edited(text, random));
    if (!before || !after) continue;
    const auto count = [](const Comparison& comparison, const auto& fits) {
      return std::count_if(comparison.slots.begin(), comparison.slots.end(), fits);
    };
    const auto isNew = [](const SlotChange& each) { return !each.before; };
    const auto isGone = [](const SlotChange& each) { return !each.after; };
    const Comparison there = compare(*before, *after);
    const Comparison back = compare(*after, *before);
    EXPECT_EQ(count(there, isNew), count(back, isGone)) << "seed " << seed;
    EXPECT_EQ(count(there, isGone), count(back, isNew)) << "seed " << seed;
    EXPECT_EQ(there.slots.size(), back.slots.size()) << "seed " << seed;
  }
}

TEST_F(ComparisonTest, AnInsertedLineRenamesTheSlotsBelowIt) {
  const Comparison comparison =
      compare(meters({"Key=a", "Key=b", "Key=c CustomKey=level", "Key=d"}),
              meters({"Key=a", "Key=x", "Key=b", "Key=c CustomKey=level", "Key=d"}));
  ASSERT_EQ(comparison.slots.size(), 4u);
  EXPECT_EQ(comparison.slots[0].before->key, "b");
  EXPECT_EQ(comparison.slots[0].changes(), (Changes{Change::Renamed, Change::Moved}));
  EXPECT_EQ(comparison.slots[1].before->key, "c");
  EXPECT_EQ(comparison.slots[1].changes(), Changes{Change::Moved});
  EXPECT_EQ(comparison.slots[2].changes(), (Changes{Change::Renamed, Change::Moved}));
  EXPECT_EQ(comparison.slots[3].changes(), Changes{Change::New});
  EXPECT_TRUE(comparison.affectsHost());
}

TEST_F(ComparisonTest, AnAppendedLineDoesNotAffectTheHost) {
  const Comparison comparison =
      compare(meters({"Key=a"}), meters({"Key=a", "Key=b"}, "[EngineInt]\nParam=Key=a\n"));
  EXPECT_EQ(comparison.slots.size(), 2u);
  EXPECT_FALSE(comparison.affectsHost());
}

TEST_F(ComparisonTest, SwappedLinesMoveTheirSlots) {
  const Comparison comparison = compare(meters({"Key=a CustomKey=x", "Key=b CustomKey=y"}),
                                        meters({"Key=b CustomKey=y", "Key=a CustomKey=x"}));
  ASSERT_EQ(comparison.slots.size(), 2u);
  EXPECT_EQ(comparison.slots[0].changes(), Changes{Change::Moved});
  EXPECT_TRUE(comparison.affectsHost());
}

// The same key may be in several lists: each entry stays with its own.
TEST_F(ComparisonTest, KeepsEntriesWithTheSameKeyApart) {
  const std::string others = "[MetersInt]\nMeter=Key=a\n[EngineFloat]\nParam=Key=a\n";
  const Configured before = meters({"Key=a", "Key=a Type=slow"}, others);
  EXPECT_TRUE(compare(before, meters({"Key=a Type=slow", "Key=a"}, others)).isEmpty());
  const Comparison comparison = compare(before, meters({"Key=a Type=slow"}, others));
  ASSERT_EQ(comparison.slots.size(), 1u);
  EXPECT_EQ(comparison.slots[0].before->set, standin::SlotSet::Fast);
  EXPECT_EQ(comparison.slots[0].changes(), Changes{Change::Gone});
}

TEST_F(ComparisonTest, FollowsAnEntryToAnotherListByItsKey) {
  const Comparison comparison =
      compare(meters({"Key=a CustomKey=level", "Key=b"}),
              meters({"Key=b Type=slow"}, "[MetersInt]\nMeter=Key=a CustomKey=level\n"));
  ASSERT_EQ(comparison.slots.size(), 2u);
  EXPECT_EQ(comparison.slots[0].changes(), Changes{Change::OtherType});
  EXPECT_EQ(comparison.slots[1].changes(), (Changes{Change::OtherRate, Change::Renamed}));
}

TEST_F(ComparisonTest, FollowsASlotToAnotherKeyByItsCustomKey) {
  const Comparison comparison =
      compare(meters({"Key=a CustomKey=level DefaultValue=1"}), meters({"Key=b CustomKey=level"}));
  ASSERT_EQ(comparison.slots.size(), 1u);
  EXPECT_EQ(comparison.slots[0].changes(), (Changes{Change::OtherKey, Change::OtherDefault}));
  EXPECT_FALSE(comparison.affectsHost());
}

TEST_F(ComparisonTest, DoesNotTakeAParameterForAMeter) {
  const Comparison comparison = compare(meters({"Key=a CustomKey=x"}),
                                        meters({}, "[EngineFloat]\nParam=Key=a CustomKey=x\n"));
  ASSERT_EQ(comparison.slots.size(), 2u);
  EXPECT_EQ(comparison.slots[0].changes(), Changes{Change::Gone});
  EXPECT_EQ(comparison.slots[1].changes(), Changes{Change::New});
}

TEST_F(ComparisonTest, ShowsAFewSlotsOfEachGroupAndCountsTheOthers) {
  std::vector<std::string> entries;
  for (int i = 0; i < 23; ++i) entries.push_back("Key=k" + std::to_string(i));
  const Configured before = meters(entries);
  entries.erase(entries.begin());
  const std::string text = textOf(compare(before, meters(entries)), "old", "new");
  EXPECT_TRUE(
      text.starts_with("gone (1)\n"
                       "  fast float \"k0\": name gateway_float_0, position 0\n"
                       "renamed (22)\n"
                       "  fast float \"k1\": name gateway_float_1 -> gateway_float_0, "
                       "position 1 -> 0\n"))
      << text;
  EXPECT_TRUE(
      text.ends_with("  fast float \"k20\": name gateway_float_20 -> gateway_float_19, "
                     "position 20 -> 19\n"
                     "  and 2 more\n"
                     "old -> new: 1 gone, 22 renamed, a host that uses the old slots has "
                     "to be adapted\n"))
      << text;
}

TEST_F(ComparisonTest, ShowsChangedSettings) {
  Configured after = meters({});
  after.settings.metersTarget = "other:1";
  after.settings.slowMeters = false;
  EXPECT_EQ(textOf(compare(meters({}), after), "old", "new"),
            "settings (2)\n"
            "  [Meters] Target: \"localhost:1\" -> \"other:1\"\n"
            "  [Meters] EnableSlowMeters: \"true\" -> \"false\"\n"
            "old -> new: 2 settings, the old slots keep their names, types and places\n");
  EXPECT_EQ(textOf(compare(after, after), "old", "new"), "old -> new: no difference\n");
}

}  // namespace
