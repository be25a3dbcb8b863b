// The main file: its sections, keys and lines, and what is logged about those that can't be used.
#include <cctype>
#include <filesystem>

#include "tests/module/grpc-gateway/config/config_fixture.h"

namespace gateway {
namespace {

using enum MeterEntryType;

class ConfigFile : public ConfigTest {};

// The log of a file that sets neither a meters target nor a switch.
Lines targetMissing() {
  return {{3, "meters target can't be empty if fast or slow meters are set"},
          {1, "Meters settings verification failed!"}};
}

const std::string example =
    "; meter server on the same machine\n"
    "[Meters]\n"
    "Target=localhost:50005\n"
    "EnableFastMeters=true\n"
    "EnableSlowMeters=false\n"
    "\n"
    "[MetersFloat]\n"
    "Meter=Key=out.level Type=fast CustomKey=out_level DefaultValue=-60.5\n"
    "Meter=Key=in.level\n"
    "\n"
    "[MetersString]\n"
    "Meter=Key=\"dsp state\" DefaultValue=\"not ready\"\n"
    "\n"
    "[Engine]\n"
    "Target=localhost:50006\n"
    "\n"
    "[EngineFloat]\n"
    "Param=Key=out.gain CustomKey=out_gain\n"
    "\n";

Settings exampleSettings() {
  return {.metersTarget = "localhost:50005",
          .enableFastMeters = true,
          .enableSlowMeters = false,
          .engineTarget = "localhost:50006",
          .fastMeterStrings = {{.key = "dsp state", .defaultValue = "not ready"}},
          .fastMeterFloats = {{.key = "out.level", .customKey = "out_level", .defaultValue = -60.5},
                              {.key = "in.level"}},
          .engineFloats = {{.key = "out.gain", .customKey = "out_gain"}}};
}

TEST_F(ConfigFile, ACompleteFileIsReadCompletely) {
  const std::string extra = "/etc/sonalith/extra.conf";
  ASSERT_FALSE(std::filesystem::exists(extra)) << "the test expects that there is no " << extra;
  EXPECT_EQ(read(example + "[ParseIfExist:" + extra + "]\nFile=" + extra + "\n"),
            exampleSettings());
  EXPECT_EQ(log(), (Lines{{1,
                           "file '/etc/sonalith/extra.conf' not exist, so not parsing "
                           "dedicated file"}}));
}

TEST_F(ConfigFile, ADedicatedFileAddsToACompleteFile) {
  write("extra.conf",
        "[MetersFloat]\nMeter=Key=more\n[MetersString]\nMeter=Key=text\n"
        "[EngineFloat]\nParam=Key=fade\n");
  Settings expected = exampleSettings();
  expected.fastMeterFloats.push_back({.key = "more"});
  expected.fastMeterStrings.push_back({.key = "text"});
  expected.engineFloats.push_back({.key = "fade"});
  EXPECT_EQ(read(example + "[ParseIfExist:extra.conf]\nFile=extra.conf\n"), expected);
  EXPECT_EQ(log(), (Lines{{1, "subparsing file 'extra.conf' as requested"},
                          {1, "ret from handle if exist: 1"}}));
}

TEST_F(ConfigFile, AMissingFileIsRefused) {
  EXPECT_EQ(readPath("main.conf"), (Settings{.valid = false}));
  EXPECT_EQ(log(), Lines{problem(-1)});
}

TEST_F(ConfigFile, TheLogNamesTheFileByThePathThatWasGiven) {
  const std::string path = folder_.write("bad.conf", "[Meters]\nbare\n");
  EXPECT_EQ(readPath(path), (Settings{.valid = false}));
  EXPECT_EQ(log(), (Lines{{3, "configManager: problem parsing " + path + " (2)"}}));
}

TEST_F(ConfigFile, AnEmptyPathMeansTheDefaultFile) {
  const std::string installed = "/etc/sonalith/grpc-gateway.conf";
  ASSERT_FALSE(std::filesystem::exists(installed))
      << "the test expects that this machine has no " << installed;
  EXPECT_EQ(readPath(""), (Settings{.valid = false}));
  EXPECT_EQ(log(), (Lines{{3, "configManager: problem parsing " + installed + " (-1)"}}));
}

TEST_F(ConfigFile, AnEmptyFileIsRefusedForItsMissingTarget) {
  EXPECT_EQ(read(""), (Settings{.valid = false}));
  EXPECT_EQ(log(), targetMissing());
}

TEST_F(ConfigFile, AFileOfCommentsIsRefusedForItsMissingTarget) {
  EXPECT_EQ(read("; one\n# two\n\n  ; three\n\t# four\n"), (Settings{.valid = false}));
  EXPECT_EQ(log(), targetMissing());
}

TEST_F(ConfigFile, SectionsWithoutPairsHaveNoEffect) {
  EXPECT_EQ(read(std::string(targets) + "[MetersInt]\n[bogus]\n[ParseIfExist:main.conf]\n[]\n"),
            sound());
  EXPECT_EQ(log(), Lines{});
}

// ---- Keys of the two services -------------------------------------------------------------------

TEST_F(ConfigFile, ASwitchIsOnForTrueInAnyCase) {
  for (const char* word : {"true", "TRUE", "True", "tRuE"}) {
    SCOPED_TRACE(word);
    const std::string value(word);
    EXPECT_EQ(read("[Meters]\nTarget=m\nEnableFastMeters = " + value +
                   "\nEnableSlowMeters = " + value + "\n"),
              (Settings{.metersTarget = "m"}));
    EXPECT_EQ(log(), Lines{});
  }
}

TEST_F(ConfigFile, ASwitchIsSilentlyOffForAnythingElse) {
  for (const char* word : {"false", "1", "yes", "on", "", "tru", "truee", "true1", "\"true\""}) {
    SCOPED_TRACE(word);
    const std::string value(word);
    EXPECT_EQ(read("[Meters]\nTarget=m\nEnableFastMeters=" + value + "\n"),
              (Settings{.metersTarget = "m", .enableFastMeters = false}));
    EXPECT_EQ(log(), Lines{});
    EXPECT_EQ(read("[Meters]\nTarget=m\nEnableSlowMeters=" + value + "\n"),
              (Settings{.metersTarget = "m", .enableSlowMeters = false}));
    EXPECT_EQ(log(), Lines{});
  }
}

TEST_F(ConfigFile, TheLastOfRepeatedTargetsAndSwitchesCounts) {
  EXPECT_EQ(read("[Meters]\nTarget=a\nTarget=b\nEnableFastMeters=false\nEnableFastMeters=true\n"
                 "EnableSlowMeters=true\nEnableSlowMeters=false\n"
                 "[Engine]\nTarget=c\nTarget=d\n[Meters]\nTarget=e\n"),
            (Settings{.metersTarget = "e", .enableSlowMeters = false, .engineTarget = "d"}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigFile, AnEmptyValueClearsATarget) {
  EXPECT_EQ(read("[Meters]\nTarget=a\nTarget=\nEnableFastMeters=no\nEnableSlowMeters=no\n"
                 "[Engine]\nTarget=b\nTarget=\n"),
            (Settings{.enableFastMeters = false, .enableSlowMeters = false}));
}

TEST_F(ConfigFile, ATargetIsKeptUnchanged) {
  EXPECT_EQ(read("[Meters]\nTarget=\"a  b\" c=d 'e\\f\n[Engine]\nTarget=unix:///tmp/x #y\n"),
            (Settings{.metersTarget = "\"a  b\" c=d 'e\\f", .engineTarget = "unix:///tmp/x #y"}));
}

// ---- Names --------------------------------------------------------------------------------------

TEST_F(ConfigFile, SectionsAndKeysMayHaveAnyCase) {
  EXPECT_EQ(read("[meters]\nTARGET=x\nenablefastmeters=false\nENABLESLOWMETERS=true\n"
                 "[eNGINE]\ntarget=y\n"
                 "[METERSSTRING]\nmeter=Key=a\n[metersint]\nMETER=Key=b\n"
                 "[mETERSuINT]\nmETER=Key=c\n[MetersFLOAT]\nmeteR=Key=d\n"
                 "[ENGINESTRING]\nparam=Key=e\n[engineint]\nPARAM=Key=f\n"
                 "[eNGINEuINT]\npARAM=Key=g\n[EngineFLOAT]\nparaM=Key=h\n"),
            (Settings{.metersTarget = "x",
                      .enableFastMeters = false,
                      .engineTarget = "y",
                      .fastMeterStrings = {{.key = "a"}},
                      .fastMeterInts = {{.key = "b"}},
                      .fastMeterUints = {{.key = "c"}},
                      .fastMeterFloats = {{.key = "d"}},
                      .engineStrings = {{.key = "e"}},
                      .engineInts = {{.key = "f"}},
                      .engineUints = {{.key = "g"}},
                      .engineFloats = {{.key = "h"}}}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigFile, SectionsMayComeInAnyOrderAndRepeat) {
  EXPECT_EQ(read("[EngineInt]\nParam=Key=a\n[MetersInt]\nMeter=Key=b\n[Engine]\nTarget=e:2\n"
                 "[EngineInt]\nParam=Key=c\n[Meters]\nTarget=m:1\n[MetersInt]\nMeter=Key=d\n"),
            sound({.fastMeterInts = {{.key = "b"}, {.key = "d"}},
                   .engineInts = {{.key = "a"}, {.key = "c"}}}));
}

// An unknown section, whose first pair is line 6.
class ConfigFileUnknownSection : public ConfigFile,
                                 public testing::WithParamInterface<const char*> {};

TEST_P(ConfigFileUnknownSection, MakesItsPairsBad) {
  const std::string name = GetParam();
  EXPECT_EQ(read(std::string(targets) + "[" + name + "]\nTarget=x\nMeter=Key=a\n"), unsound());
  const Line unknown{4, "unknown section " + name + " in grpc gateway configuration file"};
  EXPECT_EQ(log(), (Lines{unknown, unknown, problem(6)}));
}

INSTANTIATE_TEST_SUITE_P(Names, ConfigFileUnknownSection,
                         testing::Values("bogus", "", " Meters ", "Meters2", "Meter",
                                         "MetersDouble", "Engines", "EngineStrings", "ParseIfExist",
                                         "parseifexist:main.conf", "PARSEIFEXIST:main.conf",
                                         "ParseIfexist:main.conf", " ParseIfExist:main.conf"));

TEST_F(ConfigFile, APairBeforeTheFirstHeaderIsInAnEmptySection) {
  EXPECT_EQ(read("Target=x\n" + std::string(targets)), unsound());
  EXPECT_EQ(log(), (Lines{{4, "unknown section  in grpc gateway configuration file"}, problem(1)}));
}

TEST_F(ConfigFile, ASectionNameIsCutTo49Bytes) {
  const std::string cut(49, 's');
  EXPECT_EQ(read(std::string(targets) + "[" + cut + "s]\na=1\n"), unsound());
  EXPECT_EQ(log(), (Lines{{4, "unknown section " + cut + " in grpc gateway configuration file"},
                          problem(6)}));
}

// A key that its section does not have, and what is logged about it.
struct UnknownKey {
  const char* section;
  const char* key;
  const char* message;
};

void PrintTo(const UnknownKey& unknown, std::ostream* out) {
  *out << unknown.key << " in " << unknown.section;
}

class ConfigFileUnknownKey : public ConfigFile, public testing::WithParamInterface<UnknownKey> {};

TEST_P(ConfigFileUnknownKey, MakesTheLineBad) {
  const UnknownKey unknown = GetParam();
  EXPECT_EQ(read(std::string(targets) + "[" + unknown.section + "]\n" + unknown.key + "=Key=a\n"),
            unsound());
  EXPECT_EQ(log(), (Lines{{4, unknown.message}, problem(6)}));
}

INSTANTIATE_TEST_SUITE_P(
    Sections, ConfigFileUnknownKey,
    testing::Values(
        UnknownKey{"Meters", "foo", "unknown field foo in Meters section"},
        UnknownKey{"METERS", "Foo", "unknown field Foo in Meters section"},
        UnknownKey{"Meters", "Meter", "unknown field Meter in Meters section"},
        UnknownKey{"Meters", "Targets", "unknown field Targets in Meters section"},
        UnknownKey{"Meters", "EnableFastMeter", "unknown field EnableFastMeter in Meters section"},
        UnknownKey{"Meters", "", "unknown field  in Meters section"},
        UnknownKey{"Engine", "foo", "unknown field foo in Engine section"},
        UnknownKey{"Engine", "Param", "unknown field Param in Engine section"},
        UnknownKey{"Engine", "EnableFastMeters",
                   "unknown field EnableFastMeters in Engine section"},
        UnknownKey{"MetersString", "Target", "unknown field Target in meter entry section"},
        UnknownKey{"MetersInt", "Param", "unknown field Param in meter entry section"},
        UnknownKey{"MetersUint", "Meters", "unknown field Meters in meter entry section"},
        UnknownKey{"MetersFloat", "foo", "unknown field foo in meter entry section"},
        UnknownKey{"EngineString", "Target", "unknown field Target in engine entry section"},
        UnknownKey{"EngineInt", "Meter", "unknown field Meter in engine entry section"},
        UnknownKey{"EngineUint", "Params", "unknown field Params in engine entry section"},
        UnknownKey{"EngineFloat", "File", "unknown field File in engine entry section"}));

// ---- Lines --------------------------------------------------------------------------------------

TEST_F(ConfigFile, ABadLineIsReportedOnlyByItsNumber) {
  EXPECT_EQ(read(std::string(targets) + "bare\n"), unsound());
  EXPECT_EQ(log(), Lines{problem(5)});
}

TEST_F(ConfigFile, AnUnclosedHeaderIsABadLine) {
  EXPECT_EQ(read(std::string(targets) + "[Meters\n"), unsound());
  EXPECT_EQ(log(), Lines{problem(5)});
}

TEST_F(ConfigFile, LinesAfterABadOneTakeEffectAndTheLogNamesTheFirstBadOne) {
  EXPECT_EQ(read("[Meters]\nfoo=1\nTarget=m:1\nbare\n[MetersInt]\nMeter=Key=a Bogus=1\n"
                 "Meter=Key=b\n[Engine]\nTarget=e:2\n"),
            unsound({.fastMeterInts = {{.key = "b"}}}));
  EXPECT_EQ(log(), (Lines{{4, "unknown field foo in Meters section"},
                          {3, "unknown key Bogus while parsing meter entry"},
                          problem(2)}));
}

TEST_F(ConfigFile, NothingIsVerifiedAfterABadLine) {
  EXPECT_EQ(
      read("bare\n[MetersInt]\nMeter=Key=a\nMeter=Key=a\n[EngineInt]\nParam=\n"),
      (Settings{
          .fastMeterInts = {{.key = "a"}, {.key = "a"}}, .engineInts = {{}}, .valid = false}));
  EXPECT_EQ(log(), Lines{problem(1)});
}

TEST_F(ConfigFile, AByteOrderMarkAtTheBeginningIsSkipped) {
  EXPECT_EQ(read("\xEF\xBB\xBF" + std::string(targets)), sound());
}

TEST_F(ConfigFile, ASemicolonAfterWhiteSpaceStartsAComment) {
  EXPECT_EQ(read("[Meters]\nTarget=a ; b\n[Engine]\nTarget=a;b\n"),
            (Settings{.metersTarget = "a", .engineTarget = "a;b"}));
}

TEST_F(ConfigFile, AColonSeparatesOnlyInALineWithoutAnEqualsSign) {
  EXPECT_EQ(read("[Meters]\nTarget: localhost:50005\n"),
            (Settings{.metersTarget = "localhost:50005"}));
  EXPECT_EQ(read(std::string(targets) + "[MetersInt]\nMeter: Key=a\n"), unsound());
  EXPECT_EQ(log(), (Lines{{4, "unknown field Meter: Key in meter entry section"}, problem(6)}));
}

TEST_F(ConfigFile, AnIndentedPairIsAnotherValueOfThePairAbove) {
  EXPECT_EQ(read("[Meters]\nTarget=x\n  EnableFastMeters=false\n"),
            (Settings{.metersTarget = "EnableFastMeters=false"}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigFile, AnotherValueOfAnEntryIsAnotherEntry) {
  EXPECT_EQ(read(std::string(targets) +
                 "[MetersInt]\nMeter=Key=a\n Key=b Type=slow\n\n; comment\n\tKey=c ;d\n"
                 "[EngineInt]\nParam=Key=e\n Key=f\n"),
            sound({.slowMeterInts = {{.key = "b", .type = Slow}},
                   .fastMeterInts = {{.key = "a"}, {.key = "c"}},
                   .engineInts = {{.key = "e"}, {.key = "f"}}}));
  EXPECT_EQ(log(), Lines{});
}

TEST_F(ConfigFile, AnotherValueOfAnUnknownKeyIsLoggedWithTheFirst49BytesOfTheKey) {
  const std::string cut(49, 'n');
  EXPECT_EQ(read(std::string(targets) + "[Meters]\n" + cut + "n=1\n 2\n"), unsound());
  EXPECT_EQ(log(), (Lines{{4, "unknown field " + cut + "n in Meters section"},
                          {4, "unknown field " + cut + " in Meters section"},
                          problem(6)}));
}

TEST_F(ConfigFile, TheRestOfALongLineIsALineOfItsOwn) {
  const std::string filled(1023 - sizeof("Target=") + 1, 'x');
  EXPECT_EQ(read("[Meters]\nTarget=" + filled + "tail\n[Engine]\nTarget=e\n"),
            (Settings{.metersTarget = filled, .engineTarget = "e", .valid = false}));
  EXPECT_EQ(log(), Lines{problem(3)});
}

TEST_F(ConfigFile, ALineMayHave1023Bytes) {
  const std::string filled(1023 - sizeof("Target=") + 1, 'x');
  EXPECT_EQ(read("[Meters]\nTarget=" + filled), (Settings{.metersTarget = filled}));
}

TEST_F(ConfigFile, ReadingOneFileDoesNotAffectTheNext) {
  read("[Meters]\nTarget=m\nEnableFastMeters=no\n[MetersInt]\nMeter=Key=a\n");
  EXPECT_EQ(read(targets), sound());
}

}  // namespace
}  // namespace gateway
