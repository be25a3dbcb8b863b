#include "tests/support/SimProcess.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <functional>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>

namespace {

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

struct Pipe {
  int read = -1;
  int write = -1;
};

Pipe makePipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("pipe2");
  return {ends[0], ends[1]};
}

// A socket pair, because a pipe whose reader is gone raises SIGPIPE in the test.
Pipe makeInput() {
  std::array<int, 2> ends{};
  if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) fail("socketpair");
  return {ends[0], ends[1]};
}

// Between fork and exec only what is safe in a signal handler may be called.
[[noreturn]] void becomeTool(char* const* arguments, pid_t parent, int in, int out, int err) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  const bool orphaned = getppid() != parent;
  if (!orphaned && dup2(in, STDIN_FILENO) >= 0 && dup2(out, STDOUT_FILENO) >= 0 &&
      dup2(err, STDERR_FILENO) >= 0) {
    execv(arguments[0], arguments);
  }
  _exit(127);
}

pid_t spawn(const std::string& program, const std::vector<std::string>& arguments, int in, int out,
            int err) {
  std::vector<std::string> texts{program};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);

  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) fail("fork");
  if (pid == 0) becomeTool(pointers.data(), parent, in, out, err);
  return pid;
}

std::vector<std::string> withTargets(std::vector<std::string> arguments, const std::string& meters,
                                     const std::string& engine) {
  for (const auto& word : {std::string("--meters"), meters, std::string("--engine"), engine}) {
    arguments.push_back(word);
  }
  return arguments;
}

// Hands over what comes, until the writer has closed its end; then closes this one.
void readAll(int descriptor, const std::function<void(std::string_view)>& use) {
  std::array<char, 65536> chunk;
  for (;;) {
    const auto count = read(descriptor, chunk.data(), chunk.size());
    if (count > 0) {
      use({chunk.data(), static_cast<std::size_t>(count)});
    } else if (count == 0 || errno != EINTR) {
      break;
    }
  }
  close(descriptor);
}

}  // namespace

// What the process says, as two threads collect it.
struct ToolProcess::Output {
  struct Line {
    std::string text;
    bool waitedFor = false;
  };

  Output(int out, int err)
      : outReader([this, out] { readLines(out); }), errReader([this, err] { readErrors(err); }) {}

  ~Output() {
    outReader.join();
    errReader.join();
  }

  void readLines(int descriptor) {
    std::string pending;
    readAll(descriptor, [&](std::string_view fresh) {
      const std::lock_guard lock(mutex);
      for (auto end = fresh.find('\n'); end != fresh.npos; end = fresh.find('\n')) {
        lines.push_back({pending.append(fresh.substr(0, end))});
        pending.clear();
        fresh.remove_prefix(end + 1);
      }
      pending += fresh;
      changed.notify_all();
    });
    finish(outEnded);
  }

  // Also shown in the test's own output, for whoever reads why it failed.
  void readErrors(int descriptor) {
    readAll(descriptor, [&](std::string_view fresh) {
      const std::lock_guard lock(mutex);
      errors += fresh;
      std::fwrite(fresh.data(), 1, fresh.size(), stderr);
      changed.notify_all();
    });
    finish(errEnded);
  }

  void finish(bool& ended) {
    const std::lock_guard lock(mutex);
    ended = true;
    changed.notify_all();
  }

  std::mutex mutex;  // of all below
  std::condition_variable changed;
  std::vector<Line> lines;
  std::string errors;
  bool outEnded = false;
  bool errEnded = false;

  std::thread outReader;
  std::thread errReader;
};

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, const std::string& program)
    : program_(program) {
  const auto in = makeInput();
  const auto out = makePipe();
  const auto err = makePipe();
  pid_ = spawn(program, arguments, in.read, out.write, err.write);
  for (const int theirs : {in.read, out.write, err.write}) close(theirs);
  input_ = in.write;
  output_ = std::make_unique<Output>(out.read, err.read);
}

ToolProcess::~ToolProcess() {
  if (isRunning()) {
    ::kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  close(input_);
}

void ToolProcess::write(std::string_view text) {
  while (!text.empty()) {
    const auto count = send(input_, text.data(), text.size(), MSG_NOSIGNAL);
    if (count < 0) throw std::runtime_error(report("it does not read its input any more"));
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
  std::unique_lock lock(output_->mutex);
  auto& lines = output_->lines;
  auto found = lines.end();
  const auto isThere = [&] {
    found = std::find_if(lines.begin(), lines.end(), [&](const Output::Line& line) {
      return !line.waitedFor && line.text.starts_with(prefix);
    });
    return found != lines.end();
  };
  output_->changed.wait_for(lock, patience, [&] { return isThere() || output_->outEnded; });
  if (found != lines.end()) {
    found->waitedFor = true;
    return found->text;
  }
  lock.unlock();
  throw std::runtime_error(report("no line \"" + std::string(prefix) + "\" came"));
}

void ToolProcess::waitMore(std::string_view prefix, std::ptrdiff_t wanted) {
  std::unique_lock lock(output_->mutex);
  const auto& lines = output_->lines;
  auto next = lines.size();
  const auto haveCome = [&] {
    for (; wanted > 0 && next < lines.size(); ++next) {
      if (lines[next].text.starts_with(prefix)) --wanted;
    }
    return wanted <= 0;
  };
  output_->changed.wait_for(lock, patience, [&] { return haveCome() || output_->outEnded; });
  if (haveCome()) return;
  lock.unlock();
  throw std::runtime_error(report("no more lines \"" + std::string(prefix) + "\" came"));
}

bool ToolProcess::hasLine(std::string_view prefix) const {
  const std::lock_guard lock(output_->mutex);
  return std::any_of(output_->lines.begin(), output_->lines.end(),
                     [&](const auto& line) { return line.text.starts_with(prefix); });
}

void ToolProcess::forgetLines() {
  const std::lock_guard lock(output_->mutex);
  output_->lines.clear();
}

std::vector<std::string> ToolProcess::lines() const {
  const std::lock_guard lock(output_->mutex);
  std::vector<std::string> texts;
  for (const auto& line : output_->lines) texts.push_back(line.text);
  return texts;
}

void ToolProcess::waitError(std::string_view text) {
  std::unique_lock lock(output_->mutex);
  const auto hasCome = [&] { return output_->errors.find(text) != std::string::npos; };
  output_->changed.wait_for(lock, patience, [&] { return hasCome() || output_->errEnded; });
  if (hasCome()) return;
  lock.unlock();
  throw std::runtime_error(report("\"" + std::string(text) + "\" was not logged"));
}

std::string ToolProcess::errors() const {
  const std::lock_guard lock(output_->mutex);
  return output_->errors;
}

void ToolProcess::signal(int number) {
  if (!isRunning() || ::kill(pid_, number) != 0) {
    throw std::runtime_error(report("it can't be sent a signal"));
  }
  if (number == SIGSTOP) reap(WUNTRACED);
}

int ToolProcess::waitExit() {
  if (!isRunning()) return exitCode_;
  {
    std::unique_lock lock(output_->mutex);
    const auto silent = [&] { return output_->outEnded && output_->errEnded; };
    if (!output_->changed.wait_for(lock, patience, silent)) {
      lock.unlock();
      throw std::runtime_error(report("it does not end"));
    }
  }
  reap(0);
  return exitCode_;
}

void ToolProcess::reap(int options) {
  int status = 0;
  if (waitpid(pid_, &status, options) < 0) fail("waitpid");
  if (WIFSTOPPED(status)) return;
  pid_ = -1;
  exitCode_ = WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string ToolProcess::report(std::string_view problem) const {
  std::string text = std::filesystem::path(program_).filename().string() + ": " +
                     std::string(problem) + "; its output so far:\n";
  for (const auto& line : lines()) text += line + "\n";
  return text + "and its log:\n" + errors();
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
