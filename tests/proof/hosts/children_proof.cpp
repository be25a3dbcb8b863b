// A host that starts other programs: it forks, and the child runs a program or lives on as a copy.
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <csignal>
#include <future>

#include "tests/proof/hosts/HostTest.h"
#include "tools/common/ChildProcess.h"

namespace proof {
namespace {

// The descriptors that a program gets from this process, as ls lists them.
std::string descriptorsOfAChild() {
  tools::Pipe output;
  tools::ChildProcess child("/bin/ls", {"/proc/self/fd"}, {.out = output.write()});
  output.closeWrite();
  std::string text;
  std::array<char, 4096> chunk;
  for (ssize_t count; (count = read(output.read(), chunk.data(), chunk.size())) > 0;) {
    text.append(chunk.data(), static_cast<std::size_t>(count));
  }
  EXPECT_EQ(child.waitExit(), 0);
  return text;
}

// A copy of this process that runs nothing, and so keeps all descriptors, until it is destroyed.
class IdleCopy {
 public:
  IdleCopy() : pid_(fork()) {
    if (pid_ != 0) return;
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (;;) pause();
  }
  ~IdleCopy() {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  IdleCopy(const IdleCopy&) = delete;
  IdleCopy& operator=(const IdleCopy&) = delete;

 private:
  const pid_t pid_;
};

class HostThatForks : public HostTest {};

TEST_F(HostThatForks, KeepsItsStreamsAndPassesOnNoDescriptor) {
  const std::uint64_t children = scaled(20, 1000);
  const std::string usual = descriptorsOfAChild();
  startFlowing(entries);
  expectFlow();
  std::atomic<bool> over{false};
  auto forking = std::async(std::launch::async, [&] {
    for (std::uint64_t i = 0; i < children; ++i) EXPECT_EQ(descriptorsOfAChild(), usual);
    over = true;
  });
  std::uint64_t rounds = 0;
  while (!over && !HasFailure()) {
    expectFlow();
    ++rounds;
  }
  forking.get();
  stopFlowing();
  report({hostsPart,
          "one that forks, and whose children run programs",
          "",
          {{"children", children}},
          "values arrive, changes are sent, no child gets a descriptor of the module or of gRPC",
          {{"values of each stream and changes meanwhile", rounds}}});
}

// The copy keeps the sockets open, so that only what the module does can end the streams.
TEST_F(HostThatForks, StopsWhileACopyOfItLivesOn) {
  const std::uint64_t stops = scaled(2, 100);
  for (std::uint64_t i = 0; i < stops && !HasFailure(); ++i) {
    startFlowing(entries);
    expectFlow();
    const IdleCopy copy;
    expectFlow();
    stopFlowing();
    servers.forgetEvents();
  }
  report({hostsPart,
          "one that forks, and whose child lives on as a copy",
          "",
          {{"stops with a copy", stops}},
          "values arrive before the stop, and the server sees both streams cancelled"});
}

}  // namespace
}  // namespace proof
