// Watches the calls that a loaded module makes, from inside gRPC's client library. The module's
// streams and parameter calls log nothing and share channels, so nothing else tells one stream from
// the other, or says how a call ended.
//
// gRPC lets each call of the process pass an observer (an interceptor), if the library that makes
// the call is the one that this program has loaded. The observer changes nothing, but gRPC passes
// each event through its queue once more. So only what is meant to be watched should have a
// CallWatch.
//
// Threads: made and destroyed by one thread; everything else is for any thread.
// Ownership: only one can exist at a time. Calls may outlive it.
#pragma once

#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/status.h>

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace host {

// How a call ended.
struct CallEnd {
  std::chrono::steady_clock::time_point time;
  bool wasSent = false;        // false: the request never went out, so there was no connection
  bool wasUnreadable = false;  // the answer came, but could not be parsed; not known of streams
  grpc::Status status;         // meaningless if it was not sent
};

// All calls of one method, of which the latest matters most.
struct CallAccount {
  using Time = std::chrono::steady_clock::time_point;

  std::uint64_t started = 0;
  std::uint64_t succeeded = 0;
  std::uint64_t failed = 0;
  std::uint64_t messages = 0;        // received
  std::optional<Time> waitingSince;  // the oldest call that has not ended
  bool isSent = false;               // the latest call's request has gone out
  Time sentAt;
  std::optional<Time> lastMessage;
  std::optional<CallEnd> lastEnd;

  std::uint64_t open() const { return started - succeeded - failed; }
};

// What became of the calls for one notification.
struct Delivery {
  enum class State { Unknown, Waiting, Answered, Failed };

  State state = State::Unknown;
  std::string reason;  // why it failed: the status and its text
};

// "answered", as programs read it.
std::string_view nameOf(Delivery::State state);

// Receives the calls of one method as they are made, on the threads of the calls. The events of one
// call come in order. Members should return quickly: the module's thread waits.
class CallTap {
 public:
  virtual ~CallTap() = default;
  // Later calls go to this server. Called before a module starts, on the thread that starts it.
  virtual void directed(const std::string& target) = 0;
  // `number` rises from 1.
  virtual void started(std::uint32_t number) = 0;
  // The bytes of the request.
  virtual void sent(std::uint32_t number, const grpc::ByteBuffer& request) = 0;
  virtual void ended(std::uint32_t number, const grpc::Status& status) = 0;
};

// A tap, and the method whose calls it receives, such as "/package.Service/Method".
struct TappedMethod {
  std::string method;
  std::shared_ptr<CallTap> tap;  // null: nobody listens
};

class CallWatch {
 public:
  // Calls that outlive the watch share ownership of the tap.
  explicit CallWatch(TappedMethod tapped = {});
  ~CallWatch();
  CallWatch(const CallWatch&) = delete;
  CallWatch& operator=(const CallWatch&) = delete;

  // Of a method such as "/package.Service/Method". Nothing while no call of it has been seen.
  std::optional<CallAccount> account(std::string_view method) const;

  // While it lives, the calls that its thread starts count for notification `number`.
  class Attribution {
   public:
    explicit Attribution(unsigned number);
    ~Attribution();
    Attribution(const Attribution&) = delete;
    Attribution& operator=(const Attribution&) = delete;
  };

  // Of a notification among the latest hundreds; Unknown if no call was seen for it.
  Delivery deliveryOf(unsigned number) const;

  struct Deliveries {
    std::uint64_t next = 0;                              // the next `since`
    std::vector<std::pair<unsigned, Delivery>> changed;  // with the notifications' numbers
  };
  // What became of calls since then; 0 gives everything that is still kept.
  Deliveries deliveriesSince(std::uint64_t since) const;

 private:
  class Record;
  class Observer;
  class Factory;

  std::shared_ptr<Record> record_;
};

// "UNAVAILABLE: failed to connect", without the colon if the status has no text.
std::string textOf(const grpc::Status& status);

}  // namespace host
