// One SetParams call. The payload holds what the call needs and is deleted at its only event.
// Nothing reads the response or the status.
//
// Threads: made on a host thread; deleted on the client thread or by the client's destructor.
#pragma once

#include <grpcpp/completion_queue.h>

#include <memory>

#include "engine.grpc.pb.h"
#include "module/grpc-gateway/AsyncEventPayload.h"

namespace gateway {

class AsyncSetParamsPayload final : public AsyncEventPayload {
 public:
  // The client owns stub and queue, which outlive the payload.
  AsyncSetParamsPayload(sonalith::grpcengine::Engine::Stub* engine, grpc::CompletionQueue* queue,
                        std::unique_ptr<sonalith::grpcengine::RequestSetParams> params);
  ~AsyncSetParamsPayload() override;

  // Starts the call. From here on the payload belongs to the queue and may be deleted at any
  // moment, even before this returns.
  static void start(std::unique_ptr<AsyncSetParamsPayload> payload);

  void Proceed(bool ok) override;

 private:
  sonalith::grpcengine::Engine::Stub* stub;
  grpc::CompletionQueue* completionQueue;
  std::unique_ptr<sonalith::grpcengine::RequestSetParams> request;
  grpc::Status status;
  sonalith::grpcengine::ResponseSetParams response;
};

}  // namespace gateway
