// Reads a recording from beginning to end. Bytes may be anything: a reader checks each size against
// the bounds of Format.h before it allocates, and each block against its checksum.
//
// Threads: one at a time.
// Memory: one block and its compressed form, at most three times recording::blockLimit.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "tools/recording/Format.h"

namespace recording {

// Fills `bytes` with the next `size` bytes of the file, and returns how many there were: fewer only
// at its end. Throws if the file can't be read.
using Source = std::function<std::size_t(char* bytes, std::size_t size)>;

// A file, or standard input for "-". Throws std::runtime_error, with path and reason, if it can't
// be opened or read.
Source fileSource(const std::string& path);

class Reader {
 public:
  // Reads the head of the file. Throws Damaged.
  explicit Reader(Source source);
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // The wall clock at time 0, in microseconds since 1970.
  std::uint64_t startTime() const { return startTime_; }

  // The next record, whose content lives until the next call. Nothing after the last one. Throws
  // Cut once all whole records before the file's early end have been returned, and Damaged for
  // everything else that is wrong.
  std::optional<Record> next();

  // How many bytes of the file have been read.
  std::uint64_t place() const { return place_; }

 private:
  struct Decompressor;

  // Reads up to `size` bytes into `bytes_`.
  void read(std::size_t size);
  void readBlock();
  void requireEnd();
  Record recordAt(std::size_t place) const;
  [[noreturn]] void throwCut() const;
  [[noreturn]] void throwDamaged(const std::string& problem) const;
  [[noreturn]] void throwBadRecord(std::size_t place, const std::string& problem) const;

  Source source_;
  std::unique_ptr<Decompressor> decompressor_;
  std::uint64_t startTime_ = 0;
  std::uint64_t place_ = 0;       // in the file
  std::uint64_t blockPlace_ = 0;  // where the current block begins in the file
  std::string bytes_;             // as read from the file
  std::string block_;             // the records of the current block
  std::size_t next_ = 0;          // the place of the next record in `block_`
  std::uint64_t latestTime_ = 0;
  bool isCut_ = false;     // the current block is incomplete
  bool isClosed_ = false;  // the last record has come
};

}  // namespace recording
