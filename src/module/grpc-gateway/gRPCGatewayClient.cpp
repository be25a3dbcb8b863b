#include "module/grpc-gateway/gRPCGatewayClient.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <algorithm>
#include <utility>

#include "module/grpc-gateway/AsyncSetParamsPayload.h"
#include "module/grpc-gateway/GatewaySlots.h"
#include "module/grpc-gateway/HostAccess.h"

namespace gateway {

using sonalith::grpc::Meters;
using sonalith::grpcengine::AnyValue;
using sonalith::grpcengine::Engine;
using sonalith::grpcengine::KeyValue;
using sonalith::grpcengine::RequestSetParams;

namespace {

// Tags that a flush remembers without taking memory: both streams and the calls of some seconds.
constexpr std::size_t ordinaryFlush = 256;

// Pings every ten seconds, also without a call, and gives the peer ten seconds to answer.
grpc::ChannelArguments channelArguments() {
  grpc::ChannelArguments arguments;
  arguments.SetInt("grpc.keepalive_time_ms", 10000);
  arguments.SetInt("grpc.keepalive_timeout_ms", 10000);
  arguments.SetInt("grpc.keepalive_permit_without_calls", 1);
  return arguments;
}

std::shared_ptr<grpc::Channel> openChannel(const std::string& target,
                                           const grpc::ChannelArguments& arguments) {
  return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

template <class Array, class Element>
void fillArray(Array& array, const Element* elements, std::uint64_t count) {
  array.mutable_data()->Add(elements, elements + count);
}

// An unknown type leaves the value without a member.
void fillValue(AnyValue& value, const sonalith_keyValueItem& item) {
  switch (item.type) {
    case SONALITH_ITEM_UINT:
      return value.set_suint(item.value.asUint);
    case SONALITH_ITEM_INT:
      return value.set_sint(item.value.asInt);
    case SONALITH_ITEM_FLOAT:
      return value.set_sfloat(item.value.asFloat);
    case SONALITH_ITEM_STRING:
      return value.set_sstring(stringFromHost(item.value.asString));
    case SONALITH_ITEM_UINT_ARRAY:
      return fillArray(*value.mutable_auint(), item.value.asUintArray, item.count);
    case SONALITH_ITEM_INT_ARRAY:
      return fillArray(*value.mutable_aint(), item.value.asIntArray, item.count);
    case SONALITH_ITEM_FLOAT_ARRAY:
      return fillArray(*value.mutable_afloat(), item.value.asFloatArray, item.count);
    case SONALITH_ITEM_DOUBLE:
      return value.set_sdouble(item.value.asDouble);
    default:
      return;
  }
}

// An item that fails stays in the request with what it had by then; the others still go out.
std::int32_t addParamToRequest(const sonalith_keyValueItem* item, void* request) {
  try {
    KeyValue* const param = static_cast<RequestSetParams*>(request)->add_params();
    param->set_key(stringFromHost(item->key));
    AnyValue value;
    fillValue(value, *item);
    *param->mutable_value() = std::move(value);
    return 0;
  } catch (const std::exception& exception) {
    GATEWAY_LOG(SONALITH_LOG_FAULT, "exception while converting list: %s", exception.what());
    return 1;
  }
}

}  // namespace

// What tells the two streams apart.
struct gRPCGatewayClient::MeterStream {
  AsyncMetersPayload* gRPCGatewayClient::*payload;
  GatewaySlotTable gRPCGatewayClient::*slotTable;
  MeterEntryType meterType;
  void (gRPCGatewayClient::*start)();
  decltype(&Meters::Stub::PrepareAsyncGetMetersFast) prepareCall;
};

const gRPCGatewayClient::MeterStream gRPCGatewayClient::fastStream = {
    &gRPCGatewayClient::fastPayload, &gRPCGatewayClient::fastMeterTable, MeterEntryType::Fast,
    &gRPCGatewayClient::startFastMetersRequest, &Meters::Stub::PrepareAsyncGetMetersFast};

const gRPCGatewayClient::MeterStream gRPCGatewayClient::slowStream = {
    &gRPCGatewayClient::slowPayload, &gRPCGatewayClient::slowMeterTable, MeterEntryType::Slow,
    &gRPCGatewayClient::startSlowMetersRequest, &Meters::Stub::PrepareAsyncGetMetersSlow};

// The thread starts before any channel exists and waits at the empty queue, so that the first event
// of a stream finds a running loop; the slots are complete before.
gRPCGatewayClient::gRPCGatewayClient(std::shared_ptr<const ConfigManager> config)
    : configManager(std::move(config)) {
  // A constructor that throws has no destructor to give the slots back.
  const auto giveBack = [](gRPCGatewayClient* client) { client->releaseSlotMemory(); };
  std::unique_ptr<gRPCGatewayClient, decltype(giveBack)> unfinished(this, giveBack);
  flushedTags.reserve(ordinaryFlush);
  buildSlots();
  const grpc::ChannelArguments arguments = channelArguments();
  startClient();
  static_cast<void>(unfinished.release());
  if (!configManager->metersTarget.empty()) openMetersChannel(arguments);
  if (!configManager->engineTarget.empty()) openEngineChannel(arguments);
}

void gRPCGatewayClient::buildSlots() {
  const ConfigManager& config = *configManager;
  slowMeterOffsets = sonalith_createModuleOffset(nullptr);
  fastMeterOffsets = sonalith_createModuleOffset(nullptr);
  buildMeterSlots(config.slowMeterStrings, slowMeterTable, &slowMeterOffsets);
  buildMeterSlots(config.slowMeterInts, slowMeterTable, &slowMeterOffsets);
  buildMeterSlots(config.slowMeterUints, slowMeterTable, &slowMeterOffsets);
  buildMeterSlots(config.slowMeterFloats, slowMeterTable, &slowMeterOffsets);
  buildMeterSlots(config.fastMeterStrings, fastMeterTable, &fastMeterOffsets);
  buildMeterSlots(config.fastMeterInts, fastMeterTable, &fastMeterOffsets);
  buildMeterSlots(config.fastMeterUints, fastMeterTable, &fastMeterOffsets);
  buildMeterSlots(config.fastMeterFloats, fastMeterTable, &fastMeterOffsets);
}

void gRPCGatewayClient::releaseSlotMemory() {
  releaseSlots(slowMeterTable);
  releaseSlots(fastMeterTable);
  if (slowMeterOffsets != nullptr) sonalith_free(slowMeterOffsets);
  if (fastMeterOffsets != nullptr) sonalith_free(fastMeterOffsets);
}

void gRPCGatewayClient::startClient() {
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Start gRPC Gateway Client");
  if (running) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "gRPC Client already running!");
  } else {
    running = true;
    clientThread = std::thread(&gRPCGatewayClient::asyncMainLoop, this);
  }
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Start gRPC complete");
}

void gRPCGatewayClient::openMetersChannel(const grpc::ChannelArguments& arguments) {
  const std::string& target = configManager->metersTarget;
  metersStub = Meters::NewStub(openChannel(target, arguments));
  if (configManager->enableFastMeters) {
    GATEWAY_LOG(SONALITH_LOG_NETWORK, "Starting fast meter request on %s", target.c_str());
    startFastMetersRequest();
  }
  if (configManager->enableSlowMeters) {
    GATEWAY_LOG(SONALITH_LOG_NETWORK, "Starting slow meter request on %s", target.c_str());
    startSlowMetersRequest();
  }
}

void gRPCGatewayClient::openEngineChannel(const grpc::ChannelArguments& arguments) {
  const std::string& target = configManager->engineTarget;
  engineStub = Engine::NewStub(openChannel(target, arguments));
  GATEWAY_LOG(SONALITH_LOG_NETWORK, "Create stub for engine RPCs on %s", target.c_str());
}

void gRPCGatewayClient::startFastMetersRequest() {
  startMetersRequest(fastStream);
}

void gRPCGatewayClient::startSlowMetersRequest() {
  startMetersRequest(slowStream);
}

void gRPCGatewayClient::startMetersRequest(const MeterStream& stream) {
  AsyncMetersPayload*& current = this->*stream.payload;
  if (!metersStub) return;
  if (!running) {
    // The payload that asks deletes itself next: the destructor must not find it here.
    current = nullptr;
    return;
  }
  std::function<void()> restart = [this, &stream] { (this->*stream.start)(); };
  current = new AsyncMetersPayload(&completionQueue, &(this->*stream.slotTable), configManager,
                                   stream.meterType, std::move(restart));
  current->reader = (metersStub.get()->*stream.prepareCall)(current->context.get(),
                                                            current->request, &completionQueue);
  current->reader->StartCall(current->tag());
}

// `running` is looked at after the wait and before the dispatch: once it has been cleared, no
// Proceed begins, whatever comes out of the queue.
void gRPCGatewayClient::asyncMainLoop() {
  try {
    void* tag = nullptr;
    bool ok = false;
    for (;;) {
      const auto status = completionQueue.AsyncNext(&tag, &ok, gpr_inf_future(GPR_CLOCK_REALTIME));
      if (status != grpc::CompletionQueue::GOT_EVENT || !running) return;
      if (tag != nullptr) static_cast<AsyncEventPayload*>(tag)->Proceed(ok);
    }
  } catch (const std::exception& exception) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "C++ exception in %s(): %s", "asyncMainLoop", exception.what());
  }
}

void gRPCGatewayClient::sendParams(const sonalith_keyValueList* changes) {
  if (!engineStub || !running) return;
  auto request = std::make_unique<RequestSetParams>();
  sonalith_keyValueListForEach(changes, addParamToRequest, request.get());
  AsyncSetParamsPayload::start(std::make_unique<AsyncSetParamsPayload>(
      engineStub.get(), &completionQueue, std::move(request)));
}

// The flag falls before the alarm is set, so that the woken loop sees it.
void gRPCGatewayClient::stopClient() {
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Stop gRPC Gateway client");
  if (!running) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "gRPC GatewayClient already stopped!");
  } else {
    running = false;
    stopAlarm.Set(&completionQueue, gpr_now(GPR_CLOCK_REALTIME), nullptr);
    try {
      if (clientThread.joinable()) clientThread.join();
    } catch (const std::exception& exception) {
      GATEWAY_LOG(SONALITH_LOG_TRACE, "C++ exception in %s(): %s", "stopClient", exception.what());
    }
  }
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Stop gRPC Gateway complete");
}

gRPCGatewayClient::~gRPCGatewayClient() {
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Destructing gRPC gateway client singleton");

  // 1. End the thread. The join publishes the two payload pointers, which it wrote; from here on no
  //    Proceed runs, so that no cancelled stream can come back.
  stopClient();

  // 2. Cancel the streams, or their reads would hold up the flush for good.
  if (fastPayload != nullptr) fastPayload->context->TryCancel();
  if (slowPayload != nullptr) slowPayload->context->TryCancel();

  // 3. Only a queue that is shut down comes to an end.
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Shutting down completion queue");
  completionQueue.Shutdown();

  // 4. Wait for all that is still pending, and delete its payloads.
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Starting completion queue flush");
  flushCompletionQueue();
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Completion queue flush ended");

  // 5. Delete the streams whose last event the loop took and dropped. A payload that the flush has
  //    deleted is known by its address alone.
  for (AsyncMetersPayload* payload : {fastPayload, slowPayload}) {
    const void* const tag = static_cast<AsyncEventPayload*>(payload);
    const auto flushed = std::find(flushedTags.begin(), flushedTags.end(), tag);
    if (flushed == flushedTags.end()) delete payload;
  }

  // 6. No payload is left that could point to a slot.
  releaseSlotMemory();
}

void gRPCGatewayClient::flushCompletionQueue() {
  void* tag = nullptr;
  bool ok = false;
  while (completionQueue.AsyncNext(&tag, &ok, gpr_inf_future(GPR_CLOCK_REALTIME)) ==
         grpc::CompletionQueue::GOT_EVENT) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "Flushing tag %p", tag);
    if (tag == nullptr) continue;
    if (std::find(flushedTags.begin(), flushedTags.end(), tag) != flushedTags.end()) continue;
    flushedTags.push_back(tag);
    delete static_cast<AsyncEventPayload*>(tag);
  }
}

}  // namespace gateway
