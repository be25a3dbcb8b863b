// Any bytes as a recording. Reading gives the records and the verdict of a naive reader, and
// whatever can be written is read back. The first byte of an input says what the others are: a
// file, the content of a block, or the contents of records to write, to cut off and to damage.
#include <zstd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tests/fuzz/Target.h"
#include "tools/recording/Reader.h"
#include "tools/recording/Writer.h"

namespace {

using fuzz::require;

enum class Verdict { Whole, Cut, Damaged };

struct Read {
  std::vector<std::string> records;  // the bytes of each
  Verdict verdict = Verdict::Whole;

  bool operator==(const Read&) const = default;
};

std::string fixed(std::uint64_t number, std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i, number /= 256) bytes[i] = static_cast<char>(number % 256);
  return bytes;
}

std::uint64_t fixedAt(std::string_view bytes, std::size_t place, std::size_t size) {
  std::uint64_t number = 0;
  for (std::size_t i = 0; i < size; ++i) {
    number |= std::uint64_t{static_cast<unsigned char>(bytes[place + i])} << (8 * i);
  }
  return number;
}

std::uint32_t naiveChecksum(std::string_view bytes) {
  std::uint32_t checksum = 0xffffffff;
  for (const char byte : bytes) {
    checksum ^= static_cast<unsigned char>(byte);
    for (int bit = 0; bit < 8; ++bit) {
      checksum = checksum & 1 ? checksum >> 1 ^ 0xedb88320 : checksum >> 1;
    }
  }
  return ~checksum;
}

std::string bytesOf(const recording::Record& record) {
  return fixed(20 + record.content.size(), 4) + fixed(static_cast<std::uint64_t>(record.kind), 1) +
         fixed(static_cast<std::uint64_t>(record.stream), 1) + fixed(0, 2) +
         fixed(record.number, 4) + fixed(record.time, 8) + std::string(record.content);
}

// ---- The reader under test ------------------------------------------------------------------

Read readFast(std::string_view file) {
  Read result;
  std::size_t place = 0;
  try {
    recording::Reader reader([&](char* bytes, std::size_t size) {
      const std::size_t count = std::min(size, file.size() - place);
      if (count > 0) std::memcpy(bytes, file.data() + place, count);
      place += count;
      return count;
    });
    while (const auto record = reader.next()) result.records.push_back(bytesOf(*record));
  } catch (const recording::Cut&) {
    result.verdict = Verdict::Cut;
  } catch (const recording::Damaged& error) {
    require(std::string_view(error.what()).starts_with("at byte "), "an error names its place");
    result.verdict = Verdict::Damaged;
  }
  return result;
}

// ---- The naive reader -----------------------------------------------------------------------

bool isGoodRecord(std::string_view record, std::uint64_t latest) {
  const auto kind = fixedAt(record, 4, 1);
  const std::size_t content = record.size() - 20;
  const bool hasGoodSize = kind == 4   ? content >= 4
                           : kind == 5 ? content == 16
                                       : content == 0 || (kind != 1 && kind != 6);
  return kind <= 6 && hasGoodSize && content <= (16u << 20) && fixedAt(record, 5, 1) <= 2 &&
         fixedAt(record, 6, 2) == 0 && fixedAt(record, 12, 8) >= latest;
}

// Adds the records of a block. `isOver`: the last record has come.
Verdict takeBlock(std::string_view block, std::uint64_t& latest, bool& isOver, Read& result) {
  while (!block.empty()) {
    if (block.size() < 20) return Verdict::Damaged;
    const auto size = fixedAt(block, 0, 4);
    if (size < 20 || size > block.size() || isOver) return Verdict::Damaged;
    const auto record = block.substr(0, size);
    if (!isGoodRecord(record, latest)) return Verdict::Damaged;
    latest = fixedAt(record, 12, 8);
    isOver = fixedAt(record, 4, 1) == 6;
    result.records.emplace_back(record);
    block.remove_prefix(size);
  }
  return Verdict::Whole;
}

// How much of a cut block can be read is the business of the compression, so such blocks are left
// out.
Read readNaively(std::string_view file) {
  Read result;
  const auto give = [&](Verdict verdict) {
    result.verdict = verdict;
    return result;
  };
  const std::string_view mark = "GWRECORD";
  if (file.empty() || file.substr(0, 8) != mark.substr(0, file.size())) {
    return give(Verdict::Damaged);
  }
  if (file.size() < 24) return give(Verdict::Cut);
  if (fixedAt(file, 20, 4) != naiveChecksum(file.substr(0, 20)) || fixedAt(file, 8, 4) != 1) {
    return give(Verdict::Damaged);
  }
  std::uint64_t latest = 0;
  bool isOver = false;
  for (file.remove_prefix(24); !isOver;) {
    if (file.size() < 12) return give(Verdict::Cut);
    const auto compressed = fixedAt(file, 0, 4);
    const auto size = fixedAt(file, 4, 4);
    const std::size_t most = (256u << 10) + 20 + (16u << 20);
    if (fixedAt(file, 8, 4) != naiveChecksum(file.substr(0, 8)) || size == 0 || size > most ||
        compressed > ZSTD_compressBound(most)) {
      return give(Verdict::Damaged);
    }
    file.remove_prefix(12);
    if (compressed > file.size()) return give(Verdict::Cut);
    const auto frame = file.substr(0, compressed);
    file.remove_prefix(compressed);
    std::string block(size, '\0');
    if (ZSTD_findFrameCompressedSize(frame.data(), frame.size()) != frame.size() ||
        ZSTD_getFrameContentSize(frame.data(), frame.size()) != size ||
        ZSTD_decompress(block.data(), size, frame.data(), frame.size()) != size ||
        takeBlock(block, latest, isOver, result) != Verdict::Whole) {
      return give(Verdict::Damaged);
    }
  }
  return give(file.empty() ? Verdict::Whole : Verdict::Damaged);
}

bool isPrefix(const std::vector<std::string>& part, const std::vector<std::string>& whole) {
  return part.size() <= whole.size() && std::equal(part.begin(), part.end(), whole.begin());
}

// ---- The three uses of an input -------------------------------------------------------------

fuzz::Result verdictOn(std::string_view file) {
  const Read fast = readFast(file);
  const Read naive = readNaively(file);
  require(fast.verdict == naive.verdict ||
              (naive.verdict == Verdict::Cut && fast.verdict == Verdict::Damaged),
          "both readers have the same verdict");
  require(naive.verdict == Verdict::Cut ? isPrefix(naive.records, fast.records)
                                        : fast.records == naive.records,
          "both readers return the same records");
  return fast.verdict == Verdict::Whole ? fuzz::Result::Accepted : fuzz::Result::Refused;
}

fuzz::Result tryBlock(std::string_view content) {
  std::string frame(ZSTD_compressBound(content.size()), '\0');
  frame.resize(ZSTD_compress(frame.data(), frame.size(), content.data(), content.size(), 1));
  std::string file = "GWRECORD" + fixed(1, 4) + fixed(0, 8);
  file += fixed(naiveChecksum(file), 4);
  const std::string sizes = fixed(frame.size(), 4) + fixed(content.size(), 4);
  return verdictOn(file + sizes + fixed(naiveChecksum(sizes), 4) + frame);
}

// The records that `bytes` describe, in a file that is closed.
struct Written {
  std::vector<std::string> records;
  std::string file;
};

// Each record takes four bytes for its kind, stream, time and size, and then its content.
Written write(std::string_view bytes) {
  Written written;
  recording::Writer writer([&](std::string_view piece) { written.file += piece; }, 0);
  std::uint64_t time = 0;
  while (bytes.size() >= 4) {
    time += fixedAt(bytes, 2, 1) * 10000;
    const std::size_t size = std::min<std::size_t>(fixedAt(bytes, 3, 1), bytes.size() - 4);
    const recording::Record record{
        .kind = static_cast<recording::Kind>(fixedAt(bytes, 0, 1) % 6),
        .stream = static_cast<recording::Stream>(fixedAt(bytes, 1, 1) % 3),
        .number = static_cast<std::uint32_t>(written.records.size()),
        .time = time,
        .content = bytes.substr(4, size)};
    bytes.remove_prefix(4 + size);
    if (!recording::fits(record.kind, size)) continue;
    writer.add(record);
    written.records.push_back(bytesOf(record));
  }
  writer.close(time);
  written.records.push_back(bytesOf({.time = time, .content = {}}));
  return written;
}

fuzz::Result tryWriting(std::string_view input) {
  if (input.size() < 3) return fuzz::Result::Skipped;
  const auto place = fixedAt(input, 0, 2);
  const auto change = input[2];
  const auto written = write(input.substr(3));
  const Read whole = readFast(written.file);
  require(whole.verdict == Verdict::Whole && whole.records == written.records,
          "what is written is read back");
  const std::size_t at = place % written.file.size();
  const Read cut = readFast(std::string_view(written.file).substr(0, at));
  require(cut.verdict != Verdict::Whole && isPrefix(cut.records, written.records),
          "a cut file gives the first records");
  std::string damaged = written.file;
  damaged[at] = static_cast<char>(damaged[at] ^ change);
  require(isPrefix(readFast(damaged).records, written.records),
          "a damaged file gives nothing but records");
  return fuzz::Result::Accepted;
}

}  // namespace

fuzz::Result fuzz::tryInput(std::string_view input) {
  if (input.empty()) return Result::Skipped;
  const auto rest = input.substr(1);
  switch (input[0]) {
    case 'b':
      return tryBlock(rest);
    case 'w':
      return tryWriting(rest);
    default:
      return verdictOn(rest);
  }
}
