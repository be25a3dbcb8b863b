// Half a message, then nothing: what no gRPC server can be told to send. The simulator sends a
// message that is marked, and a HalfMessage that sees the bytes of a connection pass to the client
// lets half of it through, and of its stream no data any more. Other streams go on.
//
// One thread at a time.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace sim {

class HalfMessage {
 public:
  // The key of the first value in a message that is to be cut.
  static constexpr std::string_view mark = "the second half of this is missing";

  // What of `bytes`, which go on with those before, may pass by now. They are HTTP/2 frames, of
  // which only whole ones are let through.
  std::string pass(std::string_view bytes);

 private:
  void passFrame(std::string_view frame, std::string& passed);

  std::string unfinished_;
  std::set<std::uint32_t> cut_;  // streams
};

}  // namespace sim
