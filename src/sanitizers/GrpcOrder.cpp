// Tells the thread sanitizer which order gRPC's completion queues guarantee.
//
// The distribution's gRPC is not instrumented, and its locks are futexes. The sanitizer therefore
// sees no order between the thread that starts an operation and the one that takes its completion,
// and would report every object passed along. The queue guarantees that the thread that takes an
// event sees what was written before its operation started. This file states exactly that, per tag,
// around the functions that start operations and take events. It orders nothing between different
// tags, so the sanitizer still finds our own races.
//
// Only programs built with the thread sanitizer link it. They export these functions so that they
// replace the libraries' own.
#include <dlfcn.h>
#include <grpc/grpc.h>
#include <grpcpp/alarm.h>
#include <grpcpp/completion_queue.h>

#define IN_FRONT_OF(symbol) __asm__(symbol) __attribute__((visibility("default")))
#define START_BATCH "grpc_call_start_batch"
#define TAKE_CORE_EVENT "grpc_completion_queue_next"
// grpc::Alarm::SetInternal and grpc::CompletionQueue::AsyncNextInternal.
#define SET_ALARM "_ZN4grpc5Alarm11SetInternalEPNS_15CompletionQueueE12gpr_timespecPv"
#define TAKE_EVENT "_ZN4grpc15CompletionQueue17AsyncNextInternalEPPvPb12gpr_timespec"

extern "C" {

void __tsan_acquire(void* address);
void __tsan_release(void* address);

grpc_call_error startBatch(grpc_call* call, const grpc_op* ops, size_t count, void* tag,
                           void* reserved) IN_FRONT_OF(START_BATCH);
grpc_event takeCoreEvent(grpc_completion_queue* queue, gpr_timespec deadline, void* reserved)
    IN_FRONT_OF(TAKE_CORE_EVENT);
void setAlarm(grpc::Alarm* alarm, grpc::CompletionQueue* queue, gpr_timespec deadline, void* tag)
    IN_FRONT_OF(SET_ALARM);
grpc::CompletionQueue::NextStatus takeEvent(grpc::CompletionQueue* queue, void** tag, bool* ok,
                                            gpr_timespec deadline) IN_FRONT_OF(TAKE_EVENT);
}

namespace {

template <class Function>
Function* theirs(const char* symbol) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, symbol));
}

// The alarm that wakes a stopping loop has no tag. The join that follows provides the order.
void started(void* tag) {
  if (tag != nullptr) __tsan_release(tag);
}

void taken(void* tag) {
  if (tag != nullptr) __tsan_acquire(tag);
}

}  // namespace

grpc_call_error startBatch(grpc_call* call, const grpc_op* ops, size_t count, void* tag,
                           void* reserved) {
  static auto* const real = theirs<decltype(startBatch)>(START_BATCH);
  started(tag);
  return real(call, ops, count, tag, reserved);
}

grpc_event takeCoreEvent(grpc_completion_queue* queue, gpr_timespec deadline, void* reserved) {
  static auto* const real = theirs<decltype(takeCoreEvent)>(TAKE_CORE_EVENT);
  const grpc_event event = real(queue, deadline, reserved);
  if (event.type == GRPC_OP_COMPLETE) taken(event.tag);
  return event;
}

void setAlarm(grpc::Alarm* alarm, grpc::CompletionQueue* queue, gpr_timespec deadline, void* tag) {
  static auto* const real = theirs<decltype(setAlarm)>(SET_ALARM);
  started(tag);
  real(alarm, queue, deadline, tag);
}

grpc::CompletionQueue::NextStatus takeEvent(grpc::CompletionQueue* queue, void** tag, bool* ok,
                                            gpr_timespec deadline) {
  static auto* const real = theirs<decltype(takeEvent)>(TAKE_EVENT);
  const auto status = real(queue, tag, ok, deadline);
  if (status == grpc::CompletionQueue::GOT_EVENT) taken(*tag);
  return status;
}
