#include "tools/recording/Format.h"

#include <fmt/format.h>

#include <array>
#include <boost/crc.hpp>

#include "tools/common/EnumTable.h"

namespace recording {
namespace {

constexpr std::size_t codeSize = 4;
constexpr std::size_t countSize = 8;

struct StreamRow {
  Stream stream;
  std::string_view name;
};
constexpr auto streamRows = std::to_array<StreamRow>({
    {Stream::Fast, "fast"},
    {Stream::Slow, "slow"},
    {Stream::Engine, "engine"},
});
static_assert(tools::isIndexedBy(streamRows, &StreamRow::stream));

struct KindRow {
  Kind kind;
  std::string_view name;
  std::size_t leastContent;
  std::size_t mostContent;
};
constexpr auto kindRows = std::to_array<KindRow>({
    {Kind::Started, "started", 0, contentLimit},
    {Kind::Opened, "opened", 0, 0},
    {Kind::Message, "message", 0, contentLimit},
    {Kind::Reply, "reply", 0, contentLimit},
    {Kind::Ended, "ended", codeSize, contentLimit},
    {Kind::Lost, "lost", 2 * countSize, 2 * countSize},
    {Kind::Closed, "closed", 0, 0},
});
static_assert(tools::isIndexedBy(kindRows, &KindRow::kind));

const KindRow& rowOf(Kind kind) {
  return kindRows[static_cast<std::size_t>(kind)];
}

}  // namespace

std::string_view nameOf(Stream stream) {
  return streamRows[static_cast<std::size_t>(stream)].name;
}

std::string_view nameOf(Kind kind) {
  return rowOf(kind).name;
}

bool fits(Kind kind, std::size_t contentSize) {
  return contentSize >= rowOf(kind).leastContent && contentSize <= rowOf(kind).mostContent;
}

void appendNumber(std::string& bytes, std::uint64_t number, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) bytes += static_cast<char>((number >> (8 * i)) & 0xff);
}

std::uint64_t numberIn(std::string_view bytes) {
  std::uint64_t number = 0;
  for (std::size_t i = bytes.size(); i > 0; --i) {
    number = number << 8 | static_cast<unsigned char>(bytes[i - 1]);
  }
  return number;
}

std::uint32_t checksumOf(std::string_view bytes) {
  boost::crc_32_type crc;
  crc.process_bytes(bytes.data(), bytes.size());
  return crc.checksum();
}

std::string contentOf(const EndContent& end) {
  std::string content;
  appendNumber(content, static_cast<std::uint32_t>(end.code), codeSize);
  return content.append(end.text);
}

std::string contentOf(const LostContent& lost) {
  std::string content;
  appendNumber(content, lost.messages, countSize);
  appendNumber(content, lost.bytes, countSize);
  return content;
}

EndContent endIn(std::string_view content) {
  const auto code = static_cast<std::uint32_t>(numberIn(content.substr(0, codeSize)));
  return {static_cast<std::int32_t>(code), content.substr(codeSize)};
}

LostContent lostIn(std::string_view content) {
  return {numberIn(content.substr(0, countSize)), numberIn(content.substr(countSize, countSize))};
}

Damaged::Damaged(std::uint64_t place, const std::string& problem, const std::string& remedy)
    : std::runtime_error(fmt::format("at byte {}: {}. {}", place, problem, remedy)) {}

Cut::Cut(std::uint64_t place, const std::string& problem)
    : Damaged(place, problem,
              "Everything before it is good. Either the recorder was killed or still runs, or the "
              "copy is incomplete: then copy the file again") {}

}  // namespace recording
