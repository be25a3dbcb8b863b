// The engine side: its messages on the wire, and its service.
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>

#include "engine.grpc.pb.h"
#include "tests/proto/service_calls.h"
#include "tests/proto/wire.h"

namespace {

using namespace sonalith::grpcengine;
using wire::expectUnknown;
using wire::expectUnknownFrom;
using wire::isReadable;
using wire::read;
using wire::rewritten;
using wire::shown;
using wire::shownPair;
using wire::written;
using Texts = std::vector<std::string>;

// ---- The text member ----------------------------------------------------------------------------

TEST(EngineWire, ATextIsAPlainString) {
  AnyValue value;
  value.set_sstring("hi");
  EXPECT_EQ(written(value), "0A 02 68 69");
  EXPECT_EQ(shown(read<AnyValue>("0A 02 68 69")), "1 sstring \"hi\"");
}

TEST(EngineWire, AnEmptyTextIsStillSet) {
  AnyValue value;
  value.set_sstring("");
  EXPECT_EQ(written(value), "0A 00");
  EXPECT_EQ(shown(read<AnyValue>("0A 00")), "1 sstring \"\"");
}

TEST(EngineWire, TheLastOfTwoTextsWins) {
  EXPECT_EQ(shown(read<AnyValue>("0A 01 61 0A 01 62")), "1 sstring \"b\"");
  EXPECT_EQ(shown(read<AnyValue>("0A 01 61 0A 00")), "1 sstring \"\"");
}

TEST(EngineWire, ALaterMemberReplacesAText) {
  EXPECT_EQ(shown(read<AnyValue>("0A 01 61 18 05")), "3 sint 5");
  EXPECT_EQ(shown(read<AnyValue>("18 05 0A 01 61")), "1 sstring \"a\"");
}

TEST(EngineWire, ATextMustBeUtf8ToBeRead) {
  const wire::ErrorLog log;
  EXPECT_EQ(shown(read<AnyValue>("0A 02 C3 A4")), "1 sstring \"\xC3\xA4\"");
  EXPECT_FALSE(isReadable<AnyValue>("0A 01 FF"));
  EXPECT_FALSE(isReadable<ResponseSetParams>("0A 05 12 03 0A 01 FF"));
}

TEST(EngineWire, ATextThatIsNotUtf8IsReportedButWritten) {
  const wire::ErrorLog log;
  AnyValue value;
  value.set_sstring("a\xFF");
  EXPECT_EQ(written(value), "0A 02 61 FF");
  EXPECT_EQ(log.fields(), Texts{"sonalith.grpcengine.AnyValue.sstring"});
}

// ---- SetParams ----------------------------------------------------------------------------------

template <class Message>
class EngineParams : public testing::Test {
  static_assert(wire::isLite<Message>);
};

struct MessageNames {
  template <class Message>
  static std::string GetName(int) {
    return std::is_same_v<Message, RequestSetParams> ? "Request" : "Response";
  }
};

using ParamMessages = testing::Types<RequestSetParams, ResponseSetParams>;
TYPED_TEST_SUITE(EngineParams, ParamMessages, MessageNames);

template <class Message>
Texts shownPairs(const Message& message) {
  Texts pairs;
  for (const KeyValue& pair : message.params()) pairs.push_back(shownPair(pair));
  return pairs;
}

TYPED_TEST(EngineParams, HoldANumber) {
  TypeParam message;
  KeyValue& pair = *message.add_params();
  pair.set_key("gain");
  pair.mutable_value()->set_sfloat(0.5F);
  EXPECT_EQ(written(message), "0A 0D 0A 04 67 61 69 6E 12 05 15 00 00 00 3F");
  EXPECT_EQ(shownPairs(read<TypeParam>("0A 0D 0A 04 67 61 69 6E 12 05 15 00 00 00 3F")),
            Texts{"\"gain\": 2 sfloat 0.5"});
}

TYPED_TEST(EngineParams, HoldAText) {
  TypeParam message;
  KeyValue& pair = *message.add_params();
  pair.set_key("a");
  pair.mutable_value()->set_sstring("hi");
  EXPECT_EQ(written(message), "0A 09 0A 01 61 12 04 0A 02 68 69");
  EXPECT_EQ(shownPairs(read<TypeParam>("0A 09 0A 01 61 12 04 0A 02 68 69")),
            Texts{"\"a\": 1 sstring \"hi\""});
}

TYPED_TEST(EngineParams, KeepTheOrderOfPairs) {
  const std::string pairs = "0A 07 0A 01 62 12 02 18 05 0A 07 0A 01 61 12 02 20 06 0A 00";
  EXPECT_EQ(shownPairs(read<TypeParam>(pairs)),
            (Texts{"\"b\": 3 sint 5", "\"a\": 4 suint 6", "\"\": absent"}));
  EXPECT_EQ(rewritten<TypeParam>(pairs), pairs);
}

TYPED_TEST(EngineParams, HaveNoBytesWithoutPairs) {
  EXPECT_EQ(written(TypeParam()), "");
  EXPECT_EQ(shownPairs(read<TypeParam>("")), Texts{});
}

TYPED_TEST(EngineParams, HaveNoFieldsButTheirPairs) {
  for (const int wireType : {0, 1, 5}) expectUnknown<TypeParam>(1, wireType);
  expectUnknownFrom<TypeParam>(2);
  EXPECT_EQ(rewritten<TypeParam>("10 05 08 06 0A 03 0A 01 61"), "0A 03 0A 01 61 10 05 08 06");
}

TYPED_TEST(EngineParams, AreUnreadableWithOneBadString) {
  const wire::ErrorLog log;
  EXPECT_FALSE(isReadable<TypeParam>("0A 03 0A 01 61 0A 03 0A 01 FF"));
}

// ---- MeterType ----------------------------------------------------------------------------------

// The configuration uses the same numbers.
static_assert(METER_SLOW == 0);
static_assert(METER_FAST == 1);
static_assert(MeterType_MIN == METER_SLOW);
static_assert(MeterType_MAX == METER_FAST);

TEST(EngineWire, MeterTypeHasTwoNumbers) {
  EXPECT_EQ(MeterType_Name(METER_SLOW), "METER_SLOW");
  EXPECT_EQ(MeterType_Name(METER_FAST), "METER_FAST");
  EXPECT_FALSE(MeterType_IsValid(-1));
  EXPECT_TRUE(MeterType_IsValid(0));
  EXPECT_TRUE(MeterType_IsValid(1));
  EXPECT_FALSE(MeterType_IsValid(2));
}

// ---- Service ------------------------------------------------------------------------------------

static_assert(std::is_base_of_v<Engine::StubInterface, Engine::Stub>);
static_assert(std::is_same_v<decltype(&Engine::Stub::PrepareAsyncSetParams),
                             std::unique_ptr<grpc::ClientAsyncResponseReader<ResponseSetParams>> (
                                 Engine::Stub::*)(grpc::ClientContext*, const RequestSetParams&,
                                                  grpc::CompletionQueue*)>);

// Passes the blocking form of every method of a stub to `call`, in the order of declaration.
template <class Call>
void forEachMethod(Call call) {
  call(&Engine::Stub::GetParams);
  call(&Engine::Stub::SetParams);
  call(&Engine::Stub::SetExitCode);
  call(&Engine::Stub::RequestStop);
  call(&Engine::Stub::GetIsRunning);
  call(&Engine::Stub::GetRefreshMeter);
  call(&Engine::Stub::SetRefreshMeter);
  call(&Engine::Stub::GetDriverFrameRate);
  call(&Engine::Stub::GetDriverFrameNumber);
  call(&Engine::Stub::GetDriverXRun);
  call(&Engine::Stub::GetDriverName);
  call(&Engine::Stub::GetDriverCPUUsage);
  call(&Engine::Stub::CreateModule);
  call(&Engine::Stub::DeleteModule);
  call(&Engine::Stub::LinkPorts);
  call(&Engine::Stub::GetLinks);
  call(&Engine::Stub::GetModuleStartParameters);
  call(&Engine::Stub::GetModuleCPUUsage);
  call(&Engine::Stub::GetAllPortNames);
  call(&Engine::Stub::GetLoadedModules);
  call(&Engine::Stub::GetModulesList);
  call(&Engine::Stub::GetLastMeter);
}

// The path, kind, request and response of one method.
template <class Request, class Response>
std::string described(Engine::Stub& stub,
                      grpc::Status (Engine::Stub::*method)(grpc::ClientContext*, const Request&,
                                                           Response*)) {
  static_assert(wire::isLite<Request> && wire::isLite<Response>);
  const std::string called = methodOf([&] {
    grpc::ClientContext context;
    Response response;
    (stub.*method)(&context, Request(), &response);
  });
  return called + " " + Request().GetTypeName() + " " + Response().GetTypeName();
}

std::string row(const std::string& method, const std::string& request,
                const std::string& response) {
  return "/sonalith.grpcengine.Engine/" + method + " unary sonalith.grpcengine." + request +
         " sonalith." + response;
}

TEST(EngineService, IsNamedByItsPackage) {
  EXPECT_EQ(std::string(Engine::service_full_name()), "sonalith.grpcengine.Engine");
}

TEST(EngineService, Has22MethodsWithTheirMessages) {
  const auto stub = Engine::NewStub(std::make_shared<RecordingChannel>());
  Texts rows;
  forEachMethod([&](auto method) { rows.push_back(described(*stub, method)); });
  EXPECT_EQ(
      rows,
      (Texts{row("GetParams", "RequestGetParams", "grpcengine.ResponseGetParams"),
             row("SetParams", "RequestSetParams", "grpcengine.ResponseSetParams"),
             row("SetExitCode", "RequestSetExitCode", "common.Empty"),
             row("RequestStop", "RequestRequestStop", "common.Empty"),
             row("GetIsRunning", "RequestGetIsRunning", "grpcengine.IsRunning"),
             row("GetRefreshMeter", "RequestGetRefreshMeter", "grpcengine.RefreshValue"),
             row("SetRefreshMeter", "RequestSetRefreshMeter", "common.Empty"),
             row("GetDriverFrameRate", "RequestGetDriverFrameRate", "grpcengine.FrameRate"),
             row("GetDriverFrameNumber", "RequestGetDriverFrameNumber", "grpcengine.FrameNumber"),
             row("GetDriverXRun", "RequestGetDriverXRun", "grpcengine.XRun"),
             row("GetDriverName", "RequestGetDriverName", "grpcengine.Name"),
             row("GetDriverCPUUsage", "RequestGetDriverCPUUsage", "grpcengine.CPUUsage"),
             row("CreateModule", "RequestCreateModule", "grpcengine.Success"),
             row("DeleteModule", "RequestDeleteModule", "grpcengine.Success"),
             row("LinkPorts", "RequestLinkPorts", "grpcengine.Success"),
             row("GetLinks", "RequestGetLinks", "grpcengine.PortNames"),
             row("GetModuleStartParameters", "RequestGetModuleStartParameters",
                 "grpcengine.ModuleStartParameters"),
             row("GetModuleCPUUsage", "RequestGetModuleCPUUsage", "grpcengine.ModuleCPUUsage"),
             row("GetAllPortNames", "RequestGetAllPortNames", "grpcengine.PortNames"),
             row("GetLoadedModules", "RequestModuleNames", "grpcengine.ModuleNames"),
             row("GetModulesList", "RequestModuleNames", "grpcengine.ModuleNames"),
             row("GetLastMeter", "RequestGetLastMeter", "grpcengine.LastMeter")}));
}

Texts pathsInOrder() {
  Texts paths;
  for (const char* method : {"GetParams",
                             "SetParams",
                             "SetExitCode",
                             "RequestStop",
                             "GetIsRunning",
                             "GetRefreshMeter",
                             "SetRefreshMeter",
                             "GetDriverFrameRate",
                             "GetDriverFrameNumber",
                             "GetDriverXRun",
                             "GetDriverName",
                             "GetDriverCPUUsage",
                             "CreateModule",
                             "DeleteModule",
                             "LinkPorts",
                             "GetLinks",
                             "GetModuleStartParameters",
                             "GetModuleCPUUsage",
                             "GetAllPortNames",
                             "GetLoadedModules",
                             "GetModulesList",
                             "GetLastMeter"}) {
    paths.push_back(std::string("/sonalith.grpcengine.Engine/") + method);
  }
  return paths;
}

TEST(EngineService, AStubRegistersAllMethodsInOrder) {
  const auto channel = std::make_shared<RecordingChannel>();
  const auto stub = Engine::NewStub(channel);
  EXPECT_EQ(channel->registered(), pathsInOrder());
}

TEST(EngineService, APreparedSetParamsIsAUnaryCall) {
  const auto stub = Engine::NewStub(std::make_shared<RecordingChannel>());
  grpc::ClientContext context;
  grpc::CompletionQueue queue;
  EXPECT_EQ(methodOf([&] { stub->PrepareAsyncSetParams(&context, RequestSetParams(), &queue); }),
            "/sonalith.grpcengine.Engine/SetParams unary");
}

TEST(EngineService, EveryMethodReachesItsPath) {
  RecordingServer server;
  const auto stub = Engine::NewStub(server.channel());
  forEachMethod([&]<class Request, class Response>(grpc::Status (Engine::Stub::*method)(
                    grpc::ClientContext*, const Request&, Response*)) {
    grpc::ClientContext context;
    Response response;
    (void)((*stub).*method)(&context, Request(), &response);
  });
  Texts calls;
  for (const std::string& path : pathsInOrder()) calls.push_back(path + ": ");
  EXPECT_EQ(server.calls(), calls);
}

TEST(EngineService, ARequestReachesTheServerUnchanged) {
  RecordingServer server;
  const auto stub = Engine::NewStub(server.channel());
  RequestSetParams request;
  KeyValue& pair = *request.add_params();
  pair.set_key("gain");
  pair.mutable_value()->set_sfloat(0.5F);
  grpc::ClientContext context;
  ResponseSetParams response;
  (void)stub->SetParams(&context, request, &response);
  EXPECT_EQ(server.calls(), Texts{"/sonalith.grpcengine.Engine/SetParams: "
                                  "0A 0D 0A 04 67 61 69 6E 12 05 15 00 00 00 3F"});
}

}  // namespace
