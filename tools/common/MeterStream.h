// Receives one stream of a meter server, as the bytes that the server sent.
//
// Threads: any thread may begin and cancel; gRPC's threads report. The reports of one stream come
// in order.
#pragma once

#include <grpcpp/channel.h>
#include <grpcpp/client_context.h>
#include <grpcpp/generic/generic_stub.h>
#include <grpcpp/support/byte_buffer.h>
#include <grpcpp/support/client_callback.h>
#include <grpcpp/support/status.h>

#include <cstddef>
#include <memory>
#include <string>

#include "standin/LoadedModule.h"

namespace tools {

// gRPC checks the length of a message only once it has arrived, so the length alone bounds nothing.
// It ends the streams when it has received more than this that has not been read.
inline constexpr std::size_t receiveLimit = std::size_t{64} << 20;

// A channel with the module's keepalive and a connection of its own. gRPC ends a stream that brings
// a message of more than `messageLimit` bytes.
std::shared_ptr<grpc::Channel> connectToMeters(const std::string& target, int messageLimit);

// Receives the events of streams. Members should return quickly: the next message waits.
class MeterStreamListener {
 public:
  virtual ~MeterStreamListener() = default;
  // The server has answered with its headers.
  virtual void opened(standin::SlotSet rate) = 0;
  virtual void took(standin::SlotSet rate, const grpc::ByteBuffer& message) = 0;
  // The stream's last event. The MeterStream may be destroyed from here on.
  virtual void ended(standin::SlotSet rate, const grpc::Status& status) = 0;
};

// One attempt at a stream. It must outlive its last event.
class MeterStream final : public grpc::ClientBidiReactor<grpc::ByteBuffer, grpc::ByteBuffer> {
 public:
  // Fast or Slow. Borrows the listener.
  MeterStream(standin::SlotSet rate, MeterStreamListener& listener)
      : rate_(rate), listener_(listener) {}

  // Opens the stream. Call this once; an end follows.
  void begin(grpc::GenericStub& stub);
  // Whether this thread is within `begin`: who watches the calls of the process can tell these from
  // the module's.
  static bool isBeginning();

  // Ends the stream soon.
  void cancel() { context_.TryCancel(); }

  void OnReadInitialMetadataDone(bool ok) override;
  void OnReadDone(bool ok) override;
  void OnDone(const grpc::Status& status) override;

 private:
  const standin::SlotSet rate_;
  MeterStreamListener& listener_;
  grpc::ClientContext context_;
  grpc::ByteBuffer request_;
  grpc::ByteBuffer message_;
};

}  // namespace tools
