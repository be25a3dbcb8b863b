// Tells whether a piece of memory was asked for by the built module's own code.
//
// A request is the module's own if the innermost caller, passing over the C and the C++ library and
// the templates of the latter, stands in grpc-gateway.so and is not code of gRPC or of protobuf
// that the compiler put there: inline parts of theirs and the generated messages. Those take memory
// in ways that do not survive its absence, and neither do the libraries themselves.
//
// Threads: any, but for the making of a LoadedModuleCode.
#pragma once

#include <array>
#include <string>
#include <string_view>

// Who asked: return addresses, the innermost first, and null behind the last.
struct Callers {
  std::array<const void*, 40> addresses{};

  // How many of them are in functions with these words in their (mangled) name.
  int count(std::string_view words) const;
  bool include(std::string_view words) const { return count(words) > 0; }
  // The (mangled) name of the module's own function that asked, by itself or through a library.
  std::string innermostOwn() const;
  std::string text() const;
};

// The module's code is known while one of these lives. The module must be loaded as long, too.
class LoadedModuleCode {
 public:
  // Throws std::runtime_error if no module is loaded, or if its file has no table of symbols.
  LoadedModuleCode();
  ~LoadedModuleCode();
  LoadedModuleCode(const LoadedModuleCode&) = delete;
  LoadedModuleCode& operator=(const LoadedModuleCode&) = delete;
};

// Whether the module's own code asks, where `returnAddress` is that of the allocating function, and
// if so, who that is. Takes no memory.
bool isOwnRequest(const void* returnAddress, Callers& callers);
