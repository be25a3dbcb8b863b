// One SetParams call: it holds what the call needs until its one event, and ends with it. Neither
// response nor status is looked at.
//
// Made on a thread of the host; ended on the client thread, or by the client's destructor.
#pragma once

#include <grpcpp/completion_queue.h>

#include <memory>

#include "engine.grpc.pb.h"
#include "module/grpc-gateway/AsyncEventPayload.h"

namespace gateway {

class AsyncSetParamsPayload final : public AsyncEventPayload {
 public:
  // Stub and queue are the client's and outlive the payload.
  AsyncSetParamsPayload(sonalith::grpcengine::Engine::Stub* engine, grpc::CompletionQueue* queue,
                        std::unique_ptr<sonalith::grpcengine::RequestSetParams> params);
  ~AsyncSetParamsPayload() override;

  // Starts the call. From here on the payload is the queue's: it can be gone at any moment, also
  // before this returns.
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
