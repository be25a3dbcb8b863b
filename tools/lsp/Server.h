// The language server, without its transport: it takes messages and sends messages.
//
// It judges nothing while it takes messages. The owner calls work() when no further message has
// come, so that of the texts that a user types only the newest is judged.
//
// Threads: one at a time; a standin::Host must exist.
#pragma once

#include <sys/types.h>

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "tools/lsp/Checks.h"
#include "tools/lsp/Documents.h"
#include "tools/lsp/Features.h"
#include "tools/lsp/MeterServer.h"
#include "tools/lsp/Rpc.h"

namespace lsp {

class Server {
 public:
  using Send = std::function<void(const Json& message)>;

  // Completes keys that a meter server sends, if a target is given. That of "initialize" has
  // precedence.
  explicit Server(Send send, const std::string& target = {});

  // Obeys a message, and answers it if it is a request. Throws nothing because of a message.
  void take(const Message& message);

  // Whether texts are still to be judged, or diagnostics to be published.
  bool hasWork() const { return isStale_ && state_ == State::Running; }
  // Does a small part of it.
  void work();

  // After "exit".
  bool hasEnded() const { return state_ == State::Ended; }
  // 0 if "shutdown" has been requested.
  int exitCode() const { return wasShutDown_ ? 0 : 1; }
  // The process that the server must not survive, if the editor has named one.
  std::optional<pid_t> parent() const { return parent_; }

 private:
  enum class State {
    Created,  // until "initialize"
    Running,
    ShutDown,  // from "shutdown" to "exit"
    Ended,
  };

  void answer(const Message& request);
  Json resultFor(const Message& request);
  Json featureOf(const std::string& method, const Json& params);
  void obey(const Message& notification);
  Json initialize(const Json& params);
  void registerWatch();
  void listen();
  Json complete(const Json& params);
  void publish();
  void complain(const std::string& text);
  void warn(const std::string& text);

  Send send_;
  State state_ = State::Created;
  bool wasShutDown_ = false;
  std::optional<pid_t> parent_;
  Json target_;  // as given, until "initialized"
  std::optional<MeterServer> meters_;
  Client client_;
  Documents documents_;
  Checks checks_{documents_};
  bool isStale_ = false;
  std::map<std::string, Json> published_;  // the last params by URI, of those not empty
};

}  // namespace lsp
