#include "tools/recording/Recorder.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <stdexcept>
#include <string_view>
#include <system_error>

namespace recording {
namespace {

std::string errorText() {
  return std::generic_category().message(errno);
}

int open(const std::string& path) {
  if (path == "-") {
    if (isatty(STDOUT_FILENO) == 1) {
      throw std::runtime_error(
          "standard output is a terminal, and a recording is not text. Name a file, or send the "
          "output to a program");
    }
    return STDOUT_FILENO;
  }
  const int descriptor = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
  if (descriptor < 0) {
    throw std::runtime_error(fmt::format("can't write {}: {}", path, errorText()));
  }
  return descriptor;
}

int makeEventDescriptor() {
  const int descriptor = eventfd(0, EFD_CLOEXEC);
  if (descriptor < 0) throw std::system_error(errno, std::generic_category(), "eventfd");
  return descriptor;
}

void writeWhole(const OutputFile& file, std::string_view bytes) {
  while (!bytes.empty()) {
    const auto count = ::write(file.descriptor(), bytes.data(), bytes.size());
    if (count < 0 && errno == EINTR) continue;
    if (count < 0) throw std::runtime_error(errorText());
    bytes.remove_prefix(static_cast<std::size_t>(count));
  }
}

std::uint64_t wallClock() {
  const auto time = std::chrono::system_clock::now().time_since_epoch();
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

bool isPayload(Kind kind) {
  return kind == Kind::Message || kind == Kind::Reply;
}

}  // namespace

OutputFile::OutputFile(const std::string& path)
    : name_(path == "-" ? "standard output" : path), descriptor_(open(path)) {}

OutputFile::~OutputFile() {
  if (descriptor_ != STDOUT_FILENO) ::close(descriptor_);
}

Recorder::Recorder(const OutputFile& file, std::size_t limit)
    : file_(file),
      limit_(limit),
      failure_(makeEventDescriptor()),
      startTime_(wallClock()),
      thread_([this] { run(); }) {}

Recorder::~Recorder() {
  {
    const std::lock_guard lock(mutex_);
    ends_ = true;
  }
  arrived_.notify_one();
  if (thread_.joinable()) thread_.join();
  ::close(failure_);
}

std::uint64_t Recorder::now() const {
  const auto time = std::chrono::steady_clock::now() - begin_;
  return static_cast<std::uint64_t>(
      std::chrono::duration_cast<std::chrono::microseconds>(time).count());
}

// Takes the time under the lock, so that times never decrease.
void Recorder::add(Kind kind, Stream stream, std::uint32_t number, std::string content) {
  {
    const std::lock_guard lock(mutex_);
    if (ends_ || !error_.empty()) return;
    Queued record{kind, stream, number, now(), std::move(content)};
    if (isDropped(record)) return;
    pushLoss(stream, record.time);
    if (isPayload(kind)) {
      auto& totals = totals_[stream];
      ++totals.messages;
      totals.bytes += record.content.size();
    }
    push(std::move(record));
  }
  arrived_.notify_one();
}

// Ends of streams and the like are few and small, so they have a reserve of their own.
bool Recorder::isDropped(const Queued& record) {
  constexpr std::size_t overhead = sizeof(Queued);
  const std::size_t reserve = isPayload(record.kind) ? 0 : limit_ / 16;
  const bool isTooLong = !fits(record.kind, record.content.size());
  if (!isTooLong && held_ + record.content.size() + overhead <= limit_ + reserve) return false;
  if (isTooLong) ++totals_[record.stream].tooLong;
  auto& dropped = dropped_[record.stream];
  dropped.number = record.number;
  for (LostContent* const lost : {&dropped.lost, &totals_[record.stream].lost}) {
    ++lost->messages;
    lost->bytes += record.content.size();
  }
  return true;
}

void Recorder::push(Queued record) {
  held_ += record.content.size() + sizeof(Queued);
  queue_.push_back(std::move(record));
}

void Recorder::pushLoss(Stream stream, std::uint64_t time) {
  const auto dropped = dropped_.find(stream);
  if (dropped == dropped_.end()) return;
  const auto [number, lost] = dropped->second;
  dropped_.erase(dropped);
  push({Kind::Lost, stream, number, time, contentOf(lost)});
}

bool Recorder::hasFailed() const {
  const std::lock_guard lock(mutex_);
  return !error_.empty();
}

void Recorder::close() {
  {
    const std::lock_guard lock(mutex_);
    while (!dropped_.empty()) pushLoss(dropped_.begin()->first, now());
    ends_ = true;
    closes_ = true;
  }
  arrived_.notify_one();
  thread_.join();
  if (!error_.empty()) {
    throw std::runtime_error(fmt::format("can't write {}: {}", file_.name(), error_));
  }
}

StreamTotals Recorder::totalsOf(Stream stream) const {
  const std::lock_guard lock(mutex_);
  const auto found = totals_.find(stream);
  return found == totals_.end() ? StreamTotals{} : found->second;
}

std::string Recorder::lossOf(Stream stream) const {
  const auto totals = totalsOf(stream);
  const auto [messages, bytes] = totals.lost;
  if (messages == 0) return {};
  std::string text =
      fmt::format("{}: {} messages of {} bytes were lost", nameOf(stream), messages, bytes);
  if (totals.tooLong > 0) {
    text += fmt::format(". {} of them exceeded the {} MiB that a record can hold", totals.tooLong,
                        contentLimit >> 20);
  }
  if (totals.tooLong < messages) {
    text += fmt::format(". {} is too slow for them. Write to a faster disk", file_.name());
  }
  return text;
}

void Recorder::run() {
  try {
    writeAll();
  } catch (const std::exception& error) {
    fail(error.what());
  }
}

void Recorder::writeAll() {
  Writer writer([this](std::string_view bytes) { writeWhole(file_, bytes); }, startTime_);
  std::unique_lock lock(mutex_);
  for (;;) {
    arrived_.wait_for(lock, std::chrono::microseconds(blockPeriod),
                      [&] { return ends_ || !queue_.empty(); });
    const bool isLast = ends_;
    const auto batch = std::exchange(queue_, {});
    lock.unlock();
    write(batch, writer);
    if (isLast) break;
    writer.flushIfDue(now());
    lock.lock();
  }
  if (closes_) writer.close(now());
}

void Recorder::write(const std::deque<Queued>& batch, Writer& writer) {
  for (const auto& record : batch) {
    writer.add({record.kind, record.stream, record.number, record.time, record.content});
    const std::lock_guard lock(mutex_);
    held_ -= record.content.size() + sizeof(Queued);
  }
}

// Nothing more can be written, so nothing needs to wait.
void Recorder::fail(const std::string& reason) {
  {
    const std::lock_guard lock(mutex_);
    error_ = reason;
    queue_.clear();
  }
  eventfd_write(failure_, 1);
}

}  // namespace recording
