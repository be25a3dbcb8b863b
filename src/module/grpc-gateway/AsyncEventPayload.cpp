#include "module/grpc-gateway/AsyncEventPayload.h"

namespace gateway {

AsyncEventPayload::AsyncEventPayload() : context(std::make_unique<grpc::ClientContext>()) {}

AsyncEventPayload::~AsyncEventPayload() = default;

}  // namespace gateway
