// The server of the measurements. It serves both services as fast as gRPC can, with messages that
// were serialised beforehand, so that mainly the client's work is measured.
//
//   bench-server --values FILE --pace PACE --board FILE
//
// FILE has a line "TYPE KEY" for each value of a message (Messages.h). PACE is "once" (one message
// at the beginning of a stream), "full" (as fast as the client reads) or messages per second. The
// server prints "port NUMBER", and ends when its input does.
#include <grpcpp/completion_queue.h>
#include <grpcpp/generic/async_generic_service.h>
#include <grpcpp/security/server_credentials.h>
#include <grpcpp/server.h>
#include <grpcpp/server_builder.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>

#include "bench/Board.h"
#include "bench/InputEnd.h"
#include "bench/Messages.h"

namespace {

using bench::Board;
using bench::Messages;

grpc::ByteBuffer messageOf(const Messages& messages, std::uint64_t sequence) {
  grpc::Slice slice(messages.size());
  messages.write(reinterpret_cast<char*>(const_cast<std::uint8_t*>(slice.begin())), sequence);
  return grpc::ByteBuffer(&slice, 1);
}

struct Pace {
  bool once = false;
  double perSecond = 0;  // 0: as fast as the client reads

  explicit Pace(const std::string& text) {
    if (text == "once") {
      once = true;
    } else if (text != "full") {
      perSecond = std::stod(text);
    }
  }
};

class Server;

// A call, from the time before a client makes it until its end. It is the tag of its operations, of
// which there is one at a time.
class Call {
 public:
  explicit Call(Server& server);
  void proceed(bool ok);
  // Writes the next message of a paced stream. Don't call this while a write is under way.
  void writePaced();
  bool isWriting() const { return writing_; }

 private:
  enum class State { Awaited, Streaming, Asked, Ending };

  void begin();
  void writeNext();
  void end();

  Server& server_;
  State state_ = State::Awaited;
  std::atomic<bool> writing_ = false;
  std::uint64_t sequence_ = 0;
  grpc::GenericServerContext context_;
  grpc::GenericServerAsyncReaderWriter stream_{&context_};
  grpc::ByteBuffer request_;
};

class Server {
 public:
  Server(const Messages& sent, Pace wanted, Board& shared)
      : messages(sent), pace(wanted), board(shared) {
    grpc::ServerBuilder builder;
    builder.AddListeningPort("0.0.0.0:0", grpc::InsecureServerCredentials(), &port);
    builder.RegisterAsyncGenericService(&service);
    queue = builder.AddCompletionQueue();
    server = builder.BuildAndStart();
  }

  void serve() {
    new Call(*this);
    void* tag = nullptr;
    bool ok = false;
    while (queue->Next(&tag, &ok)) static_cast<Call*>(tag)->proceed(ok);
  }

  // Writes to every open stream, `perSecond` times per second. A stream that is still busy with its
  // last message skips one.
  [[noreturn]] void keepPace() {
    const auto period = static_cast<std::uint64_t>(1e9 / pace.perSecond);
    for (std::uint64_t next = bench::nanoseconds(CLOCK_MONOTONIC);; next += period) {
      const timespec when{static_cast<time_t>(next / 1'000'000'000u),
                          static_cast<long>(next % 1'000'000'000u)};
      clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &when, nullptr);
      const std::lock_guard lock(mutex);
      for (Call* const call : paced) {
        if (!call->isWriting()) call->writePaced();
      }
    }
  }

  const Messages& messages;
  const Pace pace;
  Board& board;
  int port = 0;
  grpc::AsyncGenericService service;
  std::unique_ptr<grpc::ServerCompletionQueue> queue;
  std::unique_ptr<grpc::Server> server;
  std::mutex mutex;
  std::set<Call*> paced;
};

Call::Call(Server& server) : server_(server) {
  server_.service.RequestCall(&context_, &stream_, server_.queue.get(), server_.queue.get(), this);
}

void Call::proceed(bool ok) {
  if (ok) writing_ = false;  // stays true on a failed stream, which must not be written to again
  if (state_ == State::Ending || (state_ == State::Awaited && !ok)) {
    delete this;
  } else if (!ok) {
    end();
  } else if (state_ == State::Awaited) {
    new Call(server_);
    begin();
  } else if (state_ == State::Asked) {
    server_.board.answeredCalls.fetch_add(1);
    state_ = State::Ending;
    grpc::Slice nothing;
    stream_.WriteAndFinish(grpc::ByteBuffer(&nothing, 1), {}, grpc::Status::OK, this);
  } else if (!server_.pace.once && server_.pace.perSecond == 0) {
    writeNext();
  }
}

void Call::begin() {
  if (context_.method().ends_with("/SetParams")) {
    state_ = State::Asked;
    stream_.Read(&request_, this);
    return;
  }
  state_ = State::Streaming;
  if (server_.pace.perSecond > 0) {
    const std::lock_guard lock(server_.mutex);
    server_.paced.insert(this);
  } else {
    writeNext();
  }
}

void Call::writeNext() {
  ++sequence_;
  writing_ = true;
  stream_.Write(messageOf(server_.messages, sequence_), this);
}

void Call::writePaced() {
  server_.board.timeOf(sequence_ + 1) = bench::nanoseconds(CLOCK_MONOTONIC);
  writeNext();
}

void Call::end() {
  {
    const std::lock_guard lock(server_.mutex);
    server_.paced.erase(this);
  }
  state_ = State::Ending;
  stream_.Finish(grpc::Status::OK, this);
}

}  // namespace

int main(int argc, char** argv) {
  CLI::App app("Serves meters and accepts parameters as fast as gRPC can.");
  std::string values;
  std::string pace = "full";
  std::string board;
  app.add_option("--values", values)->required();
  app.add_option("--pace", pace);
  app.add_option("--board", board)->required();
  CLI11_PARSE(app, argc, argv);

  const Messages messages(values);
  Server server(messages, Pace(pace), bench::openBoard(board));
  std::printf("port %d\n", server.port);
  std::fflush(stdout);
  std::thread(bench::endWithInput).detach();
  if (server.pace.perSecond > 0) std::thread([&] { server.keepPace(); }).detach();
  server.serve();
}
