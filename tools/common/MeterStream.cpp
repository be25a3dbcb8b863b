#include "tools/common/MeterStream.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/resource_quota.h>
#include <grpcpp/security/credentials.h>

#include "sanitizers/ReactionOrder.h"

namespace tools {
namespace {

thread_local bool isBeginningHere = false;

}  // namespace

std::shared_ptr<grpc::Channel> connectToMeters(const std::string& target, int messageLimit) {
  grpc::ChannelArguments arguments;
  arguments.SetMaxReceiveMessageSize(messageLimit);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 10000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 10000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  grpc::ResourceQuota quota;
  quota.Resize(receiveLimit);
  arguments.SetResourceQuota(quota);
  return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

bool MeterStream::isBeginning() {
  return isBeginningHere;
}

void MeterStream::begin(grpc::GenericStub& stub) {
  const ReactionOrder order(this);
  isBeginningHere = true;
  const bool isFast = rate_ == standin::SlotSet::Fast;
  stub.PrepareBidiStreamingCall(
      &context_,
      isFast ? "/sonalith.grpc.Meters/GetMetersFast" : "/sonalith.grpc.Meters/GetMetersSlow", {},
      this);
  // The request has no fields, and so no bytes.
  const grpc::Slice request("");
  request_ = grpc::ByteBuffer(&request, 1);
  StartWriteLast(&request_, {});
  StartCall();
  isBeginningHere = false;
}

void MeterStream::OnReadInitialMetadataDone(bool ok) {
  const ReactionOrder order(this);
  if (!ok) return;
  listener_.opened(rate_);
  // Not earlier: gRPC could report the first message on another thread before the headers.
  StartRead(&message_);
}

void MeterStream::OnReadDone(bool ok) {
  const ReactionOrder order(this);
  if (!ok) return;
  listener_.took(rate_, message_);
  message_.Clear();
  StartRead(&message_);
}

void MeterStream::OnDone(const grpc::Status& status) {
  const ReactionOrder order(this);
  listener_.ended(rate_, status);
}

}  // namespace tools
