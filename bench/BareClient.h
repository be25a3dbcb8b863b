// The baseline: the least that a gRPC client of the same services has to do, in the module's own
// pattern: one queue, one thread that drains it, asynchronous readers, the same channel arguments.
#pragma once

#include <grpcpp/alarm.h>
#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/completion_queue.h>
#include <grpcpp/support/async_stream.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "engine.grpc.pb.h"
#include "meters.grpc.pb.h"

namespace bench {

// The channel that the module would open.
std::shared_ptr<grpc::Channel> openChannel(const std::string& target);

// Reads meter streams and discards what was parsed.
class BareReader {
 public:
  using Handler = std::function<void(const sonalith::grpc::Meter&)>;

  // What wakes the queue's thread at the end: the ends of the cancelled streams, or an alarm at the
  // present moment, before anything is cancelled, as in the module.
  enum class WokenBy { Ends, Alarm };

  // Opens the fast stream, and the slow one if wanted, and does not wait for them. The handler is
  // called on the queue's thread for each message; it may be empty.
  explicit BareReader(const std::string& target, bool withSlow = false, Handler handler = nullptr,
                      WokenBy wokenBy = WokenBy::Ends);
  // Cancels, ends the thread, shuts the queue down, drains it, and lets the channel go.
  ~BareReader();
  BareReader(const BareReader&) = delete;
  BareReader& operator=(const BareReader&) = delete;

  // Messages so far. Any thread.
  std::uint64_t messages() const { return fast_.messages + slow_.messages; }
  bool everyStreamHasSpoken() const { return fast_.messages > 0 && (!hasSlow_ || slow_.messages); }

 private:
  struct Stream {
    grpc::ClientContext context;
    sonalith::grpc::Meter meter;
    std::unique_ptr<grpc::ClientAsyncReader<sonalith::grpc::Meter>> reader;
    std::atomic<std::uint64_t> messages{0};
    bool started = false;
  };

  void drain();
  bool proceed(Stream& stream, bool ok);
  void cancel();

  const Handler handler_;
  const WokenBy wokenBy_;
  const bool hasSlow_;
  grpc::CompletionQueue queue_;
  grpc::Alarm alarm_;
  std::unique_ptr<sonalith::grpc::Meters::Stub> stub_;
  sonalith::common::Empty request_;
  Stream fast_;
  Stream slow_;
  std::thread thread_;
};

// Starts SetParams calls.
class BareSender {
 public:
  explicit BareSender(const std::string& target);
  // Waits for the calls that are under way.
  ~BareSender();
  BareSender(const BareSender&) = delete;
  BareSender& operator=(const BareSender&) = delete;

  // Starts one call with a float of each name, and does not wait for it.
  void send(const std::vector<std::string>& keys);

 private:
  struct Call;
  void drain();

  grpc::CompletionQueue queue_;
  std::unique_ptr<sonalith::grpcengine::Engine::Stub> stub_;
  std::thread thread_;
};

}  // namespace bench
