// Recordings as texts: made record by record, and read back whole.
#pragma once

#include <zstd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "tools/recording/Reader.h"
#include "tools/recording/Writer.h"

namespace recording {

// A record with content of its own.
struct Kept {
  Kind kind;
  Stream stream;
  std::uint32_t number;
  std::uint64_t time;
  std::string content;

  explicit Kept(const Record& record)
      : kind(record.kind),
        stream(record.stream),
        number(record.number),
        time(record.time),
        content(record.content) {}
  Kept(Kind kind_, Stream stream_, std::uint32_t number_, std::uint64_t time_, std::string content_)
      : kind(kind_), stream(stream_), number(number_), time(time_), content(std::move(content_)) {}

  Record record() const { return {kind, stream, number, time, content}; }
  bool operator==(const Kept&) const = default;
};

inline constexpr std::uint64_t someDay = 1700000000000000;

// The file of a recording with these records, closed at the time of the last one.
inline std::string fileOf(const std::vector<Kept>& records) {
  std::string file;
  Writer writer([&](std::string_view bytes) { file += bytes; }, someDay);
  for (const auto& record : records) writer.add(record.record());
  writer.close(records.empty() ? 0 : records.back().time);
  return file;
}

inline Source sourceOf(std::string_view file) {
  return [file, place = std::size_t{0}](char* bytes, std::size_t size) mutable {
    const std::size_t count = std::min(size, file.size() - place);
    if (count > 0) std::memcpy(bytes, file.data() + place, count);
    place += count;
    return count;
  };
}

struct ReadBack {
  std::vector<Kept> records;  // without the last one, Closed
  std::string error;          // empty for a whole recording
  bool isCut = false;
};

inline ReadBack readBack(std::string_view file) {
  ReadBack result;
  try {
    Reader reader(sourceOf(file));
    while (const auto record = reader.next()) {
      if (record->kind != Kind::Closed) result.records.emplace_back(*record);
    }
  } catch (const Cut& error) {
    result.error = error.what();
    result.isCut = true;
  } catch (const Damaged& error) {
    result.error = error.what();
  }
  return result;
}

// The head of a file of this version, with its right checksum.
inline std::string fileHead(std::uint32_t fileVersion = version) {
  std::string head(magic);
  appendNumber(head, fileVersion, 4);
  appendNumber(head, someDay, 8);
  appendNumber(head, checksumOf(head), 4);
  return head;
}

// The head of a block that names these sizes.
inline std::string blockHead(std::uint64_t compressed, std::uint64_t size) {
  std::string head;
  appendNumber(head, compressed, 4);
  appendNumber(head, size, 4);
  appendNumber(head, checksumOf(head), 4);
  return head;
}

// A whole block, whatever its content is.
inline std::string blockOf(std::string_view content) {
  std::string frame(ZSTD_compressBound(content.size()), '\0');
  frame.resize(ZSTD_compress(frame.data(), frame.size(), content.data(), content.size(), 1));
  return blockHead(frame.size(), content.size()) + frame;
}

}  // namespace recording
