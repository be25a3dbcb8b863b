#include "tools/common/ChildProcess.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

namespace tools {
namespace {

constexpr int signalBase = 128;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

bool redirect(int from, int to) {
  return from < 0 || dup2(from, to) >= 0;
}

// Between fork and exec only what is safe in a signal handler may be called.
[[noreturn]] void becomeProgram(char* const* arguments, pid_t parent, const ChildStreams& streams,
                                Session session) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The parent may have died before that call.
  const bool orphaned = getppid() != parent;
  const bool hasSession = session == Session::Shared || setsid() >= 0;
  if (!orphaned && hasSession && redirect(streams.in, STDIN_FILENO) &&
      redirect(streams.out, STDOUT_FILENO) && redirect(streams.err, STDERR_FILENO)) {
    execv(arguments[0], arguments);
  }
  _exit(127);
}

pid_t spawn(const std::string& program, const std::vector<std::string>& arguments,
            const ChildStreams& streams, Session session) {
  std::vector<std::string> texts{program};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) fail("fork");
  if (pid == 0) becomeProgram(pointers.data(), parent, streams, session);
  return pid;
}

// A system call, because the C library's header declares its own function for C only.
int openEnd(pid_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

}  // namespace

Pipe::Pipe() {
  std::array<int, 2> ends{};
  if (pipe2(ends.data(), O_CLOEXEC) != 0) fail("pipe2");
  read_ = ends[0];
  write_ = ends[1];
}

Pipe::~Pipe() {
  close(read_);
  closeWrite();
}

void Pipe::closeWrite() {
  if (write_ >= 0) close(std::exchange(write_, -1));
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments,
                           const ChildStreams& streams, Session session)
    : pid_(spawn(program, arguments, streams, session)), endDescriptor_(openEnd(pid_)) {
  if (endDescriptor_ >= 0) return;
  const int error = errno;
  signal(SIGKILL);
  waitExit();
  throw std::system_error(error, std::generic_category(), "pidfd_open");
}

ChildProcess::~ChildProcess() {
  signal(SIGKILL);
  waitExit();
  close(endDescriptor_);
}

bool ChildProcess::signal(int number) const {
  return !ended_ && kill(pid_, number) == 0;
}

void ChildProcess::waitStopped() const {
  siginfo_t stopped;
  while (waitid(P_PID, static_cast<id_t>(pid_), &stopped, WSTOPPED | WEXITED | WNOWAIT) != 0 &&
         errno == EINTR) {
  }
}

int ChildProcess::waitExit() {
  if (ended_) return exitCode_;
  int status = 0;
  while (waitpid(pid_, &status, 0) < 0 && errno == EINTR) {
  }
  ended_ = true;
  exitCode_ = WIFSIGNALED(status) ? signalBase + WTERMSIG(status) : WEXITSTATUS(status);
  return exitCode_;
}

std::string describeExit(int exitCode) {
  if (exitCode < signalBase) return fmt::format("it ended with exit code {}", exitCode);
  return fmt::format("signal {} ended it", exitCode - signalBase);
}

}  // namespace tools
