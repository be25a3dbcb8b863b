#include "tools/demo/Child.h"

#include <fmt/format.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <system_error>

namespace demo {
namespace {

constexpr int signalBase = 128;

[[noreturn]] void fail(const char* what) {
  throw std::system_error(errno, std::generic_category(), what);
}

bool redirect(int from, int to) {
  return from < 0 || dup2(from, to) >= 0;
}

// Between fork and exec only what is safe in a signal handler may be called.
[[noreturn]] void becomeTool(char* const* arguments, pid_t parent, const Streams& streams,
                             Terminal terminal) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);
  // The parent may have died before that.
  const bool orphaned = getppid() != parent;
  const bool apart = terminal == Terminal::Shared || setsid() >= 0;
  if (!orphaned && apart && redirect(streams.in, STDIN_FILENO) &&
      redirect(streams.out, STDOUT_FILENO) && redirect(streams.err, STDERR_FILENO)) {
    execv("/proc/self/exe", arguments);
  }
  _exit(127);
}

pid_t spawn(const std::vector<std::string>& arguments, const Streams& streams, Terminal terminal) {
  std::vector<std::string> texts{"gatewayctl"};
  texts.insert(texts.end(), arguments.begin(), arguments.end());
  std::vector<char*> pointers;
  pointers.reserve(texts.size() + 1);
  for (auto& text : texts) pointers.push_back(text.data());
  pointers.push_back(nullptr);
  const pid_t parent = getpid();
  const pid_t pid = fork();
  if (pid < 0) fail("fork");
  if (pid == 0) becomeTool(pointers.data(), parent, streams, terminal);
  return pid;
}

// The C library's own function is declared for C alone.
int openEnd(pid_t pid) {
  return static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
}

}  // namespace

Child::Child(const std::vector<std::string>& arguments, const Streams& streams, Terminal terminal)
    : pid_(spawn(arguments, streams, terminal)), endDescriptor_(openEnd(pid_)) {
  if (endDescriptor_ >= 0) return;
  const int error = errno;
  signal(SIGKILL);
  waitExit();
  throw std::system_error(error, std::generic_category(), "pidfd_open");
}

Child::~Child() {
  signal(SIGKILL);
  waitExit();
  close(endDescriptor_);
}

void Child::signal(int number) const {
  if (!ended_) kill(pid_, number);
}

int Child::waitExit() {
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
  return fmt::format("it was ended by signal {}", exitCode - signalBase);
}

}  // namespace demo
