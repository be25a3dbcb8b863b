#include "tests/support/RawCall.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/security/credentials.h>

#include <chrono>
#include <stdexcept>
#include <utility>

#include "tests/support/SimProcess.h"
#include "tools/common/ByteBuffer.h"

namespace {

grpc::ByteBuffer bufferOf(const std::string& bytes) {
  const grpc::Slice slice(bytes);
  return {&slice, 1};
}

}  // namespace

std::shared_ptr<grpc::Channel> connect(const std::string& target,
                                       grpc::ChannelArguments arguments) {
  arguments.SetMaxReceiveMessageSize(-1);
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

RawCall::RawCall(const std::string& target, const std::string& path, const std::string& request,
                 const Prepare& prepare)
    : RawCall(connect(target), path, request, prepare) {}

RawCall::RawCall(const std::shared_ptr<grpc::Channel>& channel, const std::string& path,
                 const std::string& request, const Prepare& prepare)
    : stub_(channel) {
  if (prepare) prepare(context_);
  call_ = stub_.PrepareCall(&context_, path, &queue_);
  call_->StartCall(this);
  if (!step()) return;
  call_->WriteLast(bufferOf(request), {}, this);
  step();
}

RawCall::~RawCall() {
  context_.TryCancel();
  queue_.Shutdown();
}

std::optional<std::string> RawCall::read() {
  grpc::ByteBuffer message;
  call_->Read(&message, this);
  if (!step()) return std::nullopt;
  return tools::bytesOf(message);
}

grpc::StatusCode RawCall::finish() {
  grpc::Status status;
  call_->Finish(&status, this);
  step();
  return status.error_code();
}

std::vector<std::string> RawCall::readAll() {
  std::vector<std::string> messages;
  while (auto message = read()) messages.push_back(std::move(*message));
  return messages;
}

bool RawCall::step() {
  void* tag = nullptr;
  bool ok = false;
  const auto deadline = std::chrono::system_clock::now() + patience;
  if (queue_.AsyncNext(&tag, &ok, deadline) != grpc::CompletionQueue::GOT_EVENT) {
    throw std::runtime_error("timed out waiting for an event of the call");
  }
  return ok;
}

std::ostream& operator<<(std::ostream& out, const Reply& reply) {
  out << "status " << reply.code;
  for (const auto& message : reply.messages) out << ' ' << toHex(message);
  return out;
}

Reply replyTo(RawCall& call) {
  auto messages = call.readAll();
  return {call.finish(), std::move(messages)};
}

Reply setParams(const std::string& target, const std::string& request) {
  RawCall call(target, setParamsPath, request);
  return replyTo(call);
}
