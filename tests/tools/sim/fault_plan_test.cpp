// Reading plans of faults, and computing their moments.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/support/TemporaryFolder.h"
#include "tests/tools/sim/SimTest.h"
#include "tools/sim/FaultPlan.h"

namespace {

using sim::FaultKind;
using sim::FaultTimes;
using sim::parseFault;
using sim::Subject;
using Subjects = std::vector<Subject>;

TEST(FaultPlan, ReadsTimeKindSubjectAndArgument) {
  const auto fault = parseFault("  at 2.5 :  end   slow UNAVAILABLE ");
  EXPECT_EQ(fault.kind, FaultKind::End);
  EXPECT_EQ(fault.subjects, Subjects{Subject::Slow});
  EXPECT_EQ(fault.status, grpc::StatusCode::UNAVAILABLE);
  EXPECT_EQ(fault.argument, "UNAVAILABLE");
  EXPECT_EQ(fault.times, (FaultTimes{.first = 2.5, .last = 2.5}));
}

TEST(FaultPlan, ReadsIntervalsAndDurations) {
  EXPECT_EQ(parseFault("every 5: empty").times,
            (FaultTimes{.first = 5, .last = 5, .repeats = true}));
  EXPECT_EQ(parseFault("every 2..6 for 1.5: stall").times,
            (FaultTimes{.first = 2, .last = 6, .repeats = true, .duration = 1.5}));
  EXPECT_EQ(parseFault("at 3 for 2: freeze").times,
            (FaultTimes{.first = 3, .last = 3, .duration = 2}));
}

TEST(FaultPlan, AFaultWithoutASubjectActsOnAllThatItsKindCan) {
  EXPECT_EQ(parseFault("at 0: garbage").subjects, (Subjects{Subject::Fast, Subject::Slow}));
  EXPECT_EQ(parseFault("at 0: reset").subjects, (Subjects{Subject::Meters, Subject::Engine}));
  EXPECT_EQ(parseFault("at 0: no-reply").subjects, Subjects{Subject::Engine});
}

TEST(FaultPlan, FillsInOptionalArguments) {
  EXPECT_EQ(parseFault("at 0: end fast").status, grpc::StatusCode::OK);
  EXPECT_EQ(parseFault("at 0: oversize").number, 5);
  EXPECT_EQ(parseFault("at 0: oversize slow 4.5").number, 4.5);
  EXPECT_EQ(parseFault("at 0: loss").range, (sim::Range{1, 1}));
}

TEST(FaultPlan, ReadsBytesWithTheirUnit) {
  const auto bytesIn = [](const std::string& text) {
    return parseFault("at 0: limit meters " + text).number;
  };
  EXPECT_EQ(bytesIn("100"), 100);
  EXPECT_EQ(bytesIn("100B"), 100);
  EXPECT_EQ(bytesIn("64kB"), 64000);
  EXPECT_EQ(bytesIn("1MB"), 1000000);
  EXPECT_EQ(bytesIn("1.5GB"), 1.5e9);
  EXPECT_EQ(bytesIn("2KiB"), 2048);
  EXPECT_EQ(bytesIn("1MiB"), 1048576);
}

TEST(FaultPlan, ReadsTimesWithTheirUnitAndSpread) {
  const auto expectRange = [](const std::string& text, double least, double most) {
    const auto fault = parseFault("at 0: delay meters " + text);
    EXPECT_DOUBLE_EQ(fault.range.least, least) << text;
    EXPECT_DOUBLE_EQ(fault.range.most, most) << text;
    EXPECT_EQ(fault.argument, text);
  };
  expectRange("0.3", 0.3, 0.3);
  expectRange("300ms", 0.3, 0.3);
  expectRange("2s", 2, 2);
  expectRange("500us", 0.0005, 0.0005);
  expectRange("20ms±5ms", 0.015, 0.025);
  expectRange("20ms+-5ms", 0.015, 0.025);
  expectRange("1s+-250ms", 0.75, 1.25);
  expectRange("2+-0.5", 1.5, 2.5);
}

TEST(FaultPlan, ReadsCountsAndTheirRanges) {
  EXPECT_EQ(parseFault("at 0: loss fast 20").range, (sim::Range{20, 20}));
  EXPECT_EQ(parseFault("at 0: loss fast 5..20").range, (sim::Range{5, 20}));
}

TEST(FaultPlan, ReadsTheChanceAtTheEnd) {
  const auto fault = parseFault("every 2: end fast UNAVAILABLE with 12.5%");
  EXPECT_EQ(fault.percent, 12.5);
  EXPECT_EQ(fault.chance(), 0.125);
  EXPECT_EQ(fault.argument, "UNAVAILABLE");
  EXPECT_EQ(parseFault("at 0: loss with 1%").chance(), 0.01);
  EXPECT_EQ(parseFault("at 0: loss").chance(), 1);
}

TEST(FaultPlan, HelpShowsEveryKind) {
  ToolProcess help({"sim", "--help"});
  EXPECT_EQ(help.waitExit(), 0);
  for (const auto& row : sim::faultKinds())
    EXPECT_TRUE(help.hasLine("  " + row.usage())) << row.name;
}

struct WrongFault {
  std::string name;
  std::string line;
  std::string error;
};

class EachWrongFault : public testing::TestWithParam<WrongFault> {};

INSTANTIATE_TEST_SUITE_P(
    , EachWrongFault,
    testing::ValuesIn(std::vector<WrongFault>{
        {"WithoutColon", "at 2 end fast",
         "\"at 2 end fast\" has no \":\". Write WHEN: FAULT, such as at 2: end fast"},
        {"WithoutTime", ": end",
         "there is no time before \":\". Write \"at SECONDS\" or \"every SECONDS\""},
        {"UnknownTime", "evry 2: end",
         "\"evry\" is not a time, did you mean \"every\"? Write \"at SECONDS\" or \"every "
         "SECONDS\""},
        {"UnknownKindOfTime", "soon: end",
         "\"soon\" is not a time. Write \"at SECONDS\" or \"every SECONDS\""},
        {"WithoutSeconds", "at: end", "\"at\" needs a number of seconds after it"},
        {"WithoutInterval", "every: end", "\"every\" needs a number of seconds after it"},
        {"WithoutDuration", "at 2 for: stall", "\"for\" needs a number of seconds after it"},
        {"BadTime", "at soon: end", "\"soon\" is not a number of seconds from 0 to 1000000000"},
        {"NegativeTime", "at -1: end", "\"-1\" is not a number of seconds from 0 to 1000000000"},
        {"InfiniteTime", "at inf: end", "\"inf\" is not a number of seconds from 0 to 1000000000"},
        {"NoInterval", "every 0: end", "\"0\" is too often. Write an interval above 0 seconds"},
        {"ShorterTimeLast", "every 6..2: end",
         "\"6..2\" is the wrong way round. Write the shorter time first"},
        {"WordAfterTime", "at 2 during 3: stall",
         "\"during\" is out of place. After the time comes \"for SECONDS\" or \":\""},
        {"WordAfterDuration", "at 2 for 3 s: stall",
         "\"s\" is out of place. After the duration comes \":\""},
        {"WithoutFault",
         "at 2:", "there is no fault after \":\". Write one, such as at 2: end fast"},
        {"UnknownSubject", "at 2: stall quick",
         "\"quick\" is out of place. Usage: stall [fast|slow]"},
        {"WrongSubject", "at 2: stall meters",
         "\"stall\" can't act on \"meters\", only on fast or slow"},
        {"WordAfterSubject", "at 2: stall fast now",
         "\"now\" is out of place. Usage: stall [fast|slow]"},
        {"WithoutNumber", "at 2: drip meters",
         "\"drip\" needs BYTES. Usage: drip [meters|engine] BYTES"},
        {"NoNumber", "at 2: oversize few",
         "\"few\" is not a number above 0 and up to 1000000000. Usage: oversize [fast|slow] "
         "[MEBIBYTES]"},
        {"NoBytes", "at 2: slice few",
         "\"few\" is not a number of bytes from 1, such as 100, 64kB or 1MB. Usage: slice "
         "[meters|engine] BYTES"},
        {"LessThanAByte", "at 2: slice 0.5",
         "\"0.5\" is not a number of bytes from 1, such as 100, 64kB or 1MB. Usage: slice "
         "[meters|engine] BYTES"},
        {"UnknownUnitOfBytes", "at 2: limit 1Mb",
         "\"1Mb\" is not a number of bytes from 1, such as 100, 64kB or 1MB. Usage: limit "
         "[meters|engine] BYTES"},
        {"NoCount", "at 2: loss fast 0",
         "\"0\" is not a number from 1, or a range such as 5..20. Usage: loss [fast|slow] "
         "[MESSAGES]"},
        {"LargerCountFirst", "at 2: loss fast 20..5",
         "\"20..5\" is not a number from 1, or a range such as 5..20. Usage: loss [fast|slow] "
         "[MESSAGES]"},
        {"NoDelay", "at 2: delay meters soon",
         "\"soon\" is not a time above 0, such as 0.3, 300ms or 20ms+-5ms. Usage: delay "
         "[meters|engine] TIME"},
        {"NoSpread", "at 2: delay meters 20ms±",
         "\"\" is not a time above 0, such as 0.3, 300ms or 20ms+-5ms. Usage: delay "
         "[meters|engine] TIME"},
        {"SpreadBeyondTheDelay", "at 2: delay meters 20ms±30ms",
         "\"20ms±30ms\" could be less than 0. Write at most 20ms after ±"},
        {"SpreadWithoutTheUnit", "at 2: delay meters 20ms+-5",
         "\"20ms+-5\" has only one unit. Write both, such as 20ms+-5ms"},
        {"WithoutChance", "at 2: reset meters with",
         "\"with\" needs a chance after it, such as 10%"},
        {"ChanceWithoutPercent", "at 2: reset meters with 10",
         "\"10\" is not a chance from 0.001% to 100%, such as 10%"},
        {"ChanceBeyondAll", "at 2: reset meters with 101%",
         "\"101%\" is not a chance from 0.001% to 100%, such as 10%"},
        {"ChanceOfNothing", "at 2: reset meters with 0%",
         "\"0%\" is not a chance from 0.001% to 100%, such as 10%"},
        {"WordAfterChance", "at 2: reset with 10% meters",
         "\"meters\" is out of place. The line ends after the chance"},
        {"WithoutStatus", "at 2: fail engine",
         "\"fail\" needs STATUS. Usage: fail [engine] STATUS"},
        {"DurationOfAnInstantFault", "at 2 for 3: end",
         "\"end\" is over at once. Leave out \"for\""},
        {"DurationBeyondTheInterval", "every 2..6 for 2: stall",
         "\"for 2\" is too long. Write less than the interval of 2 seconds"},
    }),
    [](const auto& test) { return test.param.name; });

TEST_P(EachWrongFault, IsExplainedWithARemedy) {
  try {
    parseFault(GetParam().line);
    FAIL() << "the line was accepted";
  } catch (const std::invalid_argument& error) {
    EXPECT_EQ(error.what(), GetParam().error);
  }
}

std::string errorOf(const std::string& line) {
  try {
    parseFault(line);
  } catch (const std::invalid_argument& error) {
    return error.what();
  }
  return "none";
}

TEST(FaultPlan, SuggestsCloseWords) {
  EXPECT_TRUE(
      errorOf("at 2: flod fast")
          .starts_with("\"flod\" is not a fault, did you mean \"flood\"? Faults are end, "));
  EXPECT_TRUE(
      errorOf("at 2: earthquake").starts_with("\"earthquake\" is not a fault. Faults are "));
  EXPECT_TRUE(
      errorOf("at 2: end fast UNAVAILBLE")
          .starts_with(
              "\"UNAVAILBLE\" is not a status, did you mean \"UNAVAILABLE\"? Use one of: OK "));
}

std::vector<double> momentsOf(const std::string& line, std::uint64_t seed, std::size_t place) {
  sim::FaultMoments moments(parseFault(line), seed, place);
  std::vector<double> times;
  for (int i = 0; i < 100; ++i) {
    if (const auto time = moments.next()) times.push_back(*time);
  }
  return times;
}

TEST(FaultMoments, ComeOnceOrRepeat) {
  EXPECT_EQ(momentsOf("at 3: end", 1, 0), std::vector<double>{3});
  const auto times = momentsOf("every 3: end", 1, 0);
  ASSERT_EQ(times.size(), 100u);
  EXPECT_EQ(times[0], 3);
  EXPECT_EQ(times[99], 300);
}

TEST(FaultMoments, AreDrawnFromTheSeedWithinTheirBounds) {
  const auto times = momentsOf("every 2..6: end", 1, 0);
  EXPECT_EQ(times, momentsOf("every 2..6: end", 1, 0));
  EXPECT_NE(times, momentsOf("every 2..6: end", 2, 0));
  EXPECT_NE(times, momentsOf("every 2..6: end", 1, 1));
  double last = 0;
  for (const double time : times) {
    EXPECT_GE(time - last, 2);
    EXPECT_LE(time - last, 6);
    last = time;
  }
}

// Half of the moments, give or take what the seed decides.
TEST(FaultMoments, LeaveSomeOutByChance) {
  const auto times = momentsOf("every 1: reset with 50%", 1, 0);
  ASSERT_EQ(times.size(), 100u);
  EXPECT_GT(times.back(), 150);
  EXPECT_LT(times.back(), 250);
  for (const double time : times) EXPECT_EQ(time, std::round(time));
  EXPECT_EQ(times, momentsOf("every 1: reset with 50%", 1, 0));
  EXPECT_NE(times, momentsOf("every 1: reset with 50%", 2, 0));
}

TEST(FaultMoments, ASingleOneComesInItsShareOfTheSeeds) {
  std::size_t came = 0;
  for (std::uint64_t seed = 0; seed < 1000; ++seed) {
    came += momentsOf("at 3: reset with 10%", seed, 0).size();
  }
  EXPECT_GT(came, 70u);
  EXPECT_LT(came, 130u);
}

// These strike each message or call by chance, so they always begin.
TEST(FaultMoments, AreAllThereIfChanceDecidesAboutMessages) {
  EXPECT_EQ(momentsOf("every 1: loss with 1%", 1, 0).back(), 100);
  EXPECT_EQ(momentsOf("every 1: fail ABORTED with 1%", 1, 0).back(), 100);
}

TEST(FaultPlan, NamesTheFileAndLineOfEachError) {
  const TemporaryFolder files;
  const auto path =
      files.write("bad.plan", "# a comment\n\nat 1: end # another\nat 2: edn\nat x: end\n");
  ToolProcess sim({"sim", "--meters", SimProcess::anyPort, "--fault-plan", path});
  EXPECT_EQ(sim.waitExit(), 1);
  const std::string errors = sim.errors();
  EXPECT_TRUE(errors.starts_with("gatewayctl sim: " + path +
                                 ":4: \"edn\" is not a fault, did you mean \"end\"?"));
  EXPECT_NE(errors.find("\n" + path + ":5: \"x\" is not a number"), errors.npos) << errors;
}

TEST(FaultPlan, NamesAMissingFile) {
  ToolProcess sim({"sim", "--meters", SimProcess::anyPort, "--fault-plan", "/nowhere/plan"});
  EXPECT_EQ(sim.waitExit(), 1);
  EXPECT_EQ(sim.errors(),
            "gatewayctl sim: can't read the fault plan /nowhere/plan: No such file or directory\n");
}

TEST(FaultPlan, NamesTheOptionOfAnError) {
  ToolProcess sim({"sim", "--fault", "at 1: end", "at x: end"});
  EXPECT_EQ(sim.waitExit(), 2);
  EXPECT_EQ(sim.errors(),
            "gatewayctl sim: --fault: in \"at x: end\": \"x\" is not a number of seconds from 0 to "
            "1000000000\n"
            "Run \"gatewayctl sim --help\" for its manual.\n");
}

TEST(FaultPlanFile, CannotBeAFolder) {
  const TemporaryFolder files;
  ToolProcess sim({"sim", "--meters", SimProcess::anyPort, "--fault-plan", files.path("")});
  EXPECT_EQ(sim.waitExit(), 1);
  EXPECT_EQ(sim.errors(), "gatewayctl sim: can't read the fault plan " + files.path("") +
                              ": it is a folder, or reading failed\n");
}

TEST(FaultPlanFile, IsReportedIfItHasNoFaults) {
  const TemporaryFolder files;
  const auto path = files.write("plan", "# at 1: end\n");
  PlayingSim sim({"--fault-plan", path});
  sim.process().waitError("gatewayctl sim: the fault plan " + path + " has no faults\n");
}

}  // namespace
