// Writes a recording: encodes records and compresses them in blocks, each of which can be read by
// itself. What has been written is always the beginning of a valid recording.
//
// Threads: one at a time.
// Memory: one block and its compressed form, at most twice recording::blockLimit.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "tools/recording/Format.h"

namespace recording {

// Takes the next bytes of the recording. May throw: the Writer then can't continue.
using Sink = std::function<void(std::string_view bytes)>;

class Writer {
 public:
  // Writes the head of the file. `startTime`: the wall clock at time 0, in microseconds since 1970.
  Writer(Sink sink, std::uint64_t startTime);
  ~Writer();
  Writer(const Writer&) = delete;
  Writer& operator=(const Writer&) = delete;

  // Adds a record, and writes a block when it is due. Throws std::invalid_argument for a record
  // that no reader would accept: content of a wrong size, or a time before the last one.
  void add(const Record& record);

  // Writes the block that is due by `time`, so that a quiet recording reaches the disk, too.
  void flushIfDue(std::uint64_t time);

  // Adds the last record and writes everything. Call this once, at the end.
  void close(std::uint64_t time);

 private:
  struct Compressor;

  void flush();

  Sink sink_;
  std::unique_ptr<Compressor> compressor_;
  std::string block_;             // the records of the block, uncompressed
  std::uint64_t firstTime_ = 0;   // of the block's first record
  std::uint64_t latestTime_ = 0;  // of the recording's latest record
};

}  // namespace recording
