#include "tools/host/CallWatch.h"

#include <grpcpp/support/client_interceptor.h>

#include <atomic>
#include <map>
#include <mutex>
#include <set>
#include <utility>

#include "tools/common/MeterStream.h"
#include "tools/common/StatusName.h"

namespace host {

using grpc::experimental::ClientRpcInfo;
using grpc::experimental::InterceptionHookPoints;
using grpc::experimental::InterceptorBatchMethods;
using Time = CallAccount::Time;

namespace {

constexpr std::size_t deliveriesKept = 500;

// The notification for which this thread starts calls; 0 for none.
thread_local unsigned attributedTo = 0;

bool isGood(const CallEnd& end) {
  return end.wasSent && !end.wasUnreadable && end.status.ok();
}

std::string reasonOf(const CallEnd& end) {
  if (!end.wasSent) return "not sent";
  if (end.wasUnreadable) return "the answer can't be read";
  return textOf(end.status);
}

}  // namespace

std::string textOf(const grpc::Status& status) {
  std::string text = tools::statusText(status.error_code());
  if (!status.error_message().empty()) text += ": " + status.error_message();
  return text;
}

std::string_view nameOf(Delivery::State state) {
  switch (state) {
    case Delivery::State::Unknown:
      break;
    case Delivery::State::Waiting:
      return "waiting";
    case Delivery::State::Answered:
      return "answered";
    case Delivery::State::Failed:
      return "failed";
  }
  return "unknown";
}

// ---- What is known of all calls ---------------------------------------------------------------

class CallWatch::Record {
 public:
  explicit Record(TappedMethod tapped) : tapped_(std::move(tapped)) {}

  // The tap for a call of this method, or null.
  CallTap* tapOf(std::string_view method) const {
    return method == tapped_.method ? tapped_.tap.get() : nullptr;
  }
  std::uint32_t nextTapped() { return ++tappedCalls_; }

  std::optional<CallAccount> account(std::string_view method) const {
    const std::lock_guard lock(mutex_);
    const auto found = methods_.find(method);
    if (found == methods_.end()) return std::nullopt;
    CallAccount account = found->second.account;
    const auto& open = found->second.open;
    if (!open.empty()) account.waitingSince = *open.begin();
    return account;
  }

  Delivery deliveryOf(unsigned number) const {
    const std::lock_guard lock(mutex_);
    const auto found = deliveries_.find(number);
    return found == deliveries_.end() ? Delivery{} : found->second.delivery;
  }

  Deliveries deliveriesSince(std::uint64_t since) const {
    const std::lock_guard lock(mutex_);
    Deliveries news{changes_, {}};
    for (const auto& [number, tracked] : deliveries_) {
      if (tracked.change > since) news.changed.emplace_back(number, tracked.delivery);
    }
    return news;
  }

  void begin(const std::string& method, unsigned notification, Time now) {
    const std::lock_guard lock(mutex_);
    Method& of = methods_[method];
    ++of.account.started;
    of.account.isSent = false;
    of.open.insert(now);
    deliver(notification, {Delivery::State::Waiting, ""});
  }

  void sent(const std::string& method, Time now) {
    const std::lock_guard lock(mutex_);
    CallAccount& account = methods_[method].account;
    account.isSent = true;
    account.sentAt = now;
  }

  void received(const std::string& method, Time now) {
    const std::lock_guard lock(mutex_);
    CallAccount& account = methods_[method].account;
    ++account.messages;
    account.lastMessage = now;
  }

  void end(const std::string& method, unsigned notification, Time begun, const CallEnd& end) {
    const std::lock_guard lock(mutex_);
    Method& of = methods_[method];
    ++(isGood(end) ? of.account.succeeded : of.account.failed);
    of.account.lastEnd = end;
    if (const auto found = of.open.find(begun); found != of.open.end()) of.open.erase(found);
    const auto state = isGood(end) ? Delivery::State::Answered : Delivery::State::Failed;
    deliver(notification, {state, isGood(end) ? "" : reasonOf(end)});
  }

 private:
  struct Method {
    CallAccount account;
    std::multiset<Time> open;  // when the calls that have not ended began
  };

  struct Tracked {
    Delivery delivery;
    std::uint64_t change;  // the number of its latest change
  };

  void deliver(unsigned notification, Delivery delivery) {
    if (notification == 0) return;
    deliveries_[notification] = {std::move(delivery), ++changes_};
    if (deliveries_.size() > deliveriesKept) deliveries_.erase(deliveries_.begin());
  }

  const TappedMethod tapped_;
  std::atomic<std::uint32_t> tappedCalls_ = 0;

  mutable std::mutex mutex_;  // guards everything below
  std::map<std::string, Method, std::less<>> methods_;
  std::map<unsigned, Tracked> deliveries_;
  std::uint64_t changes_ = 0;
};

// ---- One call ---------------------------------------------------------------------------------

// gRPC calls it for one event of the call after another, on the threads of the call, and destroys
// it together with the call's context.
class CallWatch::Observer final : public grpc::experimental::Interceptor {
 public:
  // A call that nobody watches has no record.
  Observer(std::shared_ptr<Record> record, const ClientRpcInfo& call)
      : record_(std::move(record)),
        method_(call.method()),
        isUnary_(call.type() == ClientRpcInfo::Type::UNARY),
        notification_(attributedTo) {
    if (!record_) return;
    record_->begin(method_, notification_, begun_);
    tap_ = record_->tapOf(method_);
    if (tap_ == nullptr) return;
    number_ = record_->nextTapped();
    tap_->started(number_);
  }

  // A call that is dropped before its status was asked for ends here.
  ~Observer() override { end(); }

  void Intercept(InterceptorBatchMethods* batch) override {
    if (record_) observe(*batch);
    batch->Proceed();
  }

 private:
  void observe(InterceptorBatchMethods& batch) {
    using Hook = InterceptionHookPoints;
    if (batch.QueryInterceptionHookPoint(Hook::PRE_SEND_CANCEL)) return;
    if (batch.QueryInterceptionHookPoint(Hook::PRE_SEND_MESSAGE)) {
      isSending_ = true;
      if (tap_ != nullptr) tap_->sent(number_, *batch.GetSerializedSendMessage());
      return;
    }
    // The next event is that of the sending, although this gRPC does not mark it POST_SEND_MESSAGE.
    const bool hasStatus = batch.QueryInterceptionHookPoint(Hook::POST_RECV_STATUS);
    if (std::exchange(isSending_, false)) observeSent(batch.GetSendMessageStatus(), hasStatus);
    if (batch.QueryInterceptionHookPoint(Hook::POST_RECV_MESSAGE)) {
      observeMessage(batch.GetRecvMessage() != nullptr);
    }
    if (!hasStatus) return;
    end_.status = *batch.GetRecvStatus();
    end();
  }

  // The module never asks for the status of a stream whose request could not be sent.
  void observeSent(bool isSent, bool hasStatus) {
    end_.wasSent = isSent;
    if (isSent) {
      record_->sent(method_, std::chrono::steady_clock::now());
    } else if (!hasStatus) {
      end();
    }
  }

  void observeMessage(bool came) {
    lacksMessage_ = !came;
    if (came) record_->received(method_, std::chrono::steady_clock::now());
  }

  // A message that can't be parsed looks as if none had come.
  void end() {
    if (!record_ || std::exchange(hasEnded_, true)) return;
    end_.time = std::chrono::steady_clock::now();
    end_.wasUnreadable = isUnary_ && lacksMessage_ && end_.status.ok();
    // First: whoever learns of the end may make the next call.
    if (tap_ != nullptr) {
      const bool isKnown = end_.wasSent || !end_.status.ok();
      tap_->ended(number_,
                  isKnown ? end_.status : grpc::Status(grpc::StatusCode::UNKNOWN, "not sent"));
    }
    record_->end(method_, notification_, begun_, end_);
  }

  const std::shared_ptr<Record> record_;
  const std::string method_;
  const bool isUnary_;
  const unsigned notification_;
  const Time begun_ = std::chrono::steady_clock::now();
  CallTap* tap_ = nullptr;    // the record's; null: nobody listens
  std::uint32_t number_ = 0;  // for the tap
  CallEnd end_;
  bool isSending_ = false;
  bool lacksMessage_ = false;
  bool hasEnded_ = false;
};

// gRPC takes one factory per process and keeps it for good. The streams that this program receives
// for itself are nobody's business.
class CallWatch::Factory final : public grpc::experimental::ClientInterceptorFactoryInterface {
 public:
  static Factory& ofProcess() {
    static Factory& factory = []() -> Factory& {
      auto* const made = new Factory;
      grpc::experimental::RegisterGlobalClientInterceptorFactory(made);
      return *made;
    }();
    return factory;
  }

  // gRPC does not accept a null pointer.
  grpc::experimental::Interceptor* CreateClientInterceptor(ClientRpcInfo* call) override {
    const std::lock_guard lock(mutex_);
    return new Observer(tools::MeterStream::isBeginning() ? nullptr : record_, *call);
  }

  void watch(std::shared_ptr<Record> record) {
    const std::lock_guard lock(mutex_);
    record_ = std::move(record);
  }

 private:
  std::mutex mutex_;  // guards everything below
  std::shared_ptr<Record> record_;
};

// ---- The watch --------------------------------------------------------------------------------

CallWatch::CallWatch(TappedMethod tapped) : record_(std::make_shared<Record>(std::move(tapped))) {
  Factory::ofProcess().watch(record_);
}

CallWatch::~CallWatch() {
  Factory::ofProcess().watch(nullptr);
}

std::optional<CallAccount> CallWatch::account(std::string_view method) const {
  return record_->account(method);
}

Delivery CallWatch::deliveryOf(unsigned number) const {
  return record_->deliveryOf(number);
}

CallWatch::Deliveries CallWatch::deliveriesSince(std::uint64_t since) const {
  return record_->deliveriesSince(since);
}

CallWatch::Attribution::Attribution(unsigned number) {
  attributedTo = number;
}

CallWatch::Attribution::~Attribution() {
  attributedTo = 0;
}

}  // namespace host
