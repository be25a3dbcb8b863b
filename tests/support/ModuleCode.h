// Decides whether the built module's own code requested a block of memory.
//
// A request is the module's own if its innermost caller outside the C and C++ libraries and the
// latter's templates is in grpc-gateway.so, but not in code of gRPC or protobuf that was compiled
// into it: their inline functions and the generated messages. Such code does not survive a failed
// allocation, and neither do the libraries.
//
// Threads: any thread; only one at a time may create or destroy a LoadedModuleCode.
#pragma once

#include <array>
#include <string>
#include <string_view>

// The callers of a request: their return addresses from the innermost on, followed by nulls.
struct Callers {
  std::array<const void*, 40> addresses{};

  // How many of them are functions whose mangled name contains this text.
  int count(std::string_view part) const;
  bool include(std::string_view part) const { return count(part) > 0; }
  // The mangled name of the module's own function that made the request, directly or through a
  // library.
  std::string innermostOwn() const;
  std::string text() const;
};

// Makes the module's code known while it lives. The module must stay loaded for as long.
class LoadedModuleCode {
 public:
  // Throws std::runtime_error if no module is loaded or its file has no symbol table.
  LoadedModuleCode();
  ~LoadedModuleCode();
  LoadedModuleCode(const LoadedModuleCode&) = delete;
  LoadedModuleCode& operator=(const LoadedModuleCode&) = delete;
};

// Whether a request is the module's own, and if so, its callers. `returnAddress` is that of the
// allocating function. Allocates no memory.
bool isOwnRequest(const void* returnAddress, Callers& callers);
