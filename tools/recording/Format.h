// The format of a recording: what a meter server sent and when, how its streams ended, and which
// calls the engine service received. docs/recording.md describes every byte.
//
// Any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <string_view>

namespace recording {

inline constexpr std::string_view magic = "GWRECORD";
inline constexpr std::uint32_t version = 1;

// The bounds that a reader checks before it allocates anything.
inline constexpr std::size_t contentLimit = std::size_t{16} * 1024 * 1024;  // of one record
inline constexpr std::size_t recordHeadSize = 20;
inline constexpr std::size_t blockTarget = std::size_t{256} * 1024;  // a block closes beyond this
inline constexpr std::size_t blockLimit = blockTarget + recordHeadSize + contentLimit;

inline constexpr std::size_t fileHeadSize = 24;
inline constexpr std::size_t blockHeadSize = 12;

// A block also closes when its first record is this old, in microseconds.
inline constexpr std::uint64_t blockPeriod = 1000000;

enum class Stream : std::uint8_t { Fast, Slow, Engine };

enum class Kind : std::uint8_t {
  Started,  // an attempt to open the stream, or a call: the content is the target
  Opened,   // the server has answered with its headers
  Message,  // a message of the server, or the request of a call
  Reply,    // the answer to a call
  Ended,    // the server or the connection ended it: an EndContent
  Lost,     // messages that were too fast for the disk: a LostContent
  Closed,   // the recording is complete: always its last record
};

std::string_view nameOf(Stream stream);
std::string_view nameOf(Kind kind);

// One event. `content` is borrowed from whoever made the record.
struct Record {
  Kind kind = Kind::Closed;
  Stream stream = Stream::Fast;
  std::uint32_t number = 0;  // of the attempt, or of the engine call; from 1
  std::uint64_t time = 0;    // microseconds since the start; never decreases
  std::string_view content;

  bool operator==(const Record&) const = default;
};

// How a stream or a call ended: gRPC's status.
struct EndContent {
  std::int32_t code = 0;
  std::string_view text;  // borrowed from the record's content
};

// What a Lost record stands for.
struct LostContent {
  std::uint64_t messages = 0;
  std::uint64_t bytes = 0;
};

std::string contentOf(const EndContent& end);
std::string contentOf(const LostContent& lost);
// For the content of such a record. A reader has checked that it is long enough.
EndContent endIn(std::string_view content);
LostContent lostIn(std::string_view content);

// Whether the content of a record of this kind can have this size.
bool fits(Kind kind, std::size_t contentSize);

// Unsigned numbers, least significant byte first.
void appendNumber(std::string& bytes, std::uint64_t number, std::size_t size);
std::uint64_t numberIn(std::string_view bytes);

// The CRC-32 of zip and PNG.
std::uint32_t checksumOf(std::string_view bytes);

// A recording that can't be read on from some place. what() names the byte of the file, what is
// wrong there, and what to do.
struct Damaged : std::runtime_error {
  Damaged(std::uint64_t place, const std::string& problem, const std::string& remedy);
};

// The file ends early, but everything up to there is good.
struct Cut : Damaged {
  Cut(std::uint64_t place, const std::string& problem);
};

}  // namespace recording
