// Half a message, then nothing: no gRPC server can be made to send that. So the simulator sends a
// marked message, and a HalfMessage filters the bytes on their way to the client. It passes half of
// the marked message, and after that no more data of the same stream. Other streams pass whole.
//
// Threads: one at a time.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <string_view>

namespace sim {

class HalfMessage {
 public:
  // The mark: the key of the message's first value.
  static constexpr std::string_view mark = "the second half of this is missing";

  // Takes the next bytes of the connection, which are HTTP/2 frames or parts of them. Returns what
  // may pass now: only whole frames do.
  std::string pass(std::string_view bytes);

 private:
  void passFrame(std::string_view frame, std::string& passed);

  std::string unfinished_;
  std::set<std::uint32_t> cut_;  // streams
};

}  // namespace sim
