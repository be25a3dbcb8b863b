// Calls to a server that have one answer each, any number at once, over one connection with the
// gateway's settings. Answers stay bytes, so that a damaged one does not look like a failed call.
//
// Memory: a call holds its request and answer until `take`. gRPC ends calls whose answers have more
// than 4 MiB each. Answers beyond `bytes` together become RESOURCE_EXHAUSTED, without their bytes;
// gRPC adds at most tools::receiveLimit for those that are still arriving.
// Threads: members are for one thread; the calls run on gRPC's threads.
// Ownership: owns the connection and the calls, and cancels those that remain at the end.
#pragma once

#include <grpcpp/support/status.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include "tools/common/MeterStream.h"
#include "tools/probe/Waiter.h"

namespace probe {

struct Answer {
  grpc::Status status;
  std::string bytes;
  std::string peer;  // the server's address as gRPC names it; the target if there was none
  std::chrono::duration<double> seconds;

  // Whether the server answered, well or badly. Otherwise time was up, or the connection failed.
  bool hasCome() const {
    return status.error_code() != grpc::StatusCode::DEADLINE_EXCEEDED &&
           status.error_code() != grpc::StatusCode::UNAVAILABLE &&
           status.error_code() != grpc::StatusCode::CANCELLED;
  }
};

class UnaryCalls {
 public:
  // A call without an answer ends after `limit`. `bytes`: of all answers that wait for `take`.
  UnaryCalls(const std::string& target, std::chrono::duration<double> limit,
             std::size_t bytes = tools::receiveLimit);
  ~UnaryCalls();
  UnaryCalls(const UnaryCalls&) = delete;
  UnaryCalls& operator=(const UnaryCalls&) = delete;

  void start(const std::string& method, const std::string& request);

  // Waits for the answers to all calls, which end by their limit at the latest. In the order of
  // their arrival. Throws Interrupted.
  std::vector<Answer> take(const Waiter& waiter);

  // One call and its answer.
  Answer call(const Waiter& waiter, const std::string& method, const std::string& request);

  bool isConnected() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace probe
