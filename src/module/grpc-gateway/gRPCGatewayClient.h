// The gRPC side of one module instance: the completion queue and the one thread that drains it, the
// two meter streams with their slots, and the forwarding of parameters.
//
// Lifetime: when the constructor returns, the thread runs, the channels exist and the meter streams
// have been requested, whether or not a server is there. The destructor undoes all of this and
// returns when no call, payload, alarm or thread is left. A client is never restarted.
//
// Ownership: the client owns its stubs (which own their channels), the queue, the thread, the slot
// tables and the offset lists. It shares the configuration. A payload belongs to its own chain of
// events and holds plain pointers into the client, so no payload may outlive the client.
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
  // Call it on the thread that starts the module. Passes on exceptions from allocations, the host
  // and gRPC; once the client thread runs, such an exception ends the process.
  explicit gRPCGatewayClient(std::shared_ptr<const ConfigManager> configManager);

  // Blocks until every call has ended. A stream that waits to retry takes the rest of its five
  // seconds. A SetParams call in flight ends when the peer answers or gRPC gives up on it.
  ~gRPCGatewayClient();

  gRPCGatewayClient(const gRPCGatewayClient&) = delete;
  gRPCGatewayClient& operator=(const gRPCGatewayClient&) = delete;

  // Starts one SetParams call with all items of the list and doesn't wait for it. The outcome is
  // ignored. Any host thread may call this; it borrows the list until it returns.
  void sendParams(const sonalith_keyValueList* changes);

 private:
  friend class gRPCGatewayClientTest;  // sets up states that only a race would reach

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

  // Where servers usually are, for anyone inspecting a client in a debugger. No code falls back to
  // them: a side without a target is off.
  std::string defaultMetersTarget = "localhost:50005";
  std::string defaultEngineTarget = "localhost:50006";

  // Host threads write it; all threads read it.
  std::atomic<bool> running = false;

  // Started and joined by host threads.
  std::thread clientThread;

  // Constant after construction; null without a target.
  std::unique_ptr<sonalith::grpc::Meters::Stub> metersStub;
  std::unique_ptr<sonalith::grpcengine::Engine::Stub> engineStub;

  // The current attempt of each stream, or null. Only the client thread uses them, and after the
  // join the destructor. Not owned, except at the end of the destructor.
  AsyncMetersPayload* fastPayload = nullptr;
  AsyncMetersPayload* slowPayload = nullptr;

  // Thread-safe. Every operation of the module completes here.
  grpc::CompletionQueue completionQueue;

  // Wakes the loop at the stop. It lives until the queue has been flushed, because gRPC crashes
  // when an alarm is destroyed while it fires. (A retry alarm is destroyed after its event.) It
  // exists from the start, as does the room for flushed tags: a stop that ran out of memory would
  // have to end the process.
  grpc::Alarm stopAlarm;
  std::vector<void*> flushedTags;

  // Constant after construction.
  std::shared_ptr<const ConfigManager> configManager;

 public:
  // Their shape is constant after construction. The module record shows them to the host. The
  // client thread writes the values, and the host reads them without a lock.
  GatewaySlotTable slowMeterTable{};
  GatewaySlotTable fastMeterTable{};
  sonalith_moduleOffsetList* slowMeterOffsets = nullptr;
  sonalith_moduleOffsetList* fastMeterOffsets = nullptr;
};

}  // namespace gateway
