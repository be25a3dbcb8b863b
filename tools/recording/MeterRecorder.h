// Records both streams of a meter server. It opens them as the module does: whatever ends a stream,
// it opens it again after five seconds, over the same channel.
//
// Threads: made and destroyed by one thread. gRPC's threads bring the events.
// Ownership: it borrows the Recorder, and ends its streams when it is destroyed.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "tools/recording/Recorder.h"

namespace recording {

class MeterRecorder {
 public:
  // Takes a sentence about a stream, on any thread.
  using Say = std::function<void(const std::string& sentence)>;

  // Starts connecting and opens both streams.
  MeterRecorder(const std::string& target, Recorder& recorder, Say say);
  ~MeterRecorder();
  MeterRecorder(const MeterRecorder&) = delete;
  MeterRecorder& operator=(const MeterRecorder&) = delete;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace recording
