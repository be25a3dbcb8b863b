#include "tools/recording/Writer.h"

#include <zstd.h>

#include <new>
#include <stdexcept>
#include <utility>

namespace recording {

struct Writer::Compressor {
  // Level 1 keeps up with a fast server on a fraction of a processor.
  static constexpr int level = 1;

  Compressor() : context(ZSTD_createCCtx(), &ZSTD_freeCCtx) {
    if (!context) throw std::bad_alloc();
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_compressionLevel, level);
    ZSTD_CCtx_setParameter(context.get(), ZSTD_c_checksumFlag, 1);
  }

  std::string_view compress(std::string_view block) {
    frame.resize(ZSTD_compressBound(block.size()));
    const std::size_t size =
        ZSTD_compress2(context.get(), frame.data(), frame.size(), block.data(), block.size());
    if (ZSTD_isError(size) != 0) throw std::runtime_error(ZSTD_getErrorName(size));
    return {frame.data(), size};
  }

  std::unique_ptr<ZSTD_CCtx, decltype(&ZSTD_freeCCtx)> context;
  std::string frame;
};

Writer::Writer(Sink sink, std::uint64_t startTime)
    : sink_(std::move(sink)), compressor_(std::make_unique<Compressor>()) {
  std::string head(magic);
  appendNumber(head, version, 4);
  appendNumber(head, startTime, 8);
  appendNumber(head, checksumOf(head), 4);
  sink_(head);
}

Writer::~Writer() = default;

void Writer::add(const Record& record) {
  if (!fits(record.kind, record.content.size())) {
    throw std::invalid_argument("the content of a record has a wrong size");
  }
  if (record.time < latestTime_) throw std::invalid_argument("the time of a record is in the past");
  latestTime_ = record.time;
  if (block_.empty()) firstTime_ = record.time;
  appendNumber(block_, recordHeadSize + record.content.size(), 4);
  appendNumber(block_, static_cast<std::uint64_t>(record.kind), 1);
  appendNumber(block_, static_cast<std::uint64_t>(record.stream), 1);
  appendNumber(block_, 0, 2);
  appendNumber(block_, record.number, 4);
  appendNumber(block_, record.time, 8);
  block_ += record.content;
  if (block_.size() >= blockTarget) flush();
  flushIfDue(record.time);
}

void Writer::flushIfDue(std::uint64_t time) {
  if (!block_.empty() && time >= firstTime_ + blockPeriod) flush();
}

void Writer::close(std::uint64_t time) {
  add({.kind = Kind::Closed, .stream = Stream::Fast, .number = 0, .time = time, .content = {}});
  flush();
}

void Writer::flush() {
  if (block_.empty()) return;
  const std::string_view frame = compressor_->compress(block_);
  std::string head;
  appendNumber(head, frame.size(), 4);
  appendNumber(head, block_.size(), 4);
  appendNumber(head, checksumOf(head), 4);
  sink_(head);
  sink_(frame);
  block_.clear();
}

}  // namespace recording
