// The baseline: the least work that a gRPC client of the same services must do. It has the module's
// structure: one queue, one thread that drains it, asynchronous readers, the same channel
// arguments.
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

// Opens a channel as the module does.
std::shared_ptr<grpc::Channel> openChannel(const std::string& target);

// Reads meter streams, and discards the messages after parsing them.
class BareReader {
 public:
  using Handler = std::function<void(const sonalith::grpc::Meter&)>;

  // What ends the queue's thread: the ends of the cancelled streams or, as in the module, an alarm
  // that is due at once, set before anything is cancelled.
  enum class WokenBy { Ends, Alarm };

  // Opens the fast stream, and the slow one if wanted, without waiting for them. The handler may be
  // empty; otherwise the queue's thread calls it for each message.
  explicit BareReader(const std::string& target, bool withSlow = false, Handler handler = nullptr,
                      WokenBy wokenBy = WokenBy::Ends);
  // Cancels the streams, joins the thread, shuts the queue down, drains it, and releases the
  // channel.
  ~BareReader();
  BareReader(const BareReader&) = delete;
  BareReader& operator=(const BareReader&) = delete;

  // The messages so far. Any thread may call this.
  std::uint64_t messages() const { return fast_.messages + slow_.messages; }
  bool everyStreamHasMessages() const {
    return fast_.messages > 0 && (!hasSlow_ || slow_.messages);
  }

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
  // Waits for the calls in flight.
  ~BareSender();
  BareSender(const BareSender&) = delete;
  BareSender& operator=(const BareSender&) = delete;

  // Starts one call with a float for each key, without waiting for it.
  void send(const std::vector<std::string>& keys);

 private:
  struct Call;
  void drain();

  grpc::CompletionQueue queue_;
  std::unique_ptr<sonalith::grpcengine::Engine::Stub> stub_;
  std::thread thread_;
};

}  // namespace bench
