// Base of the tags on the gateway's completion queue: one payload is one gRPC call.
//
// A payload is the tag of every operation of its call, one operation at a time.
//
// Ownership: a payload lives on the heap and belongs to its chain of events. It deletes itself in
// its last Proceed, or the client's destructor deletes it once no thread takes events any more. The
// event loop never touches a tag after Proceed.
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

  // Handles one completion; `ok` comes from the queue. May delete this object.
  virtual void Proceed(bool ok) = 0;

  // The tag to pass to every operation of the call. Proceed is called on it when one completes.
  void* tag() { return this; }

  // The call's context, left as constructed: no deadline, no metadata, no compression. A context
  // serves one call, so each attempt is a new payload.
  std::unique_ptr<grpc::ClientContext> context;
};

}  // namespace gateway
