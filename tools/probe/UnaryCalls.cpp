#include "tools/probe/UnaryCalls.h"

#include <fmt/format.h>
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

  State(const std::string& target, std::chrono::duration<double> longest, std::size_t most)
      : channel(connect(target)), stub(channel), limit(longest), bytesLimit(most) {}

  void ended(std::list<Call>::iterator call, grpc::Status status) {
    const ReactionOrder order(&*call);
    const std::lock_guard lock(mutex);
    // gRPC's own limit does not count what this class keeps.
    const bool fits = call->response.Length() <= bytesLimit - kept;
    if (fits) {
      kept += call->response.Length();
    } else {
      status = tooLong();
    }
    answers.push_back({.status = std::move(status),
                       .bytes = fits ? tools::bytesOf(call->response) : "",
                       .peer = call->context.peer(),
                       .seconds = Clock::now() - call->start});
    call->response.Clear();
    if (--open > 0) return;
    over.notify_all();
    event.signal();
  }

  grpc::Status tooLong() const {
    return {grpc::StatusCode::RESOURCE_EXHAUSTED,
            fmt::format("the answers have more than {} MiB together", bytesLimit >> 20)};
  }

  std::shared_ptr<grpc::Channel> channel;
  grpc::GenericStub stub;
  const std::chrono::duration<double> limit;
  const std::size_t bytesLimit;  // of all answers that `take` has not returned
  const Event event;
  std::list<Call> calls;  // for the thread of the members alone

  std::mutex mutex;  // protects all below
  std::condition_variable over;
  std::vector<Answer> answers;
  std::size_t kept = 0;  // the bytes of `answers`
  std::size_t open = 0;
};

UnaryCalls::UnaryCalls(const std::string& target, std::chrono::duration<double> limit,
                       std::size_t bytes)
    : state_(std::make_unique<State>(target, limit, bytes)) {}

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
  state_->kept = 0;
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
