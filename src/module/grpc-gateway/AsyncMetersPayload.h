// One attempt of one meter stream, from the start of its call to the start of the next attempt.
//
// A stream runs forever: whatever ends an attempt, the next one starts five seconds later as a new
// payload. Nothing is logged, and the call's status is not read.
//
//   state      firstEvent finishing closing  pending  event   action               next
//   Starting       1          0        0     start    ok      Read                 Reading
//   Starting       1          0        0     start    not ok  arm the retry alarm  Waiting
//   Reading        0          0        0     Read     ok      ProcessMeters, Read  Reading
//   Reading        0          0        0     Read     not ok  cancel, Finish       Finishing
//   Finishing      0          1        1     Finish   any     arm the retry alarm  Waiting
//   Waiting      0 or 1       0        1     alarm    any     restart, delete      (gone)
#pragma once

#include <grpcpp/alarm.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/async_stream.h>

#include <functional>
#include <memory>

#include "host/sonalith.h"
#include "meters.grpc.pb.h"
#include "module/grpc-gateway/AsyncEventPayload.h"
#include "module/grpc-gateway/ConfigManager.h"

namespace gateway {

class AsyncMetersPayload final : public AsyncEventPayload {
 public:
  // The client owns queue and table, which outlive the payload. `startNext` starts the next
  // attempt. The payload calls it on the client thread, right before it deletes itself.
  AsyncMetersPayload(grpc::CompletionQueue* queue, GatewaySlotTable* table,
                     std::shared_ptr<const ConfigManager> config, MeterEntryType rate,
                     std::function<void()> startNext);
  ~AsyncMetersPayload() override;

  void Proceed(bool ok) override;

 private:
  friend class gRPCGatewayClient;  // prepares the call from `request` and stores it in `reader`
  friend class AsyncMetersPayloadTest;  // passes messages in without a server

  // Writes the message's values to the slots that the configuration names.
  void ProcessMeters();
  void read();
  void finish();
  void armRetryAlarm();

  // The order matters: fields are destroyed in reverse, and the reader must go before its context
  // in the base class.
  bool firstEvent = true;
  bool finishing = false;
  bool closing = false;
  std::unique_ptr<grpc::Alarm> retryAlarm;
  sonalith::grpc::Meter meter;  // buffer of every Read
  grpc::Status status;          // filled by Finish, never read
  std::unique_ptr<grpc::ClientAsyncReader<sonalith::grpc::Meter>> reader;
  grpc::CompletionQueue* completionQueue;
  std::function<void()> restart;
  sonalith::common::Empty request;
  GatewaySlotTable* slotTable;
  std::shared_ptr<const ConfigManager> configManager;
  MeterEntryType meterType;
};

}  // namespace gateway
