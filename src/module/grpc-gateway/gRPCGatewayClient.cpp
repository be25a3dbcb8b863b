#include "module/grpc-gateway/gRPCGatewayClient.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <algorithm>
#include <utility>

#include "module/grpc-gateway/AsyncSetParamsPayload.h"
#include "module/grpc-gateway/GatewaySlots.h"
#include "module/grpc-gateway/HostAccess.h"
#include "module/grpc-gateway/ParamConversion.h"

namespace gateway {

using sonalith::grpc::Meters;
using sonalith::grpcengine::Engine;
using sonalith::grpcengine::RequestSetParams;

namespace {

// How many tags a flush can remember without allocating: both streams and some seconds of calls.
constexpr std::size_t ordinaryFlush = 256;

// Pings every ten seconds, even without a call, and gives the peer ten seconds to answer.
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

// An item that fails stays in the request, partly filled; the others still go out.
std::int32_t addParamToRequest(const sonalith_keyValueItem* item, void* request) {
  try {
    fillParam(*static_cast<RequestSetParams*>(request)->add_params(), *item);
    return 0;
  } catch (const std::exception& exception) {
    GATEWAY_LOG(SONALITH_LOG_FAULT, "exception while converting list: %s", exception.what());
    return 1;
  }
}

}  // namespace

// How the two streams differ.
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

// The slots are complete before the thread starts. The thread starts before any channel exists and
// waits on the empty queue, so that a stream's first event finds a running loop.
gRPCGatewayClient::gRPCGatewayClient(std::shared_ptr<const ConfigManager> config)
    : configManager(std::move(config)) {
  // When a constructor throws, no destructor runs to return the slots.
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
  visitMeters(config, MeterEntryType::Slow, [this](const auto& list) {
    buildMeterSlots(list, slowMeterTable, &slowMeterOffsets);
  });
  visitMeters(config, MeterEntryType::Fast, [this](const auto& list) {
    buildMeterSlots(list, fastMeterTable, &fastMeterOffsets);
  });
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
    // The calling payload is about to delete itself, so the destructor must not find it here.
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

// Checks `running` after the wait and before the dispatch: once it is cleared, no Proceed begins,
// whatever the queue returns.
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

// Clears the flag before it sets the alarm, so that the woken loop sees it cleared.
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

  // 1. End the thread. The join publishes the two payload pointers, which that thread wrote. From
  //    here on no Proceed runs, so no cancelled stream can come back.
  stopClient();

  // 2. Cancel the streams, or their pending reads would block the flush forever.
  if (fastPayload != nullptr) fastPayload->context->TryCancel();
  if (slowPayload != nullptr) slowPayload->context->TryCancel();

  // 3. Shut the queue down; only then does it drain.
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Shutting down completion queue");
  completionQueue.Shutdown();

  // 4. Wait for everything still pending, and delete the payloads.
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Starting completion queue flush");
  flushCompletionQueue();
  GATEWAY_LOG(SONALITH_LOG_TRACE, "Completion queue flush ended");

  // 5. Delete the streams whose last event the loop took and dropped. The flush remembers the
  //    payloads that it has deleted by address.
  for (AsyncMetersPayload* payload : {fastPayload, slowPayload}) {
    const void* const tag = static_cast<AsyncEventPayload*>(payload);
    const auto flushed = std::find(flushedTags.begin(), flushedTags.end(), tag);
    if (flushed == flushedTags.end()) delete payload;
  }

  // 6. Release the slots. No payload is left that could point to one.
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
