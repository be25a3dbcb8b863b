#include "tools/check/Walk.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

namespace check {

// An open file, or why it could not be opened.
struct Walk::Opened {
  std::unique_ptr<std::FILE, FileCloser> file;
  struct stat status {};
  std::string problem;  // a sentence without its subject, if the file may be endless
  bool mayBeEndless = false;
};

namespace {

// Whether a file that claims to be empty, as those of /proc do, may never end: some wait for more
// text, and some deliver text without end. Leaves the file at its beginning.
bool mayNeverEnd(int descriptor) {
  constexpr std::size_t most = 1 << 20;
  std::vector<char> room(1 << 16);
  ssize_t got = 0;
  std::size_t size = 0;
  while (size <= most && (got = read(descriptor, room.data(), room.size())) > 0) {
    size += static_cast<std::size_t>(got);
  }
  const bool waits = got < 0 && errno == EAGAIN;
  return lseek(descriptor, 0, SEEK_SET) != 0 || waits || size > most;
}

bool isNullDevice(const struct stat& status) {
  return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

}  // namespace

// Never blocks: opens neither pipes nor devices, except the null device, and waits for no text.
Walk::Opened Walk::openFile(const std::string& name) const {
  Opened opened;
  const std::string path = overlay_.placeOf(name);
  if (stat(path.c_str(), &opened.status) != 0) {
    opened.problem = std::strerror(errno);
    return opened;
  }
  const mode_t mode = opened.status.st_mode;
  opened.mayBeEndless =
      S_ISFIFO(mode) || S_ISBLK(mode) || (S_ISCHR(mode) && !isNullDevice(opened.status));
  if (S_ISDIR(mode))
    opened.problem = "it is a folder";
  else if (S_ISSOCK(mode))
    opened.problem = "it is a socket";
  else if (opened.mayBeEndless)
    opened.problem = "is a pipe or a device";
  if (!opened.problem.empty()) return opened;
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor >= 0) opened.file.reset(fdopen(descriptor, "r"));
  if (!opened.file) {
    opened.problem = std::strerror(errno);
  } else if (S_ISREG(mode) && opened.status.st_size == 0 && mayNeverEnd(descriptor)) {
    opened.mayBeEndless = true;
    opened.problem = "may never end";
  }
  return opened;
}

Walk::Walk(const std::string& path, const std::string& name, const WalkLimits& limits,
           Overlay overlay)
    : limits_(limits), overlay_(std::move(overlay)) {
  Opened opened = openFile(path);
  if (opened.mayBeEndless) {
    throw UncheckableFile("it " + opened.problem +
                          ": name a regular file, or - for standard input");
  }
  if (!opened.file) throw UncheckableFile(opened.problem);
  if (static_cast<std::size_t>(opened.status.st_size) > limits_.bytes) {
    throw UncheckableFile(fmt::format("it has more than {} bytes", limits_.bytes));
  }
  push(std::move(opened), {.name = name});
}

void Walk::push(Opened opened, SourceFile source) {
  constexpr std::size_t size = 4096;
  source.head.resize(size);
  source.head.resize(std::fread(source.head.data(), 1, size, opened.file.get()));
  std::rewind(opened.file.get());
  auto scanner = std::make_unique<Scanner>(opened.file.get());
  frames_.push_back({std::move(opened.file), std::move(scanner), opened.status.st_dev,
                     opened.status.st_ino, &files_.emplace_back(std::move(source))});
}

Walk::Step Walk::next() {
  if (std::exchange(hasEnded_, false)) {
    frames_.pop_back();
    if (frames_.empty()) return Step::End;
  }
  if (frames_.back().scanner->next()) {
    ++order_;
    return Step::Line;
  }
  hasEnded_ = true;
  return Step::FileEnd;
}

SourceLine Walk::keptLine(std::shared_ptr<const std::string> section) const {
  return {.file = &file(),
          .order = order_,
          .number = line().number,
          .offset = line().offset,
          .before = line().before,
          .text = std::string(line().text),
          .section = std::move(section)};
}

bool Walk::isOpen(const Opened& opened) const {
  return std::any_of(frames_.begin(), frames_.end(), [&](const Frame& frame) {
    return frame.device == opened.status.st_dev && frame.inode == opened.status.st_ino;
  });
}

Walk::Entered Walk::enter(const std::string& path) {
  Opened opened = openFile(path);
  if (opened.mayBeEndless) return {Entering::MayBeEndless, opened.problem};
  if (!opened.file) return {Entering::Unreadable, opened.problem};
  if (isOpen(opened)) return {Entering::LeadsBack};
  ++included_;
  includedBytes_ += static_cast<std::size_t>(opened.status.st_size);
  if (frames_.size() > limits_.depth || included_ > limits_.files ||
      includedBytes_ > limits_.bytes) {
    return {Entering::TooMany,
            fmt::format("{} so far, {} deep, {} bytes", included_, frames_.size(), includedBytes_)};
  }
  const bool isReadAgain = std::any_of(files_.begin(), files_.end(),
                                       [&](const SourceFile& each) { return each.name == path; });
  push(std::move(opened), {.name = path,
                           .readAt = fmt::format("{}:{}", file().name, line().number),
                           .isReadAgain = isReadAgain});
  return {Entering::Entered};
}

}  // namespace check
