#include "tools/lsp/Session.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <climits>
#include <system_error>
#include <utility>

#include "tools/common/Json.h"

namespace lsp {

Session::Session(int in, int out, const std::string& target)
    : in_(in), out_(out), server_([this](const Json& message) { send(message); }, target) {}

Session::~Session() {
  if (parent_ >= 0) close(parent_);
}

int Session::run() {
  while (!mustEnd_ && !server_.hasEnded() && (!inputEnded_ || hasWork())) {
    const bool mayStep = !wait();
    if (mayStep && hasWork()) step();
  }
  flush();
  return server_.exitCode();
}

// Writes what is left, unless the editor no longer reads.
void Session::flush() {
  constexpr int patienceMs = 2000;
  pollfd output{out_, POLLOUT, 0};
  while (!mustEnd_ && written_ < output_.size() && poll(&output, 1, patienceMs) > 0) write();
}

// ---- Waiting ----------------------------------------------------------------------------------

// Reads and writes what it can. Waits only if there is nothing else to do. Returns whether there
// may be more to read.
bool Session::wait() {
  const bool wantsInput = !inputEnded_ && waitingBytes_ <= messageLimit;
  const bool hasOutput = written_ < output_.size();
  const bool isClogged = output_.size() - written_ > messageLimit;
  std::array<pollfd, 3> descriptors{{{wantsInput && !isClogged ? in_ : -1, POLLIN, 0},
                                     {hasOutput ? out_ : -1, POLLOUT, 0},
                                     {parent_, POLLIN, 0}}};
  const int limit = hasWork() && !isClogged ? 0 : -1;
  if (poll(descriptors.data(), descriptors.size(), limit) < 0) {
    if (errno == EINTR) return true;
    throw std::system_error(errno, std::generic_category(), "can't wait for the editor");
  }
  if (descriptors[2].revents != 0) mustEnd_ = true;
  if (descriptors[1].revents != 0) write();
  if (descriptors[0].revents != 0) read();
  return descriptors[0].revents != 0 || isClogged;
}

// The editor may crash without closing its pipes, if other processes have inherited them.
void Session::watchParent() {
  if (parent_ >= 0 || !server_.parent()) return;
  parent_ = static_cast<int>(syscall(SYS_pidfd_open, *server_.parent(), 0));
  if (parent_ < 0 && errno == ESRCH) mustEnd_ = true;
}

// ---- Input ------------------------------------------------------------------------------------

void Session::read() {
  std::array<char, 65536> buffer;
  const ssize_t got = ::read(in_, buffer.data(), buffer.size());
  if (got < 0 && (errno == EINTR || errno == EAGAIN)) return;
  if (got <= 0) {
    inputEnded_ = true;
    return;
  }
  reader_.add({buffer.data(), static_cast<std::size_t>(got)});
  while (auto frame = reader_.next()) queue(std::move(*frame));
}

void Session::queue(Frame frame) {
  try {
    if (!frame.problem.empty()) throw RpcError(ErrorCode::ParseError, frame.problem);
    Message message = messageIn(frame.content);
    if (message.method == "$/cancelRequest") return cancel(message.params);
    waiting_.push_back({std::move(message), frame.content.size()});
    waitingBytes_ += frame.content.size();
  } catch (const RpcError& error) {
    send(errorOf(nullptr, error.code, error.what()));
  }
}

// A request that has been answered can't be cancelled any more.
void Session::cancel(const Json& params) {
  if (!params.is_object()) return;
  const Json id = params.value("id", Json());
  const auto found = std::find_if(waiting_.begin(), waiting_.end(), [&](const Waiting& each) {
    return each.message.isRequest() && each.message.id == id;
  });
  if (found == waiting_.end()) return;
  waitingBytes_ -= found->size;
  waiting_.erase(found);
  send(errorOf(id, ErrorCode::RequestCancelled, "the editor has cancelled the request"));
}

void Session::step() {
  if (waiting_.empty()) return server_.work();
  const Waiting next = std::move(waiting_.front());
  waiting_.pop_front();
  waitingBytes_ -= next.size;
  server_.take(next.message);
  watchParent();
}

// ---- Output -----------------------------------------------------------------------------------

void Session::send(const Json& message) {
  output_.erase(0, std::exchange(written_, 0));
  output_ += framed(tools::jsonText(message));
}

void Session::write() {
  // A pipe that can take anything takes this much without blocking.
  const std::size_t size = std::min<std::size_t>(output_.size() - written_, PIPE_BUF);
  const ssize_t got = ::write(out_, output_.data() + written_, size);
  if (got < 0 && errno != EINTR && errno != EAGAIN) mustEnd_ = true;
  if (got > 0) written_ += static_cast<std::size_t>(got);
}

}  // namespace lsp
