// The calls of a Simulator, as gRPC sees them, and the registry of those that are not over.
//
// Threads: any, except where a member says otherwise. gRPC calls the reactions (On...) of one call
// one after another, on its own threads.
// Ownership: a ServedCall keeps itself alive until gRPC is done with it. The registry shares
// ownership of each call from its announcement to its end, and must outlive its calls. It borrows
// the listener for its life.
#pragma once

#include <grpcpp/generic/async_generic_service.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "tools/sim/Call.h"

namespace sim {

class ServedCall;

// All calls that have been announced to the listener and are not over.
class CallRegistry {
 public:
  // Holds announcements back until `start` or `refuseRest`. Both are for the constructing thread.
  explicit CallRegistry(CallListener& listener) : listener_(listener), door_(announcing_) {}

  CallListener& listener() { return listener_; }

  void start();
  // From here on, unannounced calls are never announced.
  void refuseRest();

  // Numbers the call and announces it to the listener. False if calls are refused.
  bool announce(ServedCall& call);
  void forget(const ServedCall& call);

  // Returns when all calls are over, or after `limit`.
  void waitUntilEmpty(std::chrono::milliseconds limit);

  std::vector<std::shared_ptr<ServedCall>> calls() const;

 private:
  CallListener& listener_;

  std::mutex announcing_;
  std::unique_lock<std::mutex> door_;
  bool started_ = false;  // protected by announcing_

  std::condition_variable empty_;
  mutable std::mutex mutex_;  // protects all below
  std::map<Method, unsigned> counts_;
  std::vector<std::shared_ptr<ServedCall>> calls_;
};

// One call. It is busy from its arrival until its request has been read and announced, and from the
// start of each write until the end of that write has been reported. While it is busy, only its
// queue and its status change; the reaction that ends the busy time starts what comes next. So one
// write runs at a time, reports come in order, and the call is finished once.
class ServedCall final : public Call,
                         public grpc::ServerGenericBidiReactor,
                         public std::enable_shared_from_this<ServedCall> {
 public:
  ServedCall(CallRegistry& registry, Method method, grpc::GenericCallbackServerContext& context)
      : registry_(registry), context_(context) {
    opening_.method = method;
  }

  // Starts reading the request. Call this once; the result is for gRPC.
  grpc::ServerGenericBidiReactor* begin();
  // Call this before the announcement.
  void setNumber(unsigned number) { opening_.number = number; }
  // Cancels the call for its client, whatever is queued. Does nothing unless the call is open.
  void abort();

  const Opening& opening() const override { return opening_; }
  bool isOpen() const override;
  bool isIdle() const override;
  bool send(std::string message, std::uint64_t times) override;
  bool stop() override;
  std::size_t waitingBytes() const override;
  using Call::end;
  bool end(const grpc::Status& status) override;

  void OnReadDone(bool ok) override;
  void OnWriteDone(bool ok) override;
  void OnCancel() override;
  void OnDone() override;

 private:
  // A message that is written several times.
  struct Job {
    grpc::ByteBuffer message;
    std::uint64_t times;
    std::uint64_t written = 0;

    bool isDone() const { return written >= times; }
  };

  void fillOpening();
  void settle();
  std::vector<std::uint64_t> takeFinishedJobs();
  // Call these three with the mutex locked.
  void advance();
  void cutJobs();
  void cancel(grpc::Status status);

  CallRegistry& registry_;
  // gRPC's, valid until OnDone, which does not come before finished_ is set.
  grpc::GenericCallbackServerContext& context_;

  // Written before the announcement, by gRPC's reactions only.
  Opening opening_;
  grpc::ByteBuffer request_;
  bool announced_ = false;
  std::shared_ptr<ServedCall> self_;

  mutable std::mutex mutex_;      // protects all below
  std::deque<Job> jobs_;          // the first is the one being written
  std::size_t waitingBytes_ = 0;  // of all jobs
  std::optional<grpc::Status> status_;
  bool busy_ = true;
  bool cancelled_ = false;
  bool finished_ = false;
};

}  // namespace sim
