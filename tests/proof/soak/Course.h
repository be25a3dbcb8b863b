// What a stream of the soak's recording sends: the numbers from 1 on, each once and each at its
// time, even if the recording is replayed again and again.
//
// Number n is due n intervals after the replay began. Its message has one value, under the key of
// slot n modulo `ring`, so a slot keeps a number until the next one of the ring replaces it. The
// value is the number's place in the recording.
//
// Now and then the recorded stream ends in order, and begins again a little later. The numbers that
// would be due in between are not sent.
//
// Any thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

namespace soak {

using Number = std::int64_t;

struct Course {
  std::string stream;  // "fast" or "slow"
  std::chrono::milliseconds interval;
  // How many slots the numbers take in turn. A slot that several gaps leave without a new number
  // must still not be behind by half a recording, so this is a small part of it.
  Number ring;
  Number recorded;  // how many numbers the recording spans, a multiple of `ring`
  Number firstEnd;  // the last number before the stream first ends
  Number endEvery;  // between one end and the next
  Number pause;     // between the last number before an end and the first one after it

  // From 1 to `recorded`.
  Number placeOf(Number number) const { return (number - 1) % recorded + 1; }
  // How many numbers after the last end, or before the first one, which is negative, a number is.
  Number sinceEnd(Number number) const;

  bool isSent(Number number) const;
  bool isLastBeforeEnd(Number number) const { return sinceEnd(number) == 0; }
  bool isFirstAfterEnd(Number number) const { return sinceEnd(number) == pause; }

  // The same text is the key, and the slot's name.
  static std::string key(Number slot) { return "ring_" + std::to_string(slot); }
};

// Writes the recording of both streams to a file. They span the same time.
void writeRecording(const std::string& path, const std::vector<Course>& courses);

}  // namespace soak
