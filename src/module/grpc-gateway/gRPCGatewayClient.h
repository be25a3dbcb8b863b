// The gRPC side of one module instance: the completion queue and the one thread that drains it, the
// two meter streams with their slots, and the forwarding of parameters.
//
// The constructor does everything: when it returns, the thread runs, the channels exist and the
// meter streams have been requested, whether or not a server is there. The destructor takes all of
// it back and returns when no call, payload, alarm or thread is left. A client is never restarted.
//
// Ownership: the client owns its stubs (and they their channels), the queue, the thread, the slot
// tables and the offset lists. It shares the configuration. A payload belongs to its own chain of
// events and holds plain pointers into the client, so none may outlive it.
#pragma once

#include <grpcpp/alarm.h>
#include <grpcpp/channel.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/channel_arguments.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine.grpc.pb.h"
#include "host/sonalith.h"
#include "meters.grpc.pb.h"
#include "module/grpc-gateway/AsyncMetersPayload.h"
#include "module/grpc-gateway/ConfigManager.h"

namespace gateway {

class gRPCGatewayClient {
 public:
  // On the thread of the module's start. Exceptions of allocation, of the host and of gRPC pass
  // through; once the thread runs, they end the process.
  explicit gRPCGatewayClient(std::shared_ptr<const ConfigManager> configManager);

  // Blocks until every call has ended: for a stream that waits for its retry, up to the rest of its
  // five seconds; for a SetParams in flight, until the peer answers or gRPC gives it up.
  ~gRPCGatewayClient();

  gRPCGatewayClient(const gRPCGatewayClient&) = delete;
  gRPCGatewayClient& operator=(const gRPCGatewayClient&) = delete;

  // Starts one SetParams call with all items of the list, and does not wait for it. Nobody learns
  // of its outcome. Any thread of the host; the list is borrowed for the call.
  void sendParams(const sonalith_keyValueList* changes);

 private:
  friend class gRPCGatewayClientTest;  // brings about states that only a race reaches otherwise

  struct MeterStream;
  static const MeterStream fastStream;
  static const MeterStream slowStream;

  void buildSlots();
  void releaseSlotMemory();
  void startClient();
  void stopClient();
  void openMetersChannel(const grpc::ChannelArguments& arguments);
  void openEngineChannel(const grpc::ChannelArguments& arguments);
  void startFastMetersRequest();
  void startSlowMetersRequest();
  void startMetersRequest(const MeterStream& stream);
  void asyncMainLoop();
  void flushCompletionQueue();

  // Where servers usually are, for who looks at a client in a debugger. No code falls back to them:
  // without a target its side is off.
  std::string defaultMetersTarget = "localhost:50005";
  std::string defaultEngineTarget = "localhost:50006";

  // Written by the host's threads, read by all.
  std::atomic<bool> running = false;

  // The host's: started and joined there.
  std::thread clientThread;

  // Constant after construction; null without a target.
  std::unique_ptr<sonalith::grpc::Meters::Stub> metersStub;
  std::unique_ptr<sonalith::grpcengine::Engine::Stub> engineStub;

  // The client thread's, and the destructor's after the join: the current attempt of each stream,
  // null if there is none. Not owned but for the end of the destructor.
  AsyncMetersPayload* fastPayload = nullptr;
  AsyncMetersPayload* slowPayload = nullptr;

  // Safe for all threads. Every operation of the module completes here.
  grpc::CompletionQueue completionQueue;

  // Wakes the loop at the stop. Kept until the queue has been flushed: gRPC does not survive the
  // destruction of an alarm that is just firing. (A retry alarm goes after its event has come.)
  // Made at the start, as is room for what the flush remembers: a stop that gets no memory would
  // have to end the process.
  grpc::Alarm stopAlarm;
  std::vector<void*> flushedTags;

  // Constant after construction.
  std::shared_ptr<const ConfigManager> configManager;

 public:
  // Shape constant after construction, for the module record to show to the host. The values are
  // written by the client thread and read by the host without a lock.
  GatewaySlotTable slowMeterTable{};
  GatewaySlotTable fastMeterTable{};
  sonalith_moduleOffsetList* slowMeterOffsets = nullptr;
  sonalith_moduleOffsetList* fastMeterOffsets = nullptr;
};

}  // namespace gateway
