// Base of the tags on the gateway's completion queue: one payload is one gRPC call.
//
// A payload is the tag of every operation of its call, one after the other, never of two at a time.
// It is made on the heap and owned by that chain of events: it deletes itself in its last Proceed,
// or is deleted by the client's destructor once no thread takes events any more. The queue's loop
// never touches a tag after Proceed.
//
// Threads: Proceed runs on the client thread only, so a payload's fields need no lock.
#pragma once

#include <grpcpp/client_context.h>

#include <memory>

namespace gateway {

class AsyncEventPayload {
 public:
  AsyncEventPayload();
  virtual ~AsyncEventPayload();
  AsyncEventPayload(const AsyncEventPayload&) = delete;
  AsyncEventPayload& operator=(const AsyncEventPayload&) = delete;

  // Takes one completion; `ok` as the queue gave it. May delete this object.
  virtual void Proceed(bool ok) = 0;

  // What every operation of the call is to pass, and what Proceed is called on when it comes back.
  void* tag() { return this; }

  // The call's context, left as constructed: no deadline, no metadata, no compression. A context
  // serves one call, so a further attempt is a further payload.
  std::unique_ptr<grpc::ClientContext> context;
};

}  // namespace gateway
