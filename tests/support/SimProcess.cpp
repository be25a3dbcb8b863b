#include "tests/support/SimProcess.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "tools/common/ChildProcess.h"
#include "tools/common/Terminal.h"

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

// The two ends of a process's standard input. A socket pair, because writing to a pipe whose reader
// is gone raises SIGPIPE in the test.
std::array<int, 2> makeInput() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) fail("socketpair");
  return ends;
}

std::vector<std::string> withTargets(std::vector<std::string> arguments, const std::string& meters,
                                     const std::string& engine) {
  for (const auto& word : {std::string("--meters"), meters, std::string("--engine"), engine}) {
    arguments.push_back(word);
  }
  return arguments;
}

}  // namespace

// The process, and its output as two threads collect it.
struct ToolProcess::Run {
  struct Line {
    std::string text;
    bool waitedFor = false;
  };

  Run(const std::string& program, const std::vector<std::string>& arguments, int in)
      : child(program, arguments, {in, out.write(), err.write()}) {
    out.closeWrite();
    err.closeWrite();
    outReader = std::jthread([this] { readLines(); });
    errReader = std::jthread([this] { readErrors(); });
  }

  void readLines() {
    tools::InputLines input(out.read());
    while (!input.ended()) {
      auto fresh = input.take();
      const std::lock_guard lock(mutex);
      for (auto& line : fresh) lines.push_back({std::move(line)});
      changed.notify_all();
    }
    finish(outEnded);
  }

  // Also shown in the test's own output, for anyone who reads why it failed.
  void readErrors() {
    std::array<char, 65536> chunk;
    for (ssize_t count; (count = read(err.read(), chunk.data(), chunk.size())) > 0;) {
      const std::string_view fresh(chunk.data(), static_cast<std::size_t>(count));
      const std::lock_guard lock(mutex);
      errors += fresh;
      std::fwrite(fresh.data(), 1, fresh.size(), stderr);
      changed.notify_all();
    }
    finish(errEnded);
  }

  static std::vector<std::string> textsOf(const std::vector<Line>& lines) {
    std::vector<std::string> texts;
    texts.reserve(lines.size());
    for (const auto& line : lines) texts.push_back(line.text);
    return texts;
  }

  void finish(bool& ended) {
    const std::lock_guard lock(mutex);
    ended = true;
    changed.notify_all();
  }

  std::mutex mutex;  // of the output
  std::condition_variable changed;
  std::vector<Line> lines;
  std::string errors;
  bool outEnded = false;
  bool errEnded = false;

  tools::Pipe out;
  tools::Pipe err;
  // The readers end with the process, which is therefore destroyed first.
  std::jthread outReader;
  std::jthread errReader;
  tools::ChildProcess child;
};

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, const std::string& program)
    : program_(program) {
  const auto [theirs, ours] = makeInput();
  input_ = ours;
  run_ = std::make_unique<Run>(program, arguments, theirs);
  close(theirs);
}

ToolProcess::~ToolProcess() {
  run_.reset();
  close(input_);
}

void ToolProcess::write(std::string_view text) {
  while (!text.empty()) {
    const auto count = send(input_, text.data(), text.size(), MSG_NOSIGNAL);
    if (count < 0) throw std::runtime_error(report("it no longer reads its input"));
    text.remove_prefix(static_cast<std::size_t>(count));
  }
}

void ToolProcess::writeLine(std::string_view line) {
  write(std::string(line) + "\n");
}

void ToolProcess::closeInput() {
  shutdown(input_, SHUT_WR);
}

std::string ToolProcess::waitLine(std::string_view prefix) {
  std::unique_lock lock(run_->mutex);
  auto& lines = run_->lines;
  auto found = lines.end();
  const auto isThere = [&] {
    found = std::find_if(lines.begin(), lines.end(), [&](const Run::Line& line) {
      return !line.waitedFor && line.text.starts_with(prefix);
    });
    return found != lines.end();
  };
  run_->changed.wait_for(lock, patience, [&] { return isThere() || run_->outEnded; });
  if (found != lines.end()) {
    found->waitedFor = true;
    return found->text;
  }
  lock.unlock();
  throw std::runtime_error(report("no line \"" + std::string(prefix) + "\" came"));
}

void ToolProcess::waitMore(std::string_view prefix, std::ptrdiff_t wanted) {
  std::unique_lock lock(run_->mutex);
  const auto& lines = run_->lines;
  auto next = lines.size();
  const auto haveCome = [&] {
    for (; wanted > 0 && next < lines.size(); ++next) {
      if (lines[next].text.starts_with(prefix)) --wanted;
    }
    return wanted <= 0;
  };
  run_->changed.wait_for(lock, patience, [&] { return haveCome() || run_->outEnded; });
  if (haveCome()) return;
  lock.unlock();
  throw std::runtime_error(report("no more lines \"" + std::string(prefix) + "\" came"));
}

bool ToolProcess::hasLine(std::string_view prefix) const {
  const std::lock_guard lock(run_->mutex);
  return std::any_of(run_->lines.begin(), run_->lines.end(),
                     [&](const auto& line) { return line.text.starts_with(prefix); });
}

std::vector<std::string> ToolProcess::takeLines() {
  const std::lock_guard lock(run_->mutex);
  run_->errors.clear();
  return Run::textsOf(std::exchange(run_->lines, {}));
}

std::vector<std::string> ToolProcess::lines() const {
  const std::lock_guard lock(run_->mutex);
  return Run::textsOf(run_->lines);
}

void ToolProcess::waitError(std::string_view text) {
  std::unique_lock lock(run_->mutex);
  const auto hasCome = [&] { return run_->errors.find(text) != std::string::npos; };
  run_->changed.wait_for(lock, patience, [&] { return hasCome() || run_->errEnded; });
  if (hasCome()) return;
  lock.unlock();
  throw std::runtime_error(report("\"" + std::string(text) + "\" was not logged"));
}

bool ToolProcess::hasError(std::string_view text) const {
  const std::lock_guard lock(run_->mutex);
  return run_->errors.find(text) != std::string::npos;
}

std::string ToolProcess::errors() const {
  const std::lock_guard lock(run_->mutex);
  if (!run_->errEnded) throw std::logic_error("errors() of a process that may still log");
  return run_->errors;
}

pid_t ToolProcess::pid() const {
  return run_->child.pid();
}

void ToolProcess::signal(int number) {
  if (!run_->child.signal(number)) throw std::runtime_error(report("it can't be sent a signal"));
  if (number == SIGSTOP) run_->child.waitStopped();
}

int ToolProcess::waitExit() {
  {
    std::unique_lock lock(run_->mutex);
    const auto silent = [&] { return run_->outEnded && run_->errEnded; };
    if (!run_->changed.wait_for(lock, patience, silent)) {
      lock.unlock();
      throw std::runtime_error(report("it does not end"));
    }
  }
  return run_->child.waitExit();
}

std::string ToolProcess::report(std::string_view problem) const {
  std::string text = std::filesystem::path(program_).filename().string() + ": " +
                     std::string(problem) + "; its output so far:\n";
  for (const auto& line : lines()) text += line + "\n";
  const std::lock_guard lock(run_->mutex);
  return text + "and its log:\n" + run_->errors;
}

SimProcess::SimProcess(const std::string& metersTarget, const std::string& engineTarget,
                       const ServerProgram& program)
    : process_(withTargets(program.arguments, metersTarget, engineTarget), program.path) {
  const auto targetIn = [&](std::string_view prefix) {
    return process_.waitLine(prefix).substr(prefix.size());
  };
  if (!metersTarget.empty()) metersTarget_ = targetIn("meters ");
  if (!engineTarget.empty()) engineTarget_ = targetIn("engine ");
}

SimProcess::~SimProcess() {
  try {
    if (frozen_) thaw();
    if (ended_) return;
    EXPECT_EQ(quit(), 0) << "the simulator failed; its log:\n" << process_.errors();
  } catch (const std::exception& error) {
    ADD_FAILURE() << error.what();
  }
}

void SimProcess::command(const std::string& line) {
  process_.writeLine(line);
  if (frozen_) return;
  const auto done = "sync " + std::to_string(++commands_);
  process_.writeLine(done);
  process_.waitLine(done);
}

int SimProcess::quit() {
  ended_ = true;
  process_.closeInput();
  return process_.waitExit();
}

void SimProcess::kill() {
  ended_ = true;
  frozen_ = false;
  process_.signal(SIGKILL);
  process_.waitExit();
}

void SimProcess::freeze() {
  process_.signal(SIGSTOP);
  frozen_ = true;
}

void SimProcess::thaw() {
  process_.signal(SIGCONT);
  frozen_ = false;
}

std::string toHex(std::string_view bytes) {
  constexpr std::string_view digits = "0123456789abcdef";
  std::string hex;
  for (const char character : bytes) {
    const auto byte = static_cast<unsigned char>(character);
    hex += digits[byte / 16];
    hex += digits[byte % 16];
  }
  return hex.empty() ? "-" : hex;
}

std::string toHex(const google::protobuf::MessageLite& message) {
  return toHex(message.SerializeAsString());
}

int freePort() {
  const int socket = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  socklen_t size = sizeof(address);
  const bool bound = bind(socket, generic, size) == 0 && getsockname(socket, generic, &size) == 0;
  close(socket);
  if (!bound) fail("bind");
  return ntohs(address.sin_port);
}

std::string unusedTarget() {
  return "127.0.0.1:" + std::to_string(freePort());
}
