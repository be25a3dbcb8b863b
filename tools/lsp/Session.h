// The transport of the language server: it reads frames from one descriptor and writes them to
// another.
//
// Input has precedence. Before it obeys a message, it reads all that has come, so a request that
// the editor has already cancelled costs nothing, and while the user types, no text is judged. It
// waits neither for an editor that doesn't read nor for one that doesn't write.
//
// Threads: one. Memory: at most about `messageLimit` bytes of input and of output that wait.
#pragma once

#include <cstddef>
#include <deque>
#include <string>

#include "tools/lsp/Framing.h"
#include "tools/lsp/Server.h"

namespace lsp {

class Session {
 public:
  static constexpr std::size_t messageLimit = std::size_t{64} << 20;

  // Borrows the descriptors. Ignore SIGPIPE, so that an editor that is gone is an error of writing.
  // The target is the Server's.
  Session(int in, int out, const std::string& target = {});
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Serves until the editor says "exit", ends, or closes its ends of the descriptors, and answers
  // what it has sent before. Returns the exit code. Throws std::system_error if the system can't
  // wait.
  int run();

 private:
  struct Waiting {
    Message message;
    std::size_t size = 0;  // of its content
  };

  bool wait();
  void flush();
  void watchParent();
  void read();
  void write();
  void queue(Frame frame);
  void cancel(const Json& params);
  void send(const Json& message);
  bool hasWork() const { return !waiting_.empty() || server_.hasWork(); }
  void step();

  int in_;
  int out_;
  int parent_ = -1;       // becomes readable when the parent has ended
  bool mustEnd_ = false;  // the parent has ended, or nobody reads the output
  bool inputEnded_ = false;
  FrameReader reader_{messageLimit};
  std::deque<Waiting> waiting_;
  std::size_t waitingBytes_ = 0;
  std::string output_;
  std::size_t written_ = 0;  // of the output
  Server server_;
};

}  // namespace lsp
