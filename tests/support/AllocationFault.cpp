#include "tests/support/AllocationFault.h"

#include <dlfcn.h>

#include <cstdlib>
#include <new>
#include <string_view>

namespace {

thread_local int allocationsToFault = 0;  // 0: none is planned

bool isInModule(const void* address) {
  Dl_info info;
  return dladdr(address, &info) != 0 && info.dli_fname != nullptr &&
         std::string_view(info.dli_fname).ends_with("/grpc-gateway.so");
}

void* allocate(std::size_t size, const void* caller) {
  if (allocationsToFault > 0 && isInModule(caller) && --allocationsToFault == 0) {
    throw std::bad_alloc();
  }
  void* const memory = std::malloc(size != 0 ? size : 1);
  if (memory == nullptr) throw std::bad_alloc();
  return memory;
}

}  // namespace

AllocationFault::AllocationFault(int nth) {
  allocationsToFault = nth;
}

AllocationFault::~AllocationFault() {
  allocationsToFault = 0;
}

void* operator new(std::size_t size) {
  return allocate(size, __builtin_return_address(0));
}
void* operator new[](std::size_t size) {
  return allocate(size, __builtin_return_address(0));
}
void operator delete(void* memory) noexcept {
  std::free(memory);
}
void operator delete[](void* memory) noexcept {
  std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
  std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
  std::free(memory);
}
