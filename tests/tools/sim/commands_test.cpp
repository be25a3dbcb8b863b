// The simulator with --commands: what commands do to streams and to the engine service.
#include <grpcpp/client_context.h>
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "engine.grpc.pb.h"
#include "meters.grpc.pb.h"
#include "tests/tools/sim/SimTest.h"

namespace {

using grpc::StatusCode;

TEST_F(ObeyingSim, ReportsAStreamWithoutRequestDeadlineOrMetadata) {
  auto call = fastCall();
  EXPECT_EQ(sim.waitEvent("open"), "open fast 1 - deadline=none metadata=-");
}

TEST_F(ObeyingSim, ReportsRequestDeadlineAndMetadataOfACall) {
  RawCall call(sim.metersTarget(), slowPath, std::string("\x0a\x00\xff", 3), [](auto& context) {
    context.set_deadline(std::chrono::system_clock::now() + patience);
    context.AddMetadata("x-two", "a");
    context.AddMetadata("x-one", "b");
    context.AddMetadata("x-two", "c");
  });
  EXPECT_EQ(sim.waitEvent("open"), "open slow 1 0a00ff deadline=set metadata=x-one,x-two");
}

TEST_F(ObeyingSim, CountsTheCallsOfEachMethodFromOne) {
  auto first = fastCall();
  EXPECT_EQ(sim.waitEvent("open"), "open fast 1 - deadline=none metadata=-");
  auto second = fastCall();
  EXPECT_EQ(sim.waitEvent("open"), "open fast 2 - deadline=none metadata=-");
  auto third = slowCall();
  EXPECT_EQ(sim.waitEvent("open"), "open slow 1 - deadline=none metadata=-");
}

TEST_F(ObeyingSim, KeepsManyStreamsOpenAtOnce) {
  constexpr int many = 40;
  std::vector<std::unique_ptr<RawCall>> calls;
  for (int number = 1; number <= many; ++number) {
    calls.push_back(std::make_unique<RawCall>(sim.metersTarget(), fastPath));
    sim.waitEvent("open fast " + std::to_string(number) + " ");
  }
  EXPECT_FALSE(sim.hasEvent("closed"));
}

TEST_F(ObeyingSim, SendsBytesUnchanged) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 0a0D0a04");
  EXPECT_EQ(call.read(), "\x0a\x0d\x0a\x04");
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 1");
}

TEST_F(ObeyingSim, SendsAnEmptyMessage) {
  auto call = slowCall();
  sim.waitEvent("open slow 1 ");
  sim.command("send slow -");
  EXPECT_EQ(call.read(), "");
  EXPECT_EQ(sim.waitEvent("sent"), "sent slow 1 1");
}

TEST_F(ObeyingSim, SendsBytesThatCannotBeParsed) {
  auto stub = sonalith::grpc::Meters::NewStub(connect(sim.metersTarget()));
  grpc::ClientContext context;
  auto reader = stub->GetMetersFast(&context, {});
  sim.waitEvent("open fast 1 ");
  sim.command("send fast ff");
  sonalith::grpc::Meter meter;
  EXPECT_FALSE(reader->Read(&meter));
  context.TryCancel();
  reader->Finish();
}

TEST_F(ObeyingSim, SendsMessagesThatGeneratedStubsRead) {
  auto stub = sonalith::grpc::Meters::NewStub(connect(sim.metersTarget()));
  grpc::ClientContext context;
  auto reader = stub->GetMetersSlow(&context, {});
  sim.waitEvent("open slow 1 ");
  sonalith::grpc::Meter meter;
  meter.add_values()->set_key("gain");
  sim.command("send slow " + toHex(meter));
  sim.command("end slow OK");
  sonalith::grpc::Meter received;
  ASSERT_TRUE(reader->Read(&received));
  EXPECT_EQ(received.SerializeAsString(), meter.SerializeAsString());
  EXPECT_FALSE(reader->Read(&received));
  EXPECT_TRUE(reader->Finish().ok());
}

TEST_F(ObeyingSim, SendsMessagesLargerThanClientsAcceptByDefault) {
  constexpr std::size_t fiveMebibytes = 5 << 20;
  const std::string large(fiveMebibytes, 'x');
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast " + toHex(large));
  EXPECT_TRUE(call.read() == large);
}

TEST_F(ObeyingSim, SendsAMessageSeveralTimes) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 01 3");
  sim.command("send fast 02");
  sim.command("end fast OK");
  EXPECT_EQ(call.readAll(), (Lines{"\x01", "\x01", "\x01", "\x02"}));
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 3");
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 1");
}

TEST_F(ObeyingSim, RepeatsAMessageUntilItIsStopped) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 01 0");
  constexpr int repetitions = 1000;
  for (int i = 0; i < repetitions; ++i) ASSERT_EQ(call.read(), "\x01");
  sim.command("stop fast");
  sim.command("send fast 02");
  std::size_t count = repetitions;
  while (call.read() == "\x01") ++count;
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 " + std::to_string(count));
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 1");
}

TEST_F(ObeyingSim, StopDropsAllQueuedMessages) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 01 0");
  sim.command("send fast 02 7");
  ASSERT_EQ(call.read(), "\x01");
  sim.command("stop fast");
  sim.command("end fast OK");
  const auto rest = call.readAll();
  EXPECT_EQ(rest, std::vector<std::string>(rest.size(), "\x01"));
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 " + std::to_string(rest.size() + 1));
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 0");
}

TEST_F(ObeyingSim, RepeatsAMessageUntilTheClientCancels) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 01 0");
  ASSERT_EQ(call.read(), "\x01");
  call.cancel();
  EXPECT_EQ(sim.waitEvent("closed"), "closed fast 1 cancelled");
  EXPECT_TRUE(sim.hasEvent("sent fast 1 "));
}

TEST_F(ObeyingSim, RepeatsAMessageUntilTheStreamIsEnded) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 01 0");
  ASSERT_EQ(call.read(), "\x01");
  sim.command("end fast ABORTED");
  const auto rest = call.readAll();
  EXPECT_EQ(call.finish(), StatusCode::ABORTED);
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 " + std::to_string(rest.size() + 1));
  EXPECT_EQ(sim.waitEvent("closed"), "closed fast 1 ended");
}

TEST_F(ObeyingSim, SendsToTheNewestOpenCall) {
  auto older = fastCall();
  sim.waitEvent("open fast 1 ");
  auto newer = fastCall();
  sim.waitEvent("open fast 2 ");
  sim.command("send fast 02");
  EXPECT_EQ(newer.read(), "\x02");
  sim.command("end fast OK");
  sim.command("send fast 01");
  EXPECT_EQ(older.read(), "\x01");
  EXPECT_EQ(newer.read(), std::nullopt);
}

TEST_F(ObeyingSim, SendsOnlyToTheNamedStream) {
  auto fast = fastCall();
  sim.waitEvent("open fast 1 ");
  auto slow = slowCall();
  sim.waitEvent("open slow 1 ");
  sim.command("send fast 0f");
  sim.command("end fast OK");
  sim.command("end slow OK");
  EXPECT_EQ(fast.readAll(), Lines{"\x0f"});
  EXPECT_EQ(slow.readAll(), Lines{});
}

TEST_F(ObeyingSim, DoesNotBlockOnAClientThatDoesNotRead) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command(sendUnreadMessages());
  sim.command("end fast OK");
  EXPECT_FALSE(sim.hasEvent("sent"));
  EXPECT_TRUE(call.readAll() == unreadMessages());
}

TEST_F(ObeyingSim, AnEndingCallIsNoLongerOpen) {
  auto older = fastCall();
  sim.waitEvent("open fast 1 ");
  auto newer = fastCall();
  sim.waitEvent("open fast 2 ");
  sim.command(sendUnreadMessages());
  sim.command("end fast OK");
  sim.command("send fast 01");
  EXPECT_FALSE(sim.hasEvent("closed"));
  EXPECT_EQ(older.read(), "\x01");
}

TEST_F(ObeyingSim, ReportsThatAClientCancelled) {
  auto call = slowCall();
  sim.waitEvent("open slow 1 ");
  call.cancel();
  EXPECT_EQ(sim.waitEvent("closed"), "closed slow 1 cancelled");
  EXPECT_EQ(call.finish(), StatusCode::CANCELLED);
}

TEST_F(ObeyingSim, ACancelledCallIsNoLongerOpen) {
  auto call = slowCall();
  sim.waitEvent("open slow 1 ");
  call.cancel();
  sim.waitEvent("closed slow 1 ");
  sim.command("send slow 01");
  EXPECT_EQ(sim.waitEvent("error"), "error no slow stream is open");
}

struct NamedStatus {
  std::string name;
  StatusCode code;
};

class EachStatus : public testing::TestWithParam<NamedStatus> {};

INSTANTIATE_TEST_SUITE_P(, EachStatus,
                         testing::ValuesIn(std::vector<NamedStatus>{
                             {"OK", StatusCode::OK},
                             {"CANCELLED", StatusCode::CANCELLED},
                             {"UNKNOWN", StatusCode::UNKNOWN},
                             {"INVALID_ARGUMENT", StatusCode::INVALID_ARGUMENT},
                             {"DEADLINE_EXCEEDED", StatusCode::DEADLINE_EXCEEDED},
                             {"NOT_FOUND", StatusCode::NOT_FOUND},
                             {"ALREADY_EXISTS", StatusCode::ALREADY_EXISTS},
                             {"PERMISSION_DENIED", StatusCode::PERMISSION_DENIED},
                             {"RESOURCE_EXHAUSTED", StatusCode::RESOURCE_EXHAUSTED},
                             {"FAILED_PRECONDITION", StatusCode::FAILED_PRECONDITION},
                             {"ABORTED", StatusCode::ABORTED},
                             {"OUT_OF_RANGE", StatusCode::OUT_OF_RANGE},
                             {"UNIMPLEMENTED", StatusCode::UNIMPLEMENTED},
                             {"INTERNAL", StatusCode::INTERNAL},
                             {"UNAVAILABLE", StatusCode::UNAVAILABLE},
                             {"DATA_LOSS", StatusCode::DATA_LOSS},
                             {"UNAUTHENTICATED", StatusCode::UNAUTHENTICATED},
                         }),
                         [](const auto& test) { return test.param.name; });

TEST_P(EachStatus, CanEndAStream) {
  SimProcess sim;
  RawCall call(sim.metersTarget(), fastPath);
  sim.waitEvent("open fast 1 ");
  sim.command("end fast " + GetParam().name);
  EXPECT_EQ(replyTo(call), (Reply{GetParam().code, {}}));
  EXPECT_EQ(sim.waitEvent("closed"), "closed fast 1 ended");
}

TEST_F(ObeyingSim, AnswersSetParamsWithAnEmptyMessageAtFirst) {
  EXPECT_EQ(setParams(sim.engineTarget(), "\x0a"), (Reply{StatusCode::OK, {""}}));
  EXPECT_EQ(sim.waitEvent("SetParams"), "SetParams 1 0a deadline=none metadata=-");
  EXPECT_EQ(sim.waitEvent("closed"), "closed SetParams 1 replied");
  EXPECT_FALSE(sim.hasEvent("sent"));
}

TEST_F(ObeyingSim, ReportsDeadlineAndMetadataOfSetParams) {
  RawCall call(sim.engineTarget(), setParamsPath, "", [](auto& context) {
    context.set_deadline(std::chrono::system_clock::now() + patience);
    context.AddMetadata("x-key", "value");
  });
  EXPECT_EQ(sim.waitEvent("SetParams"), "SetParams 1 - deadline=set metadata=x-key");
}

TEST_F(ObeyingSim, AnswersSetParamsWithTheGivenBytes) {
  sim.command("engine reply ff00");
  const Reply reply{StatusCode::OK, {std::string("\xff\0", 2)}};
  EXPECT_EQ(setParams(sim.engineTarget()), reply);
  EXPECT_EQ(setParams(sim.engineTarget()), reply);
}

TEST_F(ObeyingSim, AnswersGeneratedStubs) {
  sonalith::grpcengine::ResponseSetParams reply;
  reply.add_params()->set_key("gain");
  sim.command("engine reply " + toHex(reply));
  auto stub = sonalith::grpcengine::Engine::NewStub(connect(sim.engineTarget()));
  grpc::ClientContext context;
  sonalith::grpcengine::ResponseSetParams received;
  EXPECT_TRUE(stub->SetParams(&context, {}, &received).ok());
  EXPECT_EQ(received.SerializeAsString(), reply.SerializeAsString());
}

TEST_F(ObeyingSim, FailsSetParamsWithTheGivenStatus) {
  sim.command("engine fail PERMISSION_DENIED");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::PERMISSION_DENIED, {}}));
  EXPECT_EQ(sim.waitEvent("closed"), "closed SetParams 1 replied");
  sim.command("engine reply -");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
}

TEST_F(ObeyingSim, HoldsSetParamsUntilTheRelease) {
  sim.command("engine reply 07");
  sim.command("engine hold");
  RawCall first(sim.engineTarget(), setParamsPath);
  sim.waitEvent("SetParams 1 ");
  RawCall second(sim.engineTarget(), setParamsPath);
  sim.waitEvent("SetParams 2 ");
  EXPECT_FALSE(sim.hasEvent("closed"));
  sim.command("engine release");
  EXPECT_EQ(replyTo(first), (Reply{StatusCode::OK, {"\x07"}}));
  EXPECT_EQ(replyTo(second), (Reply{StatusCode::OK, {"\x07"}}));
  sim.waitEvent("closed SetParams 1 replied");
  sim.waitEvent("closed SetParams 2 replied");
}

TEST_F(ObeyingSim, KeepsHoldingAfterARelease) {
  sim.command("engine hold");
  sim.command("engine release");
  RawCall call(sim.engineTarget(), setParamsPath);
  sim.waitEvent("SetParams 1 ");
  sim.command("engine hold");
  call.cancel();
  EXPECT_EQ(sim.waitEvent("closed"), "closed SetParams 1 cancelled");
}

TEST_F(ObeyingSim, StopsHoldingAfterAReplyCommand) {
  sim.command("engine hold");
  sim.command("engine reply 07");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {"\x07"}}));
}

TEST_F(ObeyingSim, KeepsHeldCallsWhenLaterCallsAreAnswered) {
  sim.command("engine hold");
  RawCall held(sim.engineTarget(), setParamsPath);
  sim.waitEvent("SetParams 1 ");
  sim.command("engine fail UNAVAILABLE");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::UNAVAILABLE, {}}));
  EXPECT_FALSE(sim.hasEvent("closed SetParams 1 "));
  sim.command("engine release");
  EXPECT_EQ(replyTo(held), (Reply{StatusCode::UNAVAILABLE, {}}));
}

TEST_F(ObeyingSim, ReportsThatAClientCancelledAHeldCall) {
  sim.command("engine hold");
  RawCall call(sim.engineTarget(), setParamsPath);
  sim.waitEvent("SetParams 1 ");
  call.cancel();
  EXPECT_EQ(sim.waitEvent("closed"), "closed SetParams 1 cancelled");
  sim.command("engine release");
  EXPECT_FALSE(sim.hasEvent("error"));
}

// ---- Wrong commands ----------------------------------------------------------------------

struct WrongCommand {
  std::string name;
  std::string line;
  std::string error;
};

class EachWrongCommand : public testing::TestWithParam<WrongCommand> {};

INSTANTIATE_TEST_SUITE_P(
    , EachWrongCommand,
    testing::ValuesIn(std::vector<WrongCommand>{
        {"Unknown", "sned fast 00",
         "error unknown command \"sned fast 00\". The commands are send, stop, end, engine reply, "
         "engine fail, engine hold, engine release, sync, quit"},
        {"UnknownEngineCommand", "engine explode",
         "error unknown command \"engine explode\". The commands are send, stop, end, engine "
         "reply, "
         "engine fail, engine hold, engine release, sync, quit"},
        {"TooFewWords", "send fast", "error usage: send fast|slow HEX|- [TIMES]"},
        {"TooManyWords", "stop fast now", "error usage: stop fast|slow"},
        {"OddHex", "send fast 0a0",
         "error \"0a0\" is not hexadecimal. Use pairs of the digits 0-9 and a-f, or - for no "
         "bytes"},
        {"BadHex", "send fast 0g",
         "error \"0g\" is not hexadecimal. Use pairs of the digits 0-9 and a-f, or - for no bytes"},
        {"ControlCharacters", "end fast \x1b[1m",
         "error \"\\x1b[1m\" is not a status. Use one of: OK CANCELLED UNKNOWN INVALID_ARGUMENT "
         "DEADLINE_EXCEEDED NOT_FOUND ALREADY_EXISTS PERMISSION_DENIED RESOURCE_EXHAUSTED "
         "FAILED_PRECONDITION ABORTED OUT_OF_RANGE UNIMPLEMENTED INTERNAL UNAVAILABLE DATA_LOSS "
         "UNAUTHENTICATED"},
        {"BadReply", "engine reply x",
         "error \"x\" is not hexadecimal. Use pairs of the digits 0-9 and a-f, or - for no bytes"},
        {"BadTimes", "send fast 00 -1",
         "error \"-1\" is not a number of times. Use digits; 0 means without end"},
        {"BadStatus", "engine fail Ok",
         "error \"Ok\" is not a status. Use one of: OK CANCELLED UNKNOWN INVALID_ARGUMENT "
         "DEADLINE_EXCEEDED NOT_FOUND ALREADY_EXISTS PERMISSION_DENIED RESOURCE_EXHAUSTED "
         "FAILED_PRECONDITION ABORTED OUT_OF_RANGE UNIMPLEMENTED INTERNAL UNAVAILABLE DATA_LOSS "
         "UNAUTHENTICATED"},
        {"BadStream", "send SetParams 00", "error \"SetParams\" is not a stream. Use fast or slow"},
        {"SendWithoutStream", "send fast 00", "error no fast stream is open"},
        {"StopWithoutStream", "stop slow", "error no slow stream is open"},
        {"EndWithoutStream", "end fast OK", "error no fast stream is open"},
    }),
    [](const auto& test) { return test.param.name; });

TEST_P(EachWrongCommand, IsReportedAndTheProgramContinues) {
  SimProcess sim;
  sim.command(GetParam().line);
  EXPECT_EQ(sim.waitEvent("error"), GetParam().error);
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
}

TEST_F(ObeyingSim, IgnoresEmptyLinesAndExtraBlanks) {
  sim.command("");
  sim.command("   ");
  sim.command("\tengine  reply   05 \r");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {"\x05"}}));
  EXPECT_FALSE(sim.hasEvent("error"));
}

}  // namespace
