// Records what several threads report, without making any of them wait for the disk: they hand
// their records over, and a thread of its own compresses and writes them.
//
// If the disk is too slow, the Recorder holds records up to a bound. It drops what comes beyond
// that, and what no recording can hold, and puts a record of the loss where the dropped ones would
// be.
//
// Threads: `add` is for any thread; the rest is for the thread that made the Recorder.
// Ownership: it borrows its descriptor.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>

#include "tools/recording/Format.h"
#include "tools/recording/Writer.h"

namespace recording {

// A file to write, or standard output for "-". The descriptor is closed at the end.
class OutputFile {
 public:
  // Creates the file, or empties it. Throws std::runtime_error, with path and reason, if that
  // fails, and if standard output is a terminal.
  explicit OutputFile(const std::string& path);
  ~OutputFile();
  OutputFile(const OutputFile&) = delete;
  OutputFile& operator=(const OutputFile&) = delete;

  int descriptor() const { return descriptor_; }
  // For messages.
  const std::string& name() const { return name_; }

 private:
  std::string name_;
  int descriptor_;
};

// What has been recorded of a stream.
struct StreamTotals {
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;
  LostContent lost;           // not recorded
  std::uint64_t tooLong = 0;  // how many of these exceed contentLimit
};

class Recorder {
 public:
  // For the contents that wait to be written. Their other costs add little.
  static constexpr std::size_t queueLimit = std::size_t{64} * 1024 * 1024;

  // Starts writing. Time 0 is now. Throws std::system_error if the system has no descriptor left.
  explicit Recorder(const OutputFile& file, std::size_t limit = queueLimit);
  // Ends without closing the recording, unless close was called.
  ~Recorder();
  Recorder(const Recorder&) = delete;
  Recorder& operator=(const Recorder&) = delete;

  // Records an event that happens now. A content beyond contentLimit is lost.
  void add(Kind kind, Stream stream, std::uint32_t number, std::string content);

  // Becomes readable if the recording can't be written any more; only for waiting.
  int failureDescriptor() const { return failure_; }

  // Whether that is so.
  bool hasFailed() const;

  // Writes everything that has been added, and ends the recording. Throws std::runtime_error, with
  // name and reason, if not everything could be written.
  void close();

  StreamTotals totalsOf(Stream stream) const;

  // How much of a stream was lost and why, in sentences; empty if nothing was.
  std::string lossOf(Stream stream) const;

 private:
  struct Queued {
    Kind kind;
    Stream stream;
    std::uint32_t number;
    std::uint64_t time;
    std::string content;
  };
  // Of one stream, since the last record that was not dropped.
  struct Dropped {
    std::uint32_t number = 0;
    LostContent lost;
  };

  std::uint64_t now() const;
  // Call these with the mutex locked.
  bool isDropped(const Queued& record);
  void push(Queued record);
  void pushLoss(Stream stream, std::uint64_t time);

  void run();
  void writeAll();
  void write(const std::deque<Queued>& batch, Writer& writer);
  void fail(const std::string& reason);

  const OutputFile& file_;
  const std::size_t limit_;
  const int failure_;
  const std::chrono::steady_clock::time_point begin_ = std::chrono::steady_clock::now();
  const std::uint64_t startTime_;  // the wall clock at time 0

  mutable std::mutex mutex_;  // protects all below
  std::condition_variable arrived_;
  std::deque<Queued> queue_;
  std::size_t held_ = 0;  // bytes of content that wait, or are being written
  std::map<Stream, Dropped> dropped_;
  std::map<Stream, StreamTotals> totals_;
  std::string error_;
  bool ends_ = false;    // write what waits, and end
  bool closes_ = false;  // and write the last record

  std::thread thread_;
};

}  // namespace recording
