// The simulator as its users meet it: the built program, over real connections. Signals, which are
// pure, are tested by themselves.
#include <arpa/inet.h>
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/security/credentials.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "engine.grpc.pb.h"
#include "meters.grpc.pb.h"
#include "tests/support/SimProcess.h"
#include "tools/sim/Signals.h"

namespace {

using grpc::StatusCode;
using testing::Test;
using Lines = std::vector<std::string>;

// Messages that can't all be written before the client reads.
constexpr std::size_t mebibyte = 1 << 20;
constexpr int moreThanIsSentUnread = 16;

std::vector<std::string> unreadMessages() {
  return std::vector<std::string>(moreThanIsSentUnread, std::string(mebibyte, 'x'));
}

std::string sendUnreadMessages() {
  return "send fast " + toHex(std::string(mebibyte, 'x')) + " " +
         std::to_string(moreThanIsSentUnread);
}

constexpr auto fastPath = "/sonalith.grpc.Meters/GetMetersFast";
constexpr auto slowPath = "/sonalith.grpc.Meters/GetMetersSlow";
constexpr auto setParamsPath = "/sonalith.grpcengine.Engine/SetParams";

std::shared_ptr<grpc::Channel> connect(const std::string& target,
                                       grpc::ChannelArguments arguments = {}) {
  arguments.SetMaxReceiveMessageSize(-1);
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

grpc::ByteBuffer bufferOf(const std::string& bytes) {
  const grpc::Slice slice(bytes);
  return {&slice, 1};
}

std::string bytesOf(const grpc::ByteBuffer& buffer) {
  grpc::Slice slice;
  if (!buffer.DumpToSingleSlice(&slice).ok()) throw std::runtime_error("no bytes in a message");
  return {reinterpret_cast<const char*>(slice.begin()), slice.size()};
}

// A call of any method, with any bytes, one step at a time.
class RawCall {
 public:
  using Prepare = std::function<void(grpc::ClientContext&)>;

  RawCall(const std::string& target, const std::string& path, const std::string& request = "",
          const Prepare& prepare = nullptr)
      : RawCall(connect(target), path, request, prepare) {}

  RawCall(const std::shared_ptr<grpc::Channel>& channel, const std::string& path,
          const std::string& request = "", const Prepare& prepare = nullptr)
      : stub_(channel) {
    if (prepare) prepare(context_);
    call_ = stub_.PrepareCall(&context_, path, &queue_);
    call_->StartCall(this);
    if (!step()) return;
    call_->WriteLast(bufferOf(request), {}, this);
    step();
  }

  ~RawCall() {
    context_.TryCancel();
    queue_.Shutdown();
  }

  // The next message, or nothing at the end of the call.
  std::optional<std::string> read() {
    grpc::ByteBuffer message;
    call_->Read(&message, this);
    if (!step()) return std::nullopt;
    return bytesOf(message);
  }

  StatusCode finish() {
    grpc::Status status;
    call_->Finish(&status, this);
    step();
    return status.error_code();
  }

  // Reads to the end.
  std::vector<std::string> readAll() {
    std::vector<std::string> messages;
    while (auto message = read()) messages.push_back(std::move(*message));
    return messages;
  }

  void cancel() { context_.TryCancel(); }

 private:
  bool step() {
    void* tag = nullptr;
    bool ok = false;
    const auto deadline = std::chrono::system_clock::now() + patience;
    if (queue_.AsyncNext(&tag, &ok, deadline) != grpc::CompletionQueue::GOT_EVENT) {
      throw std::runtime_error("nothing happens on the client's side");
    }
    return ok;
  }

  grpc::GenericStub stub_;
  grpc::CompletionQueue queue_;
  grpc::ClientContext context_;
  std::unique_ptr<grpc::GenericClientAsyncReaderWriter> call_;
};

// What a unary call came to.
struct Reply {
  StatusCode code;
  std::vector<std::string> messages;

  bool operator==(const Reply&) const = default;
};

std::ostream& operator<<(std::ostream& out, const Reply& reply) {
  out << "status " << reply.code;
  for (const auto& message : reply.messages) out << ' ' << toHex(message);
  return out;
}

Reply replyTo(RawCall& call) {
  auto messages = call.readAll();
  return {call.finish(), std::move(messages)};
}

Reply setParams(const std::string& target, const std::string& request = "") {
  RawCall call(target, setParamsPath, request);
  return replyTo(call);
}

// Lines of standard output but for the first ones, which tell the addresses.
Lines linesFrom(std::ptrdiff_t first, const ToolProcess& process) {
  const auto lines = process.lines();
  return {lines.begin() + first, lines.end()};
}

// ---- Obeying: streams -----------------------------------------------------------------------

class ObeyingSim : public Test {
 protected:
  RawCall fastCall() { return {sim.metersTarget(), fastPath}; }
  RawCall slowCall() { return {sim.metersTarget(), slowPath}; }

  SimProcess sim;
};

TEST_F(ObeyingSim, tellsOfAStreamWithNothingButItsArrival) {
  auto call = fastCall();
  EXPECT_EQ(sim.waitEvent("open"), "open fast 1 - deadline=none metadata=-");
}

TEST_F(ObeyingSim, tellsRequestDeadlineAndMetadataOfACall) {
  RawCall call(sim.metersTarget(), slowPath, std::string("\x0a\x00\xff", 3), [](auto& context) {
    context.set_deadline(std::chrono::system_clock::now() + patience);
    context.AddMetadata("x-two", "a");
    context.AddMetadata("x-one", "b");
    context.AddMetadata("x-two", "c");
  });
  EXPECT_EQ(sim.waitEvent("open"), "open slow 1 0a00ff deadline=set metadata=x-one,x-two");
}

TEST_F(ObeyingSim, countsCallsOfEachMethodFromOne) {
  auto first = fastCall();
  EXPECT_EQ(sim.waitEvent("open"), "open fast 1 - deadline=none metadata=-");
  auto second = fastCall();
  EXPECT_EQ(sim.waitEvent("open"), "open fast 2 - deadline=none metadata=-");
  auto third = slowCall();
  EXPECT_EQ(sim.waitEvent("open"), "open slow 1 - deadline=none metadata=-");
}

TEST_F(ObeyingSim, holdsManyStreamsAtOnce) {
  constexpr int many = 40;
  std::vector<std::unique_ptr<RawCall>> calls;
  for (int number = 1; number <= many; ++number) {
    calls.push_back(std::make_unique<RawCall>(sim.metersTarget(), fastPath));
    sim.waitEvent("open fast " + std::to_string(number) + " ");
  }
  EXPECT_FALSE(sim.hasEvent("closed"));
}

TEST_F(ObeyingSim, sendsBytesAsTheyAre) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 0a0D0a04");
  EXPECT_EQ(call.read(), "\x0a\x0d\x0a\x04");
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 1");
}

TEST_F(ObeyingSim, sendsAMessageWithoutBytes) {
  auto call = slowCall();
  sim.waitEvent("open slow 1 ");
  sim.command("send slow -");
  EXPECT_EQ(call.read(), "");
  EXPECT_EQ(sim.waitEvent("sent"), "sent slow 1 1");
}

TEST_F(ObeyingSim, sendsWhatCannotBeParsed) {
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

TEST_F(ObeyingSim, sendsWhatGeneratedStubsRead) {
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

TEST_F(ObeyingSim, sendsMoreThanClientsAcceptByDefault) {
  constexpr std::size_t fiveMebibytes = 5 << 20;
  const std::string large(fiveMebibytes, 'x');
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast " + toHex(large));
  EXPECT_TRUE(call.read() == large);
}

TEST_F(ObeyingSim, sendsAMessageManyTimes) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 01 3");
  sim.command("send fast 02");
  sim.command("end fast OK");
  EXPECT_EQ(call.readAll(), (Lines{"\x01", "\x01", "\x01", "\x02"}));
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 3");
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 1");
}

TEST_F(ObeyingSim, sendsOnUntilStopped) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 01 0");
  constexpr int enoughToBelieveIt = 1000;
  for (int i = 0; i < enoughToBelieveIt; ++i) ASSERT_EQ(call.read(), "\x01");
  sim.command("stop fast");
  sim.command("send fast 02");
  std::size_t count = enoughToBelieveIt;
  while (call.read() == "\x01") ++count;
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 " + std::to_string(count));
  EXPECT_EQ(sim.waitEvent("sent"), "sent fast 1 1");
}

TEST_F(ObeyingSim, stopLetsGoOfAllThatWaits) {
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

TEST_F(ObeyingSim, sendsOnUntilTheClientCancels) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command("send fast 01 0");
  ASSERT_EQ(call.read(), "\x01");
  call.cancel();
  EXPECT_EQ(sim.waitEvent("closed"), "closed fast 1 cancelled");
  EXPECT_TRUE(sim.hasEvent("sent fast 1 "));
}

TEST_F(ObeyingSim, sendsOnUntilItIsToldToEnd) {
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

TEST_F(ObeyingSim, sendsToTheNewestCallThatIsOpen) {
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

TEST_F(ObeyingSim, sendsToTheStreamOfTheNameOnly) {
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

TEST_F(ObeyingSim, doesNotBlockOnAClientThatDoesNotRead) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command(sendUnreadMessages());
  sim.command("end fast OK");
  EXPECT_FALSE(sim.hasEvent("sent"));
  EXPECT_TRUE(call.readAll() == unreadMessages());
}

TEST_F(ObeyingSim, aCallThatIsEndingIsNotOpenAnyMore) {
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

TEST_F(ObeyingSim, tellsWhenAClientCancels) {
  auto call = slowCall();
  sim.waitEvent("open slow 1 ");
  call.cancel();
  EXPECT_EQ(sim.waitEvent("closed"), "closed slow 1 cancelled");
  EXPECT_EQ(call.finish(), StatusCode::CANCELLED);
}

TEST_F(ObeyingSim, aCancelledCallIsNotOpenAnyMore) {
  auto call = slowCall();
  sim.waitEvent("open slow 1 ");
  call.cancel();
  sim.waitEvent("closed slow 1 ");
  sim.command("send slow 01");
  EXPECT_EQ(sim.waitEvent("error"), "error no open slow stream");
}

// A parameter of tests shows its name, here and below.
template <typename Named>
std::enable_if_t<std::is_same_v<decltype(Named::name), std::string>, std::ostream&> operator<<(
    std::ostream& out, const Named& parameter) {
  return out << parameter.name;
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

TEST_P(EachStatus, endsAStreamByItsName) {
  SimProcess sim;
  RawCall call(sim.metersTarget(), fastPath);
  sim.waitEvent("open fast 1 ");
  sim.command("end fast " + GetParam().name);
  EXPECT_EQ(replyTo(call), (Reply{GetParam().code, {}}));
  EXPECT_EQ(sim.waitEvent("closed"), "closed fast 1 ended");
}

// ---- Obeying: the engine --------------------------------------------------------------------

TEST_F(ObeyingSim, answersSetParamsAtFirstWithNothing) {
  EXPECT_EQ(setParams(sim.engineTarget(), "\x0a"), (Reply{StatusCode::OK, {""}}));
  EXPECT_EQ(sim.waitEvent("SetParams"), "SetParams 1 0a deadline=none metadata=-");
  EXPECT_EQ(sim.waitEvent("closed"), "closed SetParams 1 replied");
  EXPECT_FALSE(sim.hasEvent("sent"));
}

TEST_F(ObeyingSim, tellsDeadlineAndMetadataOfSetParams) {
  RawCall call(sim.engineTarget(), setParamsPath, "", [](auto& context) {
    context.set_deadline(std::chrono::system_clock::now() + patience);
    context.AddMetadata("x-key", "value");
  });
  EXPECT_EQ(sim.waitEvent("SetParams"), "SetParams 1 - deadline=set metadata=x-key");
}

TEST_F(ObeyingSim, answersSetParamsWithTheBytesGiven) {
  sim.command("engine reply ff00");
  const Reply reply{StatusCode::OK, {std::string("\xff\0", 2)}};
  EXPECT_EQ(setParams(sim.engineTarget()), reply);
  EXPECT_EQ(setParams(sim.engineTarget()), reply);
}

TEST_F(ObeyingSim, answersGeneratedStubs) {
  sonalith::grpcengine::ResponseSetParams reply;
  reply.add_params()->set_key("gain");
  sim.command("engine reply " + toHex(reply));
  auto stub = sonalith::grpcengine::Engine::NewStub(connect(sim.engineTarget()));
  grpc::ClientContext context;
  sonalith::grpcengine::ResponseSetParams received;
  EXPECT_TRUE(stub->SetParams(&context, {}, &received).ok());
  EXPECT_EQ(received.SerializeAsString(), reply.SerializeAsString());
}

TEST_F(ObeyingSim, failsSetParamsWithTheStatusGiven) {
  sim.command("engine fail PERMISSION_DENIED");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::PERMISSION_DENIED, {}}));
  EXPECT_EQ(sim.waitEvent("closed"), "closed SetParams 1 replied");
  sim.command("engine reply -");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
}

TEST_F(ObeyingSim, holdsSetParamsUntilTheRelease) {
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

TEST_F(ObeyingSim, holdsOnAfterARelease) {
  sim.command("engine hold");
  sim.command("engine release");
  RawCall call(sim.engineTarget(), setParamsPath);
  sim.waitEvent("SetParams 1 ");
  sim.command("engine hold");
  call.cancel();
  EXPECT_EQ(sim.waitEvent("closed"), "closed SetParams 1 cancelled");
}

TEST_F(ObeyingSim, holdsNoMoreAfterAReply) {
  sim.command("engine hold");
  sim.command("engine reply 07");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {"\x07"}}));
}

TEST_F(ObeyingSim, keepsWhatIsHeldWhenLaterCallsAreAnsweredAgain) {
  sim.command("engine hold");
  RawCall held(sim.engineTarget(), setParamsPath);
  sim.waitEvent("SetParams 1 ");
  sim.command("engine fail UNAVAILABLE");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::UNAVAILABLE, {}}));
  EXPECT_FALSE(sim.hasEvent("closed SetParams 1 "));
  sim.command("engine release");
  EXPECT_EQ(replyTo(held), (Reply{StatusCode::UNAVAILABLE, {}}));
}

TEST_F(ObeyingSim, tellsWhenAClientCancelsAHeldCall) {
  sim.command("engine hold");
  RawCall call(sim.engineTarget(), setParamsPath);
  sim.waitEvent("SetParams 1 ");
  call.cancel();
  EXPECT_EQ(sim.waitEvent("closed"), "closed SetParams 1 cancelled");
  sim.command("engine release");
  EXPECT_FALSE(sim.hasEvent("error"));
}

// ---- Obeying: commands ----------------------------------------------------------------------

struct WrongCommand {
  std::string name;
  std::string line;
  std::string error;
};

class EachWrongCommand : public testing::TestWithParam<WrongCommand> {};

INSTANTIATE_TEST_SUITE_P(
    , EachWrongCommand,
    testing::ValuesIn(std::vector<WrongCommand>{
        {"unknown", "sned fast 00",
         "error unknown command \"sned fast 00\"; commands are send, stop, end, engine reply, "
         "engine fail, engine hold, engine release, sync, quit"},
        {"unknownEngineCommand", "engine explode",
         "error unknown command \"engine explode\"; commands are send, stop, end, engine reply, "
         "engine fail, engine hold, engine release, sync, quit"},
        {"tooFewWords", "send fast", "error usage: send fast|slow HEX|- [TIMES]"},
        {"tooManyWords", "stop fast now", "error usage: stop fast|slow"},
        {"oddHex", "send fast 0a0",
         "error \"0a0\" is not hexadecimal: pairs of the digits 0-9 and a-f, or - for no bytes"},
        {"badHex", "send fast 0g",
         "error \"0g\" is not hexadecimal: pairs of the digits 0-9 and a-f, or - for no bytes"},
        {"controlCharacters", "end fast \x1b[1m",
         "error \"\\x1b[1m\" is not a status; one of: OK CANCELLED UNKNOWN INVALID_ARGUMENT "
         "DEADLINE_EXCEEDED NOT_FOUND ALREADY_EXISTS PERMISSION_DENIED RESOURCE_EXHAUSTED "
         "FAILED_PRECONDITION ABORTED OUT_OF_RANGE UNIMPLEMENTED INTERNAL UNAVAILABLE DATA_LOSS "
         "UNAUTHENTICATED"},
        {"badReply", "engine reply x",
         "error \"x\" is not hexadecimal: pairs of the digits 0-9 and a-f, or - for no bytes"},
        {"badTimes", "send fast 00 -1",
         "error \"-1\" is not a number of times: digits, 0 to go on forever"},
        {"badStatus", "engine fail Ok",
         "error \"Ok\" is not a status; one of: OK CANCELLED UNKNOWN INVALID_ARGUMENT "
         "DEADLINE_EXCEEDED NOT_FOUND ALREADY_EXISTS PERMISSION_DENIED RESOURCE_EXHAUSTED "
         "FAILED_PRECONDITION ABORTED OUT_OF_RANGE UNIMPLEMENTED INTERNAL UNAVAILABLE DATA_LOSS "
         "UNAUTHENTICATED"},
        {"badStream", "send SetParams 00", "error \"SetParams\" is not a stream: fast or slow"},
        {"sendWithoutStream", "send fast 00", "error no open fast stream"},
        {"stopWithoutStream", "stop slow", "error no open slow stream"},
        {"endWithoutStream", "end fast OK", "error no open fast stream"},
    }),
    [](const auto& test) { return test.param.name; });

TEST_P(EachWrongCommand, isToldOfAndTheProgramGoesOn) {
  SimProcess sim;
  sim.command(GetParam().line);
  EXPECT_EQ(sim.waitEvent("error"), GetParam().error);
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
}

TEST_F(ObeyingSim, passesOverEmptyLinesAndBlanks) {
  sim.command("");
  sim.command("   ");
  sim.command("\tengine  reply   05 \r");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {"\x05"}}));
  EXPECT_FALSE(sim.hasEvent("error"));
}

// ---- Addresses ------------------------------------------------------------------------------

TEST_F(ObeyingSim, hasNoOtherMethods) {
  RawCall call(sim.engineTarget(), "/sonalith.grpcengine.Engine/GetParams");
  EXPECT_EQ(replyTo(call), (Reply{StatusCode::UNIMPLEMENTED, {}}));
}

TEST_F(ObeyingSim, servesEachServiceAtItsAddressOnly) {
  EXPECT_NE(sim.metersTarget(), sim.engineTarget());
  EXPECT_EQ(setParams(sim.metersTarget()), (Reply{StatusCode::UNIMPLEMENTED, {}}));
  RawCall call(sim.engineTarget(), fastPath);
  EXPECT_EQ(replyTo(call), (Reply{StatusCode::UNIMPLEMENTED, {}}));
  EXPECT_FALSE(sim.hasEvent("open"));
  EXPECT_FALSE(sim.hasEvent("SetParams"));
}

TEST(Sim, servesBothAtOneAddress) {
  const auto target = unusedTarget();
  SimProcess sim(target, target);
  EXPECT_EQ(sim.metersTarget(), target);
  EXPECT_EQ(sim.engineTarget(), target);
  EXPECT_EQ(setParams(target), (Reply{StatusCode::OK, {""}}));
  RawCall call(target, slowPath);
  EXPECT_EQ(sim.waitEvent("open"), "open slow 1 - deadline=none metadata=-");
}

TEST(Sim, leavesOutAServiceWithoutAddress) {
  ToolProcess sim({"sim", "--commands", "--meters", "", "--engine", "127.0.0.1:0"});
  sim.closeInput();
  EXPECT_EQ(sim.waitExit(), 0);
  ASSERT_EQ(sim.lines().size(), 1u);
  EXPECT_EQ(sim.lines()[0].rfind("engine 127.0.0.1:", 0), 0u);
}

// A connection without gRPC, for what its client does not do.
class RawConnection {
 public:
  explicit RawConnection(const std::string& target) {
    const auto colon = target.find(':');
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::stoi(target.substr(colon + 1))));
    inet_pton(AF_INET, target.substr(0, colon).c_str(), &address.sin_addr);
    const timeval limit{patience.count(), 0};
    setsockopt(socket_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
    if (::connect(socket_, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
      throw std::runtime_error("can't connect to " + target);
    }
  }
  ~RawConnection() { close(socket_); }
  RawConnection(const RawConnection&) = delete;
  RawConnection& operator=(const RawConnection&) = delete;

  void write(const std::string& bytes) {
    if (send(socket_, bytes.data(), bytes.size(), MSG_NOSIGNAL) < 0) {
      throw std::runtime_error("the peer is gone");
    }
  }

  // As many bytes, or fewer if the peer has ended the connection.
  std::string read(std::size_t count) {
    std::string bytes(count, '\0');
    const auto got = recv(socket_, bytes.data(), count, MSG_WAITALL);
    bytes.resize(got < 0 ? 0 : static_cast<std::size_t>(got));
    return bytes;
  }

 private:
  const int socket_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
};

// The type and the flags of the next HTTP/2 frame; both 0 at the end of the connection.
std::pair<int, int> nextFrame(RawConnection& connection) {
  const auto header = connection.read(9);
  if (header.size() < 9) return {0, 0};
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(header[i]); };
  connection.read(static_cast<std::size_t>(byte(0) << 16 | byte(1) << 8 | byte(2)));
  return {byte(3), byte(4)};
}

// Also without a call on the connection.
TEST(Sim, takesPingsAsOftenAsTheyCome) {
  constexpr int many = 50;
  constexpr std::pair pingAnswer(6, 1);
  constexpr int goAwayType = 7;
  SimProcess sim;
  RawConnection connection(sim.metersTarget());
  const std::string emptySettings("\0\0\0\4\0\0\0\0\0", 9);
  const std::string ping = std::string("\0\0\x8\6\0\0\0\0\0", 9) + "12345678";
  connection.write("PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + emptySettings);
  for (int i = 0; i < many; ++i) {
    connection.write(ping);
    std::pair<int, int> frame;
    do {
      frame = nextFrame(connection);
      ASSERT_NE(frame.first, goAwayType);
      ASSERT_NE(frame, std::pair(0, 0)) << "the connection was ended";
    } while (frame != pingAnswer);
  }
}

// ---- Ending ---------------------------------------------------------------------------------

TEST_F(ObeyingSim, endsAtTheEndOfItsInput) {
  EXPECT_EQ(sim.quit(), 0);
}

TEST(Sim, endsAtQuit) {
  ToolProcess sim({"sim", "--commands", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0"});
  sim.writeLine("quit");
  sim.writeLine("sync never");
  EXPECT_EQ(sim.waitExit(), 0);
  EXPECT_FALSE(sim.hasLine("sync"));
}

TEST(Sim, carriesOutALastLineWithoutItsEnd) {
  ToolProcess sim({"sim", "--commands", "--meters", "127.0.0.1:0", "--engine", ""});
  sim.write("sync first\nsync la");
  sim.write("st");
  sim.closeInput();
  EXPECT_EQ(sim.waitExit(), 0);
  EXPECT_EQ(linesFrom(1, sim), (Lines{"sync first", "sync last"}));
}

TEST_F(ObeyingSim, cancelsOpenStreamsWhenItEnds) {
  auto call = fastCall();
  sim.waitEvent("open fast 1 ");
  EXPECT_EQ(sim.quit(), 0);
  EXPECT_EQ(call.read(), std::nullopt);
  EXPECT_NE(call.finish(), StatusCode::OK);
  EXPECT_TRUE(sim.hasEvent("closed fast 1 cancelled"));
}

// What is open does not make it wait, and what is ending is not cut off.
TEST_F(ObeyingSim, letsCallsEndThatAreEnding) {
  auto idle = slowCall();
  sim.waitEvent("open slow 1 ");
  auto ending = fastCall();
  sim.waitEvent("open fast 1 ");
  sim.command(sendUnreadMessages());
  sim.command("end fast DATA_LOSS");
  std::thread quitting([this] { EXPECT_EQ(sim.quit(), 0); });
  const auto idleReply = replyTo(idle);
  const auto endingReply = replyTo(ending);
  quitting.join();
  EXPECT_NE(idleReply.code, StatusCode::OK);
  EXPECT_EQ(endingReply.code, StatusCode::DATA_LOSS);
  EXPECT_TRUE(endingReply.messages == unreadMessages());
}

TEST(Sim, endsByItselfAfterATime) {
  ToolProcess sim({"sim", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0", "--for", "0.01"});
  EXPECT_EQ(sim.waitExit(), 0);
  EXPECT_EQ(sim.lines().size(), 2u);
}

class EachSignal : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(, EachSignal, testing::Values(SIGINT, SIGTERM),
                         [](const auto& test) { return test.param == SIGINT ? "INT" : "TERM"; });

TEST_P(EachSignal, endsAPlayingSimWithItsStreams) {
  ToolProcess sim({"sim", "--meters", "127.0.0.1:0", "--engine", "", "--rate-fast", "1000"});
  const auto target = sim.waitLine("meters ").substr(7);
  RawCall call(target, fastPath);
  ASSERT_EQ(call.read(), "");
  sim.signal(GetParam());
  EXPECT_EQ(sim.waitExit(), 130);
  call.readAll();
  EXPECT_NE(call.finish(), StatusCode::OK);
  SimProcess portIsFree(target, "");
}

TEST_P(EachSignal, endsAnObeyingSimWithAllItsCalls) {
  ToolProcess sim({"sim", "--commands", "--meters", "127.0.0.1:0", "--engine", "127.0.0.1:0"});
  const auto meters = sim.waitLine("meters ").substr(7);
  const auto engine = sim.waitLine("engine ").substr(7);
  sim.writeLine("engine hold");
  sim.writeLine("sync held");
  sim.waitLine("sync held");
  RawCall idle(meters, slowPath);
  sim.waitLine("open slow 1 ");
  RawCall busy(meters, fastPath);
  sim.waitLine("open fast 1 ");
  RawCall held(engine, setParamsPath);
  sim.waitLine("SetParams 1 ");
  sim.writeLine("send fast 01 0");
  EXPECT_EQ(busy.read(), "\x01");
  sim.signal(GetParam());
  EXPECT_EQ(sim.waitExit(), 130);
  EXPECT_TRUE(sim.hasLine("closed slow 1 cancelled"));
  EXPECT_TRUE(sim.hasLine("closed fast 1 cancelled"));
  EXPECT_TRUE(sim.hasLine("closed SetParams 1 cancelled"));
}

// ---- Wrong use ------------------------------------------------------------------------------

std::string lastLineOf(const std::string& text) {
  const auto end = text.find_last_not_of('\n');
  return text.substr(text.rfind('\n', end) + 1, end - text.rfind('\n', end));
}

TEST(Sim, tellsOfABusyPort) {
  SimProcess first;
  const auto& target = first.engineTarget();
  ToolProcess second({"sim", "--meters", "127.0.0.1:0", "--engine", target});
  EXPECT_EQ(second.waitExit(), 1);
  EXPECT_EQ(second.lines(), Lines{});
  EXPECT_EQ(lastLineOf(second.errors()),
            "gatewayctl: can't listen on " + target +
                ": another program has the port, or the address is not one of this machine. End "
                "that program, or choose another address by --engine (port 0 takes any free port)");
}

struct WrongUse {
  std::string name;
  std::vector<std::string> arguments;
  std::string error;
};

class EachWrongUse : public testing::TestWithParam<WrongUse> {};

INSTANTIATE_TEST_SUITE_P(
    , EachWrongUse,
    testing::ValuesIn(std::vector<WrongUse>{
        {"noSubCommand", {}, "A subcommand is required\n"},
        {"unknownOption",
         {"sim", "--speed", "3"},
         "The following arguments were not expected: 3 --speed\n"},
        {"keyWithoutParts",
         {"sim", "--keys", "fast:float"},
         "--keys: \"fast:float\" is not RATE:TYPE:KEY, such as fast:float:out.level\n"},
        {"keyWithoutKey",
         {"sim", "--keys", "fast:float:"},
         "--keys: \"fast:float:\" is not RATE:TYPE:KEY, such as fast:float:out.level\n"},
        {"unknownRate",
         {"sim", "--keys", "fast:float:a", "medium:float:b"},
         "--keys: \"medium\" in \"medium:float:b\" is not a rate: fast or slow\n"},
        {"unknownType",
         {"sim", "--keys", "slow:double:a"},
         "--keys: \"double\" in \"slow:double:a\" is not a type: string, int, uint or float\n"},
        {"addressWithoutPort",
         {"sim", "--meters", "localhost"},
         "--meters: \"localhost\" is not ADDRESS:PORT, such as 127.0.0.1:50005\n"},
        {"portWithoutAddress",
         {"sim", "--engine", ":50006"},
         "--engine: \":50006\" is not ADDRESS:PORT, such as 127.0.0.1:50005\n"},
        {"portTooLarge",
         {"sim", "--engine", "localhost:65536"},
         "--engine: \"localhost:65536\" is not ADDRESS:PORT, such as 127.0.0.1:50005\n"},
        {"rateTooLarge",
         {"sim", "--rate-fast", "10001"},
         "--rate-fast: \"10001\" is not a number from 0 to 10000\n"},
        {"rateNoNumber",
         {"sim", "--rate-slow", "often"},
         "--rate-slow: \"often\" is not a number from 0 to 10000\n"},
        {"rateNan",
         {"sim", "--rate-slow", "nan"},
         "--rate-slow: \"nan\" is not a number from 0 to 10000\n"},
        {"timeNegative",
         {"sim", "--for", "-1"},
         "--for: \"-1\" is not a number from 0 to 1000000000\n"},
        {"nothingToServe",
         {"sim", "--meters", "", "--engine", ""},
         "sim: nothing to serve: give --meters or --engine an address\n"},
        {"commandsAndKeys",
         {"sim", "--commands", "--keys", "fast:float:a"},
         "--keys excludes --commands\n"},
    }),
    [](const auto& test) { return test.param.name; });

TEST_P(EachWrongUse, isToldOfAndGivesTwo) {
  ToolProcess tool(GetParam().arguments);
  EXPECT_EQ(tool.waitExit(), 2);
  EXPECT_EQ(tool.errors(), GetParam().error + "Run with --help for more information.\n");
  EXPECT_EQ(tool.lines(), Lines{});
}

TEST(Sim, helpHasAnExampleToPaste) {
  ToolProcess help({"sim", "--help"});
  EXPECT_EQ(help.waitExit(), 0);
  EXPECT_TRUE(
      help.hasLine("  gatewayctl sim --keys fast:float:out.level \"slow:string:dsp state\""));
}

// ---- Playing --------------------------------------------------------------------------------

// The program in its playing mode.
class PlayingSim {
 public:
  explicit PlayingSim(std::vector<std::string> arguments)
      : process_(withTargets(std::move(arguments))) {
    metersTarget_ = process_.waitLine("meters ").substr(7);
    engineTarget_ = process_.waitLine("engine ").substr(7);
  }

  const std::string& metersTarget() const { return metersTarget_; }
  const std::string& engineTarget() const { return engineTarget_; }
  ToolProcess& process() { return process_; }

 private:
  static std::vector<std::string> withTargets(std::vector<std::string> arguments) {
    arguments.insert(arguments.begin(),
                     {"sim", "--meters", SimProcess::anyPort, "--engine", SimProcess::anyPort});
    return arguments;
  }

  ToolProcess process_;
  std::string metersTarget_;
  std::string engineTarget_;
};

sonalith::grpc::Meter meterOf(const std::optional<std::string>& bytes) {
  sonalith::grpc::Meter meter;
  if (!bytes || !meter.ParseFromString(*bytes)) throw std::runtime_error("no Meter was sent");
  return meter;
}

// The key of each value with the number of the member that is set.
std::vector<std::pair<std::string, int>> keysOf(const sonalith::grpc::Meter& meter) {
  std::vector<std::pair<std::string, int>> keys;
  for (const auto& entry : meter.values()) {
    keys.emplace_back(entry.key(), static_cast<int>(entry.value().value_case()));
  }
  return keys;
}

// Reads on until each of the values has been seen in two states.
bool allValuesMove(RawCall& call) {
  std::map<std::string, std::set<std::string>> states;
  const auto moved = [](const auto& keyStates) { return keyStates.second.size() > 1; };
  do {
    const auto meter = meterOf(call.read());
    for (const auto& entry : meter.values()) {
      states[entry.key()].insert(entry.value().SerializeAsString());
    }
  } while (!std::all_of(states.begin(), states.end(), moved));
  return true;
}

TEST(PlayingSim, playsEachKeyWithItsTypeOnItsStream) {
  PlayingSim sim({"--keys", "fast:float:out.level", "slow:string:dsp state", "fast:string:a:b",
                  "slow:int:frames", "fast:int:i", "slow:uint:mode", "slow:float:in", "--keys",
                  "fast:uint:u"});
  using Value = sonalith::grpc::AnyValue;
  using Keys = std::vector<std::pair<std::string, int>>;
  RawCall fast(sim.metersTarget(), fastPath);
  EXPECT_EQ(keysOf(meterOf(fast.read())), (Keys{{"out.level", Value::kSfloat},
                                                {"a:b", Value::kSstring},
                                                {"i", Value::kSint},
                                                {"u", Value::kSuint}}));
  RawCall slow(sim.metersTarget(), slowPath);
  EXPECT_EQ(keysOf(meterOf(slow.read())), (Keys{{"dsp state", Value::kSstring},
                                                {"frames", Value::kSint},
                                                {"mode", Value::kSuint},
                                                {"in", Value::kSfloat}}));
}

TEST(PlayingSim, playsValuesThatMove) {
  const std::vector<std::string> keys{"fast:float:f", "fast:int:i", "fast:uint:u", "fast:string:s",
                                      "slow:float:f", "slow:int:i", "slow:uint:u", "slow:string:s"};
  std::vector<std::string> arguments{"--rate-fast", "50", "--rate-slow", "20", "--keys"};
  arguments.insert(arguments.end(), keys.begin(), keys.end());
  PlayingSim sim(arguments);
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  EXPECT_TRUE(allValuesMove(fast));
  EXPECT_TRUE(allValuesMove(slow));
}

TEST(PlayingSim, playsEachStreamAtItsOwnRate) {
  PlayingSim sim({"--rate-fast", "200", "--rate-slow", "20"});
  constexpr int messages = 10;
  const auto begin = std::chrono::steady_clock::now();
  RawCall slow(sim.metersTarget(), slowPath);
  for (int i = 0; i < messages; ++i) ASSERT_TRUE(slow.read());
  const std::chrono::duration<double> time = std::chrono::steady_clock::now() - begin;
  // The first comes at the opening, the second with the next tick, and a late tick comes close to
  // the one behind it.
  constexpr int wholePeriods = messages - 3;
  EXPECT_GE(time.count(), wholePeriods / 20.0);
}

TEST(PlayingSim, playsToAllStreamsOfAMethod) {
  PlayingSim sim({"--rate-fast", "200"});
  RawCall one(sim.metersTarget(), fastPath);
  RawCall another(sim.metersTarget(), fastPath);
  for (int i = 0; i < 10; ++i) {
    ASSERT_TRUE(one.read());
    ASSERT_TRUE(another.read());
  }
}

TEST(PlayingSim, isSilentAtRateZero) {
  PlayingSim sim({"--rate-fast", "0", "--rate-slow", "100"});
  RawCall fast(sim.metersTarget(), fastPath);
  RawCall slow(sim.metersTarget(), slowPath);
  for (int i = 0; i < 10; ++i) ASSERT_TRUE(slow.read());
  sim.process().signal(SIGTERM);
  EXPECT_EQ(fast.readAll(), Lines{});
}

TEST(PlayingSim, sendsEmptyMetersWithoutKeys) {
  PlayingSim sim({"--rate-fast", "100"});
  RawCall call(sim.metersTarget(), fastPath);
  for (int i = 0; i < 3; ++i) EXPECT_EQ(call.read(), "");
}

TEST(PlayingSim, passesOverAStreamThatDoesNotRead) {
  const std::string longKey(100000, 'k');
  PlayingSim sim({"--rate-fast", "1000", "--keys", "fast:int:" + longKey});
  RawCall lazy(sim.metersTarget(), fastPath);
  RawCall eager(sim.metersTarget(), fastPath);
  constexpr int messages = 300;
  for (int i = 0; i < messages; ++i) ASSERT_TRUE(eager.read());
  const auto now = meterOf(eager.read()).values(0).value().sint();
  int stale = 0;
  while (meterOf(lazy.read()).values(0).value().sint() < now) ++stale;
  EXPECT_LT(stale, messages / 2);
}

TEST(PlayingSim, showsParametersALineEach) {
  PlayingSim sim({});
  sonalith::grpcengine::RequestSetParams request;
  const auto add = [&](const std::string& key) -> sonalith::grpcengine::AnyValue& {
    auto& param = *request.add_params();
    param.set_key(key);
    return *param.mutable_value();
  };
  add("out.gain").set_sfloat(-6.5F);
  add("tenth").set_sfloat(0.1F);
  add("dsp state").set_sstring("two\nlines \\ and \x7f");
  add("empty").set_sstring("");
  add("count").set_sint(-1);
  add("mode").set_suint(4294967295U);
  add("precise").set_sdouble(0.1);
  add("floats").mutable_afloat()->add_data(1.5F);
  auto& ints = *add("ints").mutable_aint();
  ints.add_data(-1);
  ints.add_data(2);
  add("uints").mutable_auint();
  add("unset");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {""}}));
  EXPECT_EQ(setParams(sim.engineTarget(), request.SerializeAsString()),
            (Reply{StatusCode::OK, {""}}));
  EXPECT_EQ(setParams(sim.engineTarget(), "\xff"), (Reply{StatusCode::OK, {""}}));
  sim.process().waitLine("SetParams 3 ");
  EXPECT_EQ(linesFrom(2, sim.process()),
            (Lines{"SetParams 2 out.gain float -6.5", "SetParams 2 tenth float 0.1",
                   "SetParams 2 dsp state string two\\x0alines \\x5c and \\x7f",
                   "SetParams 2 empty string ", "SetParams 2 count int -1",
                   "SetParams 2 mode uint 4294967295", "SetParams 2 precise double 0.1",
                   "SetParams 2 floats floats 1.5", "SetParams 2 ints ints -1 2",
                   "SetParams 2 uints uints ", "SetParams 2 unset nothing",
                   "SetParams 3 unreadable ff"}));
}

TEST(PlayingSim, logsStreamsThatOpenAndClose) {
  PlayingSim sim({});
  {
    RawCall call(sim.metersTarget(), fastPath);
    call.read();
  }
  sim.process().signal(SIGTERM);
  sim.process().waitExit();
  const auto log = sim.process().errors();
  EXPECT_NE(log.find("gatewayctl sim: fast 1 open from ipv4:127.0.0.1:"), log.npos);
  EXPECT_NE(log.find("\ngatewayctl sim: fast 1 cancelled\n"), log.npos);
}

// ---- Signals --------------------------------------------------------------------------------

using sim::KeySpec;
using sim::Method;
using sim::Signals;
using sim::ValueType;

// A signal's values over a minute, a hundredth of a second apart.
std::vector<sonalith::grpc::AnyValue> minuteOf(const KeySpec& spec, std::uint64_t seed = 1) {
  const Signals signals({spec}, seed);
  std::vector<sonalith::grpc::AnyValue> values;
  for (int i = 0; i < 6000; ++i) {
    values.push_back(meterOf(signals.meterAt(spec.rate, i / 100.0)).values(0).value());
  }
  return values;
}

std::string bytesOf(const std::vector<sonalith::grpc::AnyValue>& values) {
  std::string bytes;
  for (const auto& value : values) bytes += value.SerializeAsString();
  return bytes;
}

const std::vector<ValueType> allTypes{ValueType::String, ValueType::Int, ValueType::Uint,
                                      ValueType::Float};

TEST(Signals, areTheSameWithTheSameSeed) {
  for (const auto type : allTypes) {
    const KeySpec spec{Method::Fast, type, "key"};
    EXPECT_EQ(bytesOf(minuteOf(spec, 5)), bytesOf(minuteOf(spec, 5)));
  }
}

TEST(Signals, areOthersWithAnotherSeed) {
  for (const auto type : allTypes) {
    const KeySpec spec{Method::Fast, type, "key"};
    EXPECT_NE(bytesOf(minuteOf(spec, 5)), bytesOf(minuteOf(spec, 6)));
  }
}

TEST(Signals, differFromKeyToKeyAndFromRateToRate) {
  for (const auto type : allTypes) {
    const auto one = bytesOf(minuteOf({Method::Fast, type, "key1"}));
    EXPECT_NE(one, bytesOf(minuteOf({Method::Fast, type, "key2"})));
    EXPECT_NE(one, bytesOf(minuteOf({Method::Slow, type, "key1"})));
  }
}

TEST(Signals, levelsRiseAndFallBetweenMinusSixtyAndZero) {
  float lowest = 0;
  float highest = -60;
  for (const auto& value : minuteOf({Method::Fast, ValueType::Float, "level"})) {
    ASSERT_GE(value.sfloat(), -60);
    ASSERT_LE(value.sfloat(), 0);
    lowest = std::min(lowest, value.sfloat());
    highest = std::max(highest, value.sfloat());
  }
  EXPECT_LT(lowest, -45);
  EXPECT_GT(highest, -15);
}

TEST(Signals, countersGoUpFiveToTwentyTimesASecond) {
  const auto values = minuteOf({Method::Fast, ValueType::Int, "count"});
  for (std::size_t i = 1; i < values.size(); ++i) {
    const auto step = values[i].sint() - values[i - 1].sint();
    ASSERT_TRUE(step == 0 || step == 1);
  }
  const auto steps = values.back().sint() - values.front().sint();
  EXPECT_GE(steps, 5 * 59);
  EXPECT_LE(steps, 20 * 60);
}

TEST(Signals, countersBeginAgainAfterAMillion) {
  const Signals signals({{Method::Fast, ValueType::Int, "count"}}, 1);
  constexpr double twoDays = 2 * 24 * 3600;
  constexpr double years = 1e9;
  for (const double seconds : {twoDays, years}) {
    const auto count = meterOf(signals.meterAt(Method::Fast, seconds)).values(0).value().sint();
    EXPECT_GE(count, 0);
    EXPECT_LT(count, 1000000);
  }
}

TEST(Signals, statesComeInTurn) {
  std::vector<std::string> texts;
  for (const auto& value : minuteOf({Method::Slow, ValueType::String, "state"})) {
    if (texts.empty() || texts.back() != value.sstring().data()) {
      texts.push_back(value.sstring().data());
    }
  }
  const std::map<std::string, std::string> next{
      {"ready", "running"}, {"running", "muted"}, {"muted", "ready"}};
  for (std::size_t i = 1; i < texts.size(); ++i) EXPECT_EQ(texts[i], next.at(texts[i - 1]));
  EXPECT_GE(texts.size(), 40u);
  EXPECT_LE(texts.size(), 121u);
}

TEST(Signals, uintStatesComeInTurn) {
  std::vector<unsigned> states;
  for (const auto& value : minuteOf({Method::Slow, ValueType::Uint, "state"})) {
    if (states.empty() || states.back() != value.suint()) states.push_back(value.suint());
  }
  for (std::size_t i = 1; i < states.size(); ++i) EXPECT_EQ(states[i], (states[i - 1] + 1) % 4);
  EXPECT_GE(states.size(), 40u);
  EXPECT_LE(states.size(), 121u);
}

TEST(KeySpec, takesAllBehindTheSecondColonForTheKey) {
  EXPECT_EQ(sim::parseKeySpec("slow:uint:a b:c"),
            (KeySpec{Method::Slow, ValueType::Uint, "a b:c"}));
}

// ---- The process as tests use it ------------------------------------------------------------

TEST(SimProcess, dyingTakesItsStreamsAlongAndItComesBackAtTheSamePlace) {
  SimProcess first;
  RawCall call(first.metersTarget(), fastPath);
  first.waitEvent("open fast 1 ");
  first.kill();
  EXPECT_EQ(replyTo(call), (Reply{StatusCode::UNAVAILABLE, {}}));
  SimProcess second(first.metersTarget(), first.engineTarget());
  EXPECT_EQ(second.metersTarget(), first.metersTarget());
  RawCall again(second.metersTarget(), fastPath);
  second.waitEvent("open fast 1 ");
}

TEST(SimProcess, frozenAnswersNothingUntilItThaws) {
  SimProcess sim;
  sim.freeze();
  constexpr auto shortly = std::chrono::milliseconds(100);
  RawCall early(sim.engineTarget(), setParamsPath, "", [&](auto& context) {
    context.set_deadline(std::chrono::system_clock::now() + shortly);
  });
  EXPECT_EQ(replyTo(early).code, StatusCode::DEADLINE_EXCEEDED);
  sim.command("engine reply 01");
  sim.thaw();
  sim.command("engine reply 02");
  EXPECT_EQ(setParams(sim.engineTarget()), (Reply{StatusCode::OK, {"\x02"}}));
}

TEST(SimProcess, frozenCanBeKilledOrLeft) {
  SimProcess killed;
  killed.freeze();
  killed.kill();
  SimProcess left;
  left.freeze();
}

TEST(SimProcess, waitsForEventsOnceAndInTheirOrder) {
  SimProcess sim;
  sim.command("sync a1");
  sim.command("nonsense");
  sim.command("sync a2");
  EXPECT_EQ(sim.waitEvent("sync a"), "sync a1");
  EXPECT_EQ(sim.waitEvent("sync a"), "sync a2");
  EXPECT_EQ(sim.waitEvent("error unknown command").rfind("error unknown command", 0), 0u);
  EXPECT_TRUE(sim.hasEvent("sync a1"));
  EXPECT_FALSE(sim.hasEvent("sync b"));
}

TEST(SimProcess, tellsWhatItSawWhenAnEventCannotComeAnyMore) {
  SimProcess sim("", SimProcess::anyPort);
  sim.command("sync last");
  sim.quit();
  try {
    sim.waitEvent("open");
    FAIL() << "there was an event";
  } catch (const std::runtime_error& error) {
    EXPECT_EQ(error.what(), "gatewayctl: no line \"open\" came; its output so far:\nengine " +
                                sim.engineTarget() + "\nsync last\nsync 1\nand its log:\n");
  }
  EXPECT_THROW(sim.command("sync more"), std::runtime_error);
}

TEST(SimProcess, diesWithTheThreadThatMadeIt) {
  std::unique_ptr<ToolProcess> orphan;
  std::thread([&] {
    orphan = std::make_unique<ToolProcess>(
        std::vector<std::string>{"sim", "--meters", "127.0.0.1:0", "--engine", ""});
    orphan->waitLine("meters ");
  }).join();
  EXPECT_EQ(orphan->waitExit(), 128 + SIGKILL);
}

TEST(FreePort, isOneThatNobodyListensOn) {
  const auto target = unusedTarget();
  EXPECT_EQ(setParams(target).code, StatusCode::UNAVAILABLE);
  SimProcess sim("", target);
  EXPECT_EQ(setParams(target).code, StatusCode::OK);
}

TEST(ToHex, writesTwoDigitsAByteAndADashForNothing) {
  EXPECT_EQ(toHex(std::string_view("\x00\x0f\xa0\xff", 4)), "000fa0ff");
  EXPECT_EQ(toHex(""), "-");
  EXPECT_EQ(toHex(sonalith::grpc::Meter()), "-");
  sonalith::grpc::KeyValue pair;
  pair.set_key("a");
  EXPECT_EQ(toHex(pair), "0a0161");
}

}  // namespace
