#include "module/grpc-gateway/AsyncSetParamsPayload.h"

#include <utility>

namespace gateway {

AsyncSetParamsPayload::AsyncSetParamsPayload(
    sonalith::grpcengine::Engine::Stub* engine, grpc::CompletionQueue* queue,
    std::unique_ptr<sonalith::grpcengine::RequestSetParams> params)
    : stub(engine), completionQueue(queue), request(std::move(params)) {}

AsyncSetParamsPayload::~AsyncSetParamsPayload() = default;

void AsyncSetParamsPayload::start(std::unique_ptr<AsyncSetParamsPayload> payload) {
  auto reader = payload->stub->PrepareAsyncSetParams(payload->context.get(), *payload->request,
                                                     payload->completionQueue);
  reader->StartCall();
  // The reader lives in the call's own memory, which is freed along with the payload. Nothing may
  // touch the reader once the call can have ended, not even a destructor.
  AsyncSetParamsPayload* const call = payload.release();
  reader.release()->Finish(&call->response, &call->status, call->tag());
}

void AsyncSetParamsPayload::Proceed(bool) {
  delete this;
}

}  // namespace gateway
