// The meter side: its messages on the wire, and its service.
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>

#include "common.pb.h"
#include "meters.grpc.pb.h"
#include "tests/proto/service_calls.h"
#include "tests/proto/wire.h"

namespace {

using sonalith::common::Empty;
using sonalith::grpc::AnyValue;
using sonalith::grpc::KeyValue;
using sonalith::grpc::Meter;
using sonalith::grpc::Meters;
using sonalith::grpc::String;
using wire::expectUnknown;
using wire::expectUnknownFrom;
using wire::isReadable;
using wire::read;
using wire::rewritten;
using wire::shown;
using wire::shownPair;
using wire::written;
using Texts = std::vector<std::string>;

static_assert(wire::isLite<Empty>);
static_assert(wire::isLite<Meter>);
static_assert(wire::isLite<String>);

Texts shownPairs(const Meter& meter) {
  Texts pairs;
  for (const KeyValue& pair : meter.values()) pairs.push_back(shownPair(pair));
  return pairs;
}

TEST(MetersWire, MessagesAreNamedByTheirPackage) {
  EXPECT_EQ(Empty().GetTypeName(), "sonalith.common.Empty");
  EXPECT_EQ(Meter().GetTypeName(), "sonalith.grpc.Meter");
  EXPECT_EQ(String().GetTypeName(), "sonalith.grpc.String");
}

TEST(MetersWire, EmptyHasNoBytes) {
  EXPECT_EQ(written(Empty()), "");
  EXPECT_EQ(rewritten<Empty>(""), "");
  expectUnknownFrom<Empty>(1);
}

// ---- String -------------------------------------------------------------------------------------

TEST(MetersWire, AStringIsOneField) {
  EXPECT_EQ(read<String>("0A 02 68 69").data(), "hi");
  EXPECT_EQ(rewritten<String>("0A 02 68 69"), "0A 02 68 69");
  EXPECT_EQ(rewritten<String>("0A 01 61 0A 01 62"), "0A 01 62");
  for (const int wireType : {0, 1, 5}) expectUnknown<String>(1, wireType);
  expectUnknownFrom<String>(2);
}

TEST(MetersWire, AnEmptyStringWritesNothing) {
  EXPECT_EQ(written(String()), "");
  EXPECT_EQ(rewritten<String>("0A 00"), "");
}

TEST(MetersWire, AStringMustBeUtf8ToBeRead) {
  const wire::ErrorLog log;
  EXPECT_EQ(read<String>("0A 03 E2 82 AC").data(), "\xE2\x82\xAC");
  EXPECT_FALSE(isReadable<String>("0A 01 80"));
  EXPECT_FALSE(isReadable<String>("0A 02 E2 82"));
}

TEST(MetersWire, AStringThatIsNotUtf8IsReportedButWritten) {
  const wire::ErrorLog log;
  String text;
  text.set_data("a\xFF");
  EXPECT_EQ(written(text), "0A 02 61 FF");
  EXPECT_EQ(log.fields(), Texts{"sonalith.grpc.String.data"});
}

// ---- The text member ----------------------------------------------------------------------------

TEST(MetersWire, ATextIsWrappedInAMessage) {
  KeyValue pair;
  pair.set_key("a");
  pair.mutable_value()->mutable_sstring()->set_data("hi");
  EXPECT_EQ(written(pair), "0A 01 61 12 06 0A 04 0A 02 68 69");
  EXPECT_EQ(shownPair(read<KeyValue>("0A 01 61 12 06 0A 04 0A 02 68 69")),
            "\"a\": 1 sstring String \"hi\"");
}

TEST(MetersWire, AnEmptyTextIsStillSet) {
  AnyValue value;
  value.mutable_sstring();
  EXPECT_EQ(written(value), "0A 00");
  EXPECT_EQ(shown(read<AnyValue>("0A 00")), "1 sstring String \"\"");
  EXPECT_EQ(rewritten<AnyValue>("0A 02 0A 00"), "0A 00");
}

// Like all messages: an empty second one changes nothing.
TEST(MetersWire, TwoTextsMerge) {
  EXPECT_EQ(shown(read<AnyValue>("0A 03 0A 01 61 0A 03 0A 01 62")), "1 sstring String \"b\"");
  EXPECT_EQ(shown(read<AnyValue>("0A 03 0A 01 61 0A 00")), "1 sstring String \"a\"");
}

TEST(MetersWire, ALaterMemberReplacesAText) {
  EXPECT_EQ(shown(read<AnyValue>("0A 03 0A 01 61 18 05")), "3 sint 5");
  EXPECT_EQ(shown(read<AnyValue>("18 05 0A 03 0A 01 61")), "1 sstring String \"a\"");
}

// ---- Meter --------------------------------------------------------------------------------------

TEST(MetersWire, AMeterHoldsAPair) {
  Meter meter;
  KeyValue& pair = *meter.add_values();
  pair.set_key("gain");
  pair.mutable_value()->set_sfloat(0.5F);
  EXPECT_EQ(written(meter), "0A 0D 0A 04 67 61 69 6E 12 05 15 00 00 00 3F");
  EXPECT_EQ(shownPairs(read<Meter>("0A 0D 0A 04 67 61 69 6E 12 05 15 00 00 00 3F")),
            Texts{"\"gain\": 2 sfloat 0.5"});
}

TEST(MetersWire, AMeterIsABatchInOrder) {
  const std::string batch = "0A 07 0A 01 62 12 02 18 05 0A 07 0A 01 61 12 02 20 06 0A 00";
  EXPECT_EQ(shownPairs(read<Meter>(batch)),
            (Texts{"\"b\": 3 sint 5", "\"a\": 4 suint 6", "\"\": absent"}));
  EXPECT_EQ(rewritten<Meter>(batch), batch);
}

TEST(MetersWire, AnEmptyMeterHasNoBytes) {
  EXPECT_EQ(written(Meter()), "");
  EXPECT_EQ(shownPairs(read<Meter>("")), Texts{});
}

TEST(MetersWire, AMeterHasNoFieldsButItsPairs) {
  for (const int wireType : {0, 1, 5}) expectUnknown<Meter>(1, wireType);
  expectUnknownFrom<Meter>(2);
  EXPECT_EQ(rewritten<Meter>("10 05 08 06 0A 03 0A 01 61"), "0A 03 0A 01 61 10 05 08 06");
}

TEST(MetersWire, OneBadStringMakesTheWholeMeterUnreadable) {
  const wire::ErrorLog log;
  EXPECT_TRUE(isReadable<Meter>("0A 03 0A 01 61 0A 09 0A 01 61 12 04 0A 02 0A 00"));
  EXPECT_FALSE(isReadable<Meter>("0A 03 0A 01 61 0A 03 0A 01 FF"));
  EXPECT_FALSE(isReadable<Meter>("0A 0A 0A 01 61 12 05 0A 03 0A 01 FF"));
}

// ---- Service ------------------------------------------------------------------------------------

using Reader = std::unique_ptr<grpc::ClientAsyncReader<Meter>>;
using Prepare = Reader (Meters::Stub::*)(grpc::ClientContext*, const Empty&,
                                         grpc::CompletionQueue*);
static_assert(std::is_base_of_v<Meters::StubInterface, Meters::Stub>);
static_assert(std::is_same_v<decltype(&Meters::Stub::PrepareAsyncGetMetersFast), Prepare>);
static_assert(std::is_same_v<decltype(&Meters::Stub::PrepareAsyncGetMetersSlow), Prepare>);

TEST(MetersService, IsNamedByItsPackage) {
  EXPECT_EQ(std::string(Meters::service_full_name()), "sonalith.grpc.Meters");
}

TEST(MetersService, AStubRegistersFastThenSlow) {
  const auto channel = std::make_shared<RecordingChannel>();
  const auto stub = Meters::NewStub(channel);
  EXPECT_EQ(channel->registered(),
            (Texts{"/sonalith.grpc.Meters/GetMetersFast", "/sonalith.grpc.Meters/GetMetersSlow"}));
}

TEST(MetersService, BothMethodsStreamFromTheServer) {
  const auto stub = Meters::NewStub(std::make_shared<RecordingChannel>());
  grpc::ClientContext context;
  grpc::CompletionQueue queue;
  EXPECT_EQ(methodOf([&] { stub->PrepareAsyncGetMetersFast(&context, Empty(), &queue); }),
            "/sonalith.grpc.Meters/GetMetersFast server streaming");
  EXPECT_EQ(methodOf([&] { stub->PrepareAsyncGetMetersSlow(&context, Empty(), &queue); }),
            "/sonalith.grpc.Meters/GetMetersSlow server streaming");
}

TEST(MetersService, BothMethodsReachTheirPathsWithAnEmptyMessage) {
  RecordingServer server;
  const auto stub = Meters::NewStub(server.channel());
  Meter meter;
  grpc::ClientContext fast;
  EXPECT_FALSE(stub->GetMetersFast(&fast, Empty())->Read(&meter));
  grpc::ClientContext slow;
  EXPECT_FALSE(stub->GetMetersSlow(&slow, Empty())->Read(&meter));
  EXPECT_EQ(server.calls(), (Texts{"/sonalith.grpc.Meters/GetMetersFast: ",
                                   "/sonalith.grpc.Meters/GetMetersSlow: "}));
}

}  // namespace
