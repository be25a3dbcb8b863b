#include "tools/recording/Reader.h"

#include <fmt/format.h>
#include <zstd.h>

#include <cerrno>
#include <cstdio>
#include <new>
#include <system_error>
#include <utility>

namespace recording {
namespace {

constexpr std::size_t sizeSize = 4;  // of a record's size, which does not count itself

std::size_t readFrom(std::FILE* file, const std::string& path, char* bytes, std::size_t size) {
  const std::size_t count = std::fread(bytes, 1, size, file);
  if (count < size && std::ferror(file) != 0) {
    throw std::runtime_error(
        fmt::format("can't read {}: {}", path, std::generic_category().message(errno)));
  }
  return count;
}

}  // namespace

Source fileSource(const std::string& path) {
  if (path == "-") {
    return [](char* bytes, std::size_t size) {
      return readFrom(stdin, "standard input", bytes, size);
    };
  }
  const std::shared_ptr<std::FILE> file(std::fopen(path.c_str(), "rbe"), [](std::FILE* opened) {
    if (opened != nullptr) std::fclose(opened);
  });
  if (!file)
    throw std::runtime_error(
        fmt::format("can't read {}: {}", path, std::generic_category().message(errno)));
  return [file, path](char* bytes, std::size_t size) {
    return readFrom(file.get(), path, bytes, size);
  };
}

struct Reader::Decompressor {
  Decompressor() : context(ZSTD_createDCtx(), &ZSTD_freeDCtx) {
    if (!context) throw std::bad_alloc();
    // Bounds the memory for a frame that is read in pieces. 2^25 exceeds blockLimit.
    constexpr int windowLog = 25;
    static_assert(std::size_t{1} << windowLog >= blockLimit);
    ZSTD_DCtx_setParameter(context.get(), ZSTD_d_windowLogMax, windowLog);
  }

  // The reason why `frame` does not hold exactly the bytes of `block`, or nothing.
  std::string readWhole(std::string_view frame, std::string& block) {
    if (ZSTD_findFrameCompressedSize(frame.data(), frame.size()) != frame.size() ||
        ZSTD_getFrameContentSize(frame.data(), frame.size()) != block.size()) {
      return "the compressed block does not have the size that its head states";
    }
    const std::size_t size =
        ZSTD_decompressDCtx(context.get(), block.data(), block.size(), frame.data(), frame.size());
    if (ZSTD_isError(size) != 0) {
      return fmt::format("the block can't be decompressed ({})", ZSTD_getErrorName(size));
    }
    return size == block.size() ? "" : "the block is shorter than its head says";
  }

  // Reads as much of `block` as the beginning of a frame holds.
  void readPart(std::string_view frame, std::string& block) {
    ZSTD_DCtx_reset(context.get(), ZSTD_reset_session_only);
    ZSTD_inBuffer in{frame.data(), frame.size(), 0};
    ZSTD_outBuffer out{block.data(), block.size(), 0};
    for (std::size_t before = 1; before != in.pos + out.pos;) {
      before = in.pos + out.pos;
      if (ZSTD_isError(ZSTD_decompressStream(context.get(), &out, &in)) != 0) break;
    }
    block.resize(out.pos);
  }

  std::unique_ptr<ZSTD_DCtx, decltype(&ZSTD_freeDCtx)> context;
};

Reader::Reader(Source source)
    : source_(std::move(source)), decompressor_(std::make_unique<Decompressor>()) {
  const std::string wrongFile = "Give a file that gatewayctl record has written";
  read(fileHeadSize);
  const std::string_view head = bytes_;
  if (head.empty()) throw Damaged(0, "the file is empty", wrongFile);
  if (!magic.starts_with(head.substr(0, magic.size()))) {
    throw Damaged(0, fmt::format("this is not a recording, which begins with {}", magic),
                  wrongFile);
  }
  if (head.size() < fileHeadSize) throwCut();
  const auto found = numberIn(head.substr(magic.size(), 4));
  if (checksumOf(head.substr(0, fileHeadSize - 4)) != numberIn(head.substr(fileHeadSize - 4))) {
    throwDamaged("the head of the file does not match its checksum");
  }
  if (found != version) {
    throw Damaged(
        magic.size(),
        fmt::format("the recording has version {}, but this program reads {}", found, version),
        "Use the version of gatewayctl that wrote it");
  }
  startTime_ = numberIn(head.substr(magic.size() + 4, 8));
}

Reader::~Reader() = default;

std::optional<Record> Reader::next() {
  while (next_ == block_.size()) {
    if (isCut_) throwCut();
    if (isClosed_) {
      requireEnd();
      return std::nullopt;
    }
    readBlock();
  }
  const bool hasHead = block_.size() - next_ >= recordHeadSize;
  const auto size = hasHead ? numberIn({block_.data() + next_, sizeSize}) : recordHeadSize;
  const bool isWhole = hasHead && size <= block_.size() - next_;
  if (!isWhole && isCut_) throwCut();
  if (!isWhole) throwBadRecord(next_, fmt::format("a record of {} bytes exceeds its block", size));
  if (size < recordHeadSize) throwBadRecord(next_, fmt::format("a record has {} bytes", size));
  if (isClosed_) throwBadRecord(next_, "a record follows the last one");
  const Record record = recordAt(next_);
  next_ += size;
  latestTime_ = record.time;
  isClosed_ = record.kind == Kind::Closed;
  return record;
}

Record Reader::recordAt(std::size_t place) const {
  const std::string_view bytes = std::string_view(block_).substr(place);
  const auto kind = numberIn(bytes.substr(4, 1));
  const auto stream = numberIn(bytes.substr(5, 1));
  if (kind > static_cast<std::uint64_t>(Kind::Closed)) {
    throwBadRecord(place, fmt::format("a record has the unknown kind {}", kind));
  }
  if (stream > static_cast<std::uint64_t>(Stream::Engine) || numberIn(bytes.substr(6, 2)) != 0) {
    throwBadRecord(place, fmt::format("a record has the unknown stream {}", stream));
  }
  const Record record{
      .kind = static_cast<Kind>(kind),
      .stream = static_cast<Stream>(stream),
      .number = static_cast<std::uint32_t>(numberIn(bytes.substr(8, 4))),
      .time = numberIn(bytes.substr(12, 8)),
      .content = bytes.substr(recordHeadSize, numberIn(bytes.substr(0, 4)) - recordHeadSize)};
  if (!fits(record.kind, record.content.size())) {
    throwBadRecord(place, fmt::format("a record of kind {} has {} bytes", nameOf(record.kind),
                                      record.content.size()));
  }
  if (record.time < latestTime_) throwBadRecord(place, "the time of a record goes back");
  return record;
}

void Reader::read(std::size_t size) {
  bytes_.resize(size);
  bytes_.resize(source_(bytes_.data(), size));
  place_ += bytes_.size();
}

void Reader::readBlock() {
  blockPlace_ = place_;
  block_.clear();
  next_ = 0;
  read(blockHeadSize);
  if (bytes_.size() < blockHeadSize) throwCut();
  const std::string_view head = bytes_;
  const auto compressed = numberIn(head.substr(0, 4));
  const auto size = numberIn(head.substr(4, 4));
  if (checksumOf(head.substr(0, 8)) != numberIn(head.substr(8))) {
    throwDamaged("the head of the block does not match its checksum");
  }
  if (size == 0 || size > blockLimit || compressed > ZSTD_compressBound(blockLimit)) {
    throwDamaged(
        fmt::format("a block of {} bytes, compressed to {}, is out of bounds", size, compressed));
  }
  read(compressed);
  isCut_ = bytes_.size() < compressed;
  block_.resize(size);
  if (isCut_) return decompressor_->readPart(bytes_, block_);
  const std::string problem = decompressor_->readWhole(bytes_, block_);
  if (!problem.empty()) throwDamaged(problem);
}

void Reader::requireEnd() {
  blockPlace_ = place_;
  read(1);
  if (!bytes_.empty()) throwDamaged("something follows the end of the recording");
}

void Reader::throwCut() const {
  throw Cut(place_, "the recording ends here without its last record");
}

void Reader::throwDamaged(const std::string& problem) const {
  throw Damaged(blockPlace_, problem,
                "Everything before it is good. Copy the file again from where it was recorded");
}

void Reader::throwBadRecord(std::size_t place, const std::string& problem) const {
  throwDamaged(fmt::format("in the block that begins here, at its byte {}, {}", place, problem));
}

}  // namespace recording
