#include "tools/probe/UnaryCalls.h"

#include <grpcpp/create_channel.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/resource_quota.h>
#include <grpcpp/security/credentials.h>

#include <condition_variable>
#include <list>
#include <mutex>
#include <utility>

#include "sanitizers/ReactionOrder.h"
#include "tools/common/ByteBuffer.h"
#include "tools/common/Listener.h"

namespace probe {
namespace {

std::shared_ptr<grpc::Channel> connect(const std::string& target) {
  grpc::ChannelArguments arguments;
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIME_MS, 10000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_TIMEOUT_MS, 10000);
  arguments.SetInt(GRPC_ARG_KEEPALIVE_PERMIT_WITHOUT_CALLS, 1);
  arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
  grpc::ResourceQuota quota;
  quota.Resize(tools::receiveLimit);
  arguments.SetResourceQuota(quota);
  return grpc::CreateCustomChannel(target, grpc::InsecureChannelCredentials(), arguments);
}

}  // namespace

struct UnaryCalls::State {
  struct Call {
    grpc::ClientContext context;
    grpc::ByteBuffer request;
    grpc::ByteBuffer response;
    Clock::time_point start = Clock::now();
  };

  State(const std::string& target, std::chrono::duration<double> most)
      : channel(connect(target)), stub(channel), limit(most) {}

  void ended(std::list<Call>::iterator call, grpc::Status status) {
    const ReactionOrder order(&*call);
    const std::lock_guard lock(mutex);
    answers.push_back({.status = std::move(status),
                       .bytes = tools::bytesOf(call->response),
                       .peer = call->context.peer(),
                       .seconds = Clock::now() - call->start});
    call->response.Clear();
    if (--open > 0) return;
    over.notify_all();
    event.signal();
  }

  std::shared_ptr<grpc::Channel> channel;
  grpc::GenericStub stub;
  const std::chrono::duration<double> limit;
  const Event event;
  std::list<Call> calls;  // for the thread of the members alone

  std::mutex mutex;  // protects all below
  std::condition_variable over;
  std::vector<Answer> answers;
  std::size_t open = 0;
};

UnaryCalls::UnaryCalls(const std::string& target, std::chrono::duration<double> limit)
    : state_(std::make_unique<State>(target, limit)) {}

UnaryCalls::~UnaryCalls() {
  for (auto& call : state_->calls) call.context.TryCancel();
  std::unique_lock lock(state_->mutex);
  state_->over.wait(lock, [&] { return state_->open == 0; });
}

void UnaryCalls::start(const std::string& method, const std::string& request) {
  const auto call = state_->calls.emplace(state_->calls.end());
  const ReactionOrder order(&*call);
  const grpc::Slice slice(request);
  call->request = grpc::ByteBuffer(&slice, 1);
  call->context.set_deadline(std::chrono::system_clock::now() +
                             std::chrono::duration_cast<std::chrono::milliseconds>(state_->limit));
  {
    const std::lock_guard lock(state_->mutex);
    ++state_->open;
  }
  state_->stub.UnaryCall(
      &call->context, method, {}, &call->request, &call->response,
      [state = state_.get(), call](grpc::Status status) { state->ended(call, std::move(status)); });
}

std::vector<Answer> UnaryCalls::take(const Waiter& waiter) {
  waiter.waitUntil(state_->event, Clock::time_point::max(), [&] {
    const std::lock_guard lock(state_->mutex);
    return state_->open == 0;
  });
  state_->calls.clear();
  const std::lock_guard lock(state_->mutex);
  return std::exchange(state_->answers, {});
}

Answer UnaryCalls::call(const Waiter& waiter, const std::string& method,
                        const std::string& request) {
  start(method, request);
  return take(waiter).front();
}

bool UnaryCalls::isConnected() const {
  return state_->channel->GetState(false) == GRPC_CHANNEL_READY;
}

}  // namespace probe
