// Records what a running module's servers do: both meter streams, received over a connection of its
// own beside the module's, and the calls that the module makes to the engine service.
//
// Threads: the one that made it, except for the tap, which is for any thread.
// Ownership: calls that outlive it share ownership of what their tap needs.
#pragma once

#include <memory>
#include <string>

#include "tools/host/CallWatch.h"

namespace host {

class SessionRecorder {
 public:
  // Creates the file. Throws std::runtime_error, with path and reason, if that fails.
  explicit SessionRecorder(const std::string& path);
  // Leaves the recording incomplete, unless `close` was called.
  ~SessionRecorder();
  SessionRecorder(const SessionRecorder&) = delete;
  SessionRecorder& operator=(const SessionRecorder&) = delete;

  // For the calls to the engine service.
  TappedMethod tap() const;

  // Records the streams of this server from here on, instead of those of another one. An empty
  // target stands for no server.
  void follow(const std::string& metersTarget);

  // Whether nothing more can be written.
  bool hasFailed() const;

  // Ends the recording. Returns what was lost and why, in sentences, or nothing. Throws
  // std::runtime_error, with path and reason, if not everything could be written.
  std::string close();

 private:
  struct State;
  std::shared_ptr<State> state_;
};

}  // namespace host
