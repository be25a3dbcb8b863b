#include "tests/proof/hosts/Limits.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <grpc/grpc.h>
#include <linux/capability.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <mutex>
#include <stdexcept>
#include <string_view>
#include <system_error>

#include "tests/support/SimProcess.h"
#include "tools/common/ProcessUse.h"

namespace proof {
namespace {

// Above the user IDs that systems assign. Each process gets its own.
constexpr uid_t firstUser = 1'000'000;

std::atomic<bool> exits{false};
std::atomic<int> shutdowns{0};  // under way

std::mutex mutex;  // of the next
int refusedSockets = 0;
std::condition_variable refused;

void countRefusal() {
  const std::lock_guard lock(mutex);
  ++refusedSockets;
  refused.notify_all();
}

// The first descriptor that would be one too many.
rlim_t descriptorAfter(std::size_t room) {
  for (int descriptor = 0;; ++descriptor) {
    const bool isFree = fcntl(descriptor, F_GETFD) < 0;
    if (isFree && room-- == 0) return static_cast<rlim_t>(descriptor);
  }
}

// The original of a function that this program replaces.
template <class Function>
Function* theirs(const char* name) {
  return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

// Removes the rights to exceed limits from this thread, and so from all threads that it starts.
bool dropRightsToExceed() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  std::array<__user_cap_data_struct, 2> rights{};
  if (syscall(SYS_capget, &header, rights.data()) != 0) return false;
  rights[0].effective &= ~((1u << CAP_SYS_RESOURCE) | (1u << CAP_SYS_ADMIN));
  return syscall(SYS_capset, &header, rights.data()) == 0;
}

}  // namespace

// These take the places of functions of the C library and of gRPC in this process.
extern "C" {
int socket(int domain, int type, int protocol) noexcept {
  static auto* const real = theirs<int(int, int, int)>("socket");
  const int descriptor = real(domain, type, protocol);
  if (descriptor < 0) countRefusal();
  return descriptor;
}

void grpc_shutdown() {
  static auto* const real = theirs<void()>("grpc_shutdown");
  ++shutdowns;
  real();
  --shutdowns;
}

[[noreturn]] void abort() noexcept {
  Dl_info caller{};
  dladdr(__builtin_return_address(0), &caller);
  const std::string_view file = caller.dli_fname == nullptr ? "" : caller.dli_fname;
  const bool isGrpc = file.find("/libgpr.") != file.npos || file.find("/libgrpc.") != file.npos ||
                      file.find("/libabsl_") != file.npos;
  if (exits && isGrpc) _exit(GrpcAborted);
  theirs<void()>("abort")();
  __builtin_unreachable();
}
}

void exitIfGrpcFails() {
  exits = true;
  std::signal(SIGALRM, [](int) {
    if (shutdowns > 0) _exit(GrpcWaits);
  });
  alarm(grpcsPatience);
}

Limit::Limit(__rlimit_resource resource, rlim_t most) : resource_(resource) {
  if (getrlimit(resource, &before_) != 0) {
    throw std::system_error(errno, std::generic_category(), "getrlimit");
  }
  const rlimit limited{most, before_.rlim_max};
  if (setrlimit(resource, &limited) != 0) {
    throw std::system_error(errno, std::generic_category(), "setrlimit");
  }
}

Limit Limit::onDescriptors(std::size_t room) {
  return {RLIMIT_NOFILE, descriptorAfter(room)};
}

Limit Limit::onThreads(std::size_t room) {
  return {RLIMIT_NPROC, static_cast<rlim_t>(tools::processUse().threads + room)};
}

void Limit::lift() {
  setrlimit(resource_, &before_);
}

bool countOwnThreads() {
  const bool isOther =
      setresuid(firstUser + static_cast<uid_t>(getpid()), 0, 0) == 0 && dropRightsToExceed();
  // Another user's process may not be inspected, not even by itself.
  return isOther && prctl(PR_SET_DUMPABLE, 1) == 0;
}

RefusedSocket::RefusedSocket()
    : before_([] {
        const std::lock_guard lock(mutex);
        return refusedSockets;
      }()) {}

void RefusedSocket::await() const {
  std::unique_lock lock(mutex);
  if (refused.wait_for(lock, patience, [&] { return refusedSockets > before_; })) return;
  throw std::runtime_error("nobody has asked for a socket in vain");
}

}  // namespace proof
