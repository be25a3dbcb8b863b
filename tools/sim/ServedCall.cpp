#include "tools/sim/ServedCall.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "sanitizers/ReactionOrder.h"
#include "tools/common/ByteBuffer.h"

namespace sim {
namespace {

bool belongsToGrpc(std::string_view key) {
  return key.starts_with(':') || key.starts_with("grpc-") || key == "user-agent" || key == "te" ||
         key == "content-type";
}

std::vector<std::string> customKeys(const grpc::CallbackServerContext& context) {
  std::vector<std::string> keys;
  for (const auto& [name, value] : context.client_metadata()) {
    std::string key(name.data(), name.size());
    if (!belongsToGrpc(key)) keys.push_back(std::move(key));
  }
  // gRPC lists them sorted, a key once for each of its values.
  keys.erase(std::unique(keys.begin(), keys.end()), keys.end());
  return keys;
}

}  // namespace

void CallRegistry::start() {
  started_ = true;
  door_.unlock();
}

void CallRegistry::refuseRest() {
  if (!door_.owns_lock()) door_.lock();
  started_ = false;
  door_.unlock();
}

bool CallRegistry::announce(ServedCall& call) {
  const std::lock_guard oneAtATime(announcing_);
  if (!started_) return false;
  const auto shared = call.shared_from_this();
  {
    const std::lock_guard lock(mutex_);
    call.setNumber(++counts_[call.opening().method]);
    calls_.push_back(shared);
  }
  listener_.opened(shared);
  return true;
}

void CallRegistry::forget(const ServedCall& call) {
  const std::lock_guard lock(mutex_);
  std::erase_if(calls_, [&](const auto& other) { return other.get() == &call; });
  if (calls_.empty()) empty_.notify_all();
}

void CallRegistry::waitUntilEmpty(std::chrono::milliseconds limit) {
  std::unique_lock lock(mutex_);
  empty_.wait_for(lock, limit, [&] { return calls_.empty(); });
}

std::vector<std::shared_ptr<ServedCall>> CallRegistry::calls() const {
  const std::lock_guard lock(mutex_);
  return calls_;
}

grpc::ServerGenericBidiReactor* ServedCall::begin() {
  {
    const ReactionOrder order(this);
    self_ = shared_from_this();
  }
  StartRead(&request_);
  return this;
}

void ServedCall::abort() {
  const std::lock_guard lock(mutex_);
  if (!status_) context_.TryCancel();
}

bool ServedCall::isOpen() const {
  const std::lock_guard lock(mutex_);
  return !status_;
}

bool ServedCall::isIdle() const {
  const std::lock_guard lock(mutex_);
  return !status_ && jobs_.empty();
}

bool ServedCall::send(std::string message, std::uint64_t times) {
  const grpc::Slice slice(message);
  const std::lock_guard lock(mutex_);
  if (status_) return false;
  jobs_.push_back({grpc::ByteBuffer(&slice, 1), times});
  waitingBytes_ += slice.size();
  advance();
  return true;
}

bool ServedCall::stop() {
  const std::lock_guard lock(mutex_);
  if (status_) return false;
  cutJobs();
  return true;
}

std::size_t ServedCall::waitingBytes() const {
  const std::lock_guard lock(mutex_);
  return waitingBytes_;
}

bool ServedCall::end(const grpc::Status& status) {
  const std::lock_guard lock(mutex_);
  if (status_) return false;
  status_ = status;
  for (auto& job : jobs_) {
    if (job.times == forever) job.times = job.written;
  }
  advance();
  return true;
}

void ServedCall::OnReadDone(bool ok) {
  const ReactionOrder order(this);
  if (ok) {
    fillOpening();
    announced_ = registry_.announce(*this);
  }
  if (!announced_) {
    const std::lock_guard lock(mutex_);
    cancel({grpc::StatusCode::UNAVAILABLE, "no request, or the simulator is ending"});
  }
  settle();
}

void ServedCall::OnWriteDone(bool ok) {
  const ReactionOrder order(this);
  {
    const std::lock_guard lock(mutex_);
    if (ok) {
      ++jobs_.front().written;
    } else {
      cancel(grpc::Status::CANCELLED);
    }
  }
  settle();
}

void ServedCall::OnCancel() {
  const ReactionOrder order(this);
  const std::lock_guard lock(mutex_);
  if (finished_) return;
  cancel(grpc::Status::CANCELLED);
  advance();
}

void ServedCall::OnDone() {
  std::shared_ptr<ServedCall> self;
  const ReactionOrder order(this);
  self = std::move(self_);
  registry_.forget(*this);
  const ReactionOrder end(&registry_);
  if (announced_) registry_.listener().closed(*this, cancelled_);
}

void ServedCall::fillOpening() {
  opening_.request = tools::bytesOf(request_);
  request_.Clear();
  opening_.hasDeadline = context_.deadline() != std::chrono::system_clock::time_point::max();
  opening_.metadata = customKeys(context_);
  opening_.peer = context_.peer();
}

// Ends a busy time: reports finished jobs, then starts what comes next. More jobs can finish while
// it reports.
void ServedCall::settle() {
  for (;;) {
    for (const auto count : takeFinishedJobs()) registry_.listener().sent(*this, count);
    const std::lock_guard lock(mutex_);
    if (!jobs_.empty() && jobs_.front().isDone()) continue;
    busy_ = false;
    advance();
    return;
  }
}

std::vector<std::uint64_t> ServedCall::takeFinishedJobs() {
  const std::lock_guard lock(mutex_);
  std::vector<std::uint64_t> counts;
  while (!jobs_.empty() && jobs_.front().isDone()) {
    counts.push_back(jobs_.front().written);
    waitingBytes_ -= jobs_.front().message.Length();
    jobs_.pop_front();
  }
  return counts;
}

// Starts the next write, or finishes the call.
void ServedCall::advance() {
  if (busy_ || finished_) return;
  if (!jobs_.empty()) {
    busy_ = true;
    StartWrite(&jobs_.front().message);
  } else if (status_) {
    finished_ = true;
    Finish(*status_);
  }
}

// Makes the write in progress the last one.
void ServedCall::cutJobs() {
  for (auto& job : jobs_) job.times = job.written;
}

// The call is lost, or came without a request.
void ServedCall::cancel(grpc::Status status) {
  cancelled_ = true;
  cutJobs();
  if (!status_) status_ = std::move(status);
}

}  // namespace sim
