#include "tools/check/Repairs.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <tuple>

namespace check {
namespace {

// ---- Texts ------------------------------------------------------------------------------------

// The lines with their line ends.
std::vector<std::string_view> linesOf(std::string_view text) {
  std::vector<std::string_view> lines;
  while (!text.empty()) {
    const std::size_t size = std::min(text.find('\n'), text.size() - 1) + 1;
    lines.push_back(text.substr(0, size));
    text.remove_prefix(size);
  }
  return lines;
}

std::string readText(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::string text(std::istreambuf_iterator<char>(file), {});
  if (file.bad()) throw std::runtime_error("it can't be read to its end");
  return text;
}

void writeAll(int descriptor, std::string_view text) {
  while (!text.empty()) {
    const ssize_t written = ::write(descriptor, text.data(), text.size());
    if (written < 0 && errno == EINTR) continue;
    if (written < 0) throw std::runtime_error(std::strerror(errno));
    text.remove_prefix(static_cast<std::size_t>(written));
  }
}

// ---- Repairs ----------------------------------------------------------------------------------

std::vector<Repair> repairsOf(const std::vector<Diagnostic>& diagnostics, Boldness boldness) {
  std::vector<Repair> repairs;
  for (const Diagnostic& each : diagnostics) {
    const bool isHere = each.repair && each.readAt.empty();
    if (isHere && (each.repair->isSafe || boldness == Boldness::Likely)) {
      repairs.push_back(*each.repair);
    }
  }
  std::sort(repairs.begin(), repairs.end(), [](const Repair& a, const Repair& b) {
    return std::tie(a.line, a.column) < std::tie(b.line, b.column);
  });
  return repairs;
}

bool isBetter(const Checked& after, const Checked& before) {
  const auto badness = [](const Checked& checked) {
    return std::array{checked.count(Severity::Error), checked.count(Severity::Warning),
                      checked.count(Severity::Note)};
  };
  return badness(after) < badness(before);
}

// Checks the text as if it were the requested file.
Checked checkText(const std::string& text, Request request) {
  request.overlay.set(request.path, text);
  return check(request);
}

// ---- Files ------------------------------------------------------------------------------------

constexpr std::size_t largestAttribute = 65536;  // a limit of the kernel, as for the list of names

// The names of the extended attributes, including an access control list.
std::vector<std::string> attributesOf(const std::string& path) {
  std::string names(largestAttribute, '\0');
  const ssize_t size = listxattr(path.c_str(), names.data(), names.size());
  std::vector<std::string> found;
  for (std::size_t at = 0; size > 0 && at < static_cast<std::size_t>(size);) {
    found.emplace_back(names.c_str() + at);
    at += found.back().size() + 1;
  }
  return found;
}

// A new file beside another, which is removed unless it takes the other's place.
class FileBeside {
 public:
  explicit FileBeside(const std::string& path) : path_(path + ".XXXXXX") {
    descriptor_ = mkostemp(path_.data(), O_CLOEXEC);
    require(descriptor_ >= 0);
  }
  ~FileBeside() {
    if (descriptor_ >= 0) close(descriptor_);
    if (!isPlaced_) unlink(path_.c_str());
  }
  FileBeside(const FileBeside&) = delete;
  FileBeside& operator=(const FileBeside&) = delete;

  void write(std::string_view text) { writeAll(descriptor_, text); }

  // Takes over the rights and attributes of a file, as far as permitted.
  void imitate(const std::string& path, const struct stat& like) {
    // The owner first, since a change of the owner can clear bits of the mode.
    constexpr auto sameOwner = static_cast<uid_t>(-1);
    const bool isOwned = fchown(descriptor_, like.st_uid, like.st_gid) == 0;
    const bool isInGroup = isOwned || fchown(descriptor_, sameOwner, like.st_gid) == 0;
    // What the group was allowed is not for another group.
    mode_t kept = isOwned ? 07777 : isInGroup ? 0777 : 0707;
    // The folder may have given the new file an access list, with rights that the old one lacks.
    fremovexattr(descriptor_, accessList);
    for (const std::string& name : attributesOf(path)) {
      if (name != accessList) copyAttribute(path, name.c_str());
    }
    // The mode's bits for the group say what the whole list allows, not only the group.
    const bool hasList = getxattr(path.c_str(), accessList, nullptr, 0) > 0;
    if (hasList && !(isInGroup && copyAttribute(path, accessList)))
      kept &= ~static_cast<mode_t>(070);
    require(fchmod(descriptor_, like.st_mode & kept) == 0);
  }

  void sync() { require(fsync(descriptor_) == 0); }

  void replace(const std::string& path) {
    require(rename(path_.c_str(), path.c_str()) == 0);
    isPlaced_ = true;
  }

 private:
  static constexpr const char* accessList = "system.posix_acl_access";

  static void require(bool good) {
    if (!good) throw std::runtime_error(std::strerror(errno));
  }

  bool copyAttribute(const std::string& path, const char* name) {
    std::string value(largestAttribute, '\0');
    const ssize_t size = getxattr(path.c_str(), name, value.data(), value.size());
    return size >= 0 &&
           fsetxattr(descriptor_, name, value.data(), static_cast<std::size_t>(size), 0) == 0;
  }

  std::string path_;
  int descriptor_ = -1;
  bool isPlaced_ = false;
};

}  // namespace

std::string repaired(const std::string& text, const std::vector<Diagnostic>& diagnostics,
                     Boldness boldness) {
  const auto lines = linesOf(text);
  std::string result;
  std::size_t done = 0;  // the bytes of the text that the result covers
  for (const Repair& repair : repairsOf(diagnostics, boldness)) {
    if (repair.line > lines.size()) continue;  // the file has changed in the meantime
    const auto begin = static_cast<std::size_t>(lines[repair.line - 1].data() - text.data());
    const std::size_t at = begin + repair.column - 1;
    const bool isFree = at >= done && (at > done || at == 0 || !repair.before.empty());
    if (!isFree || at > text.size() || text.compare(at, repair.before.size(), repair.before) != 0)
      continue;
    result.append(text, done, at - done);
    result += repair.after;
    done = at + repair.before.size();
  }
  return result.append(text, done, std::string::npos);
}

Repaired repair(const Request& request, Boldness boldness) {
  constexpr int mostRounds = 1000;
  const Checked original = check(request);
  if (original.verdict == Verdict::Unreadable) return {.checked = original};
  Repaired result{.before = readText(request.overlay.placeOf(request.path)), .checked = original};
  result.after = result.before;
  Checked checked = original;
  std::string text = result.before;
  for (int round = 0; round < mostRounds; ++round) {
    std::string next = repaired(text, checked.diagnostics, boldness);
    if (next == text) break;
    text = std::move(next);
    checked = checkText(text, request);
  }
  if (!isBetter(checked, original)) return result;
  result.after = std::move(text);
  result.checked = std::move(checked);
  return result;
}

std::string unifiedDiff(const std::string& name, std::string_view before, std::string_view after) {
  constexpr std::size_t context = 3;
  const auto old = linesOf(before);
  const auto now = linesOf(after);
  const auto print = [](char mark, std::string_view line) {
    return fmt::format("{}{}{}", mark, line,
                       line.ends_with('\n') ? "" : "\n\\ No newline at end of file\n");
  };
  const auto nextChange = [&](std::size_t from) {
    while (from < old.size() && old[from] == now[from]) ++from;
    return from;
  };
  std::string diff;
  std::size_t change = nextChange(0);
  while (change < old.size()) {
    const std::size_t begin = change - std::min(change, context);
    std::size_t last = change;
    for (std::size_t next = nextChange(last + 1); next < old.size() && next - last <= 2 * context;
         next = nextChange(last + 1)) {
      last = next;
    }
    const std::size_t end = std::min(last + context + 1, old.size());
    diff += fmt::format("@@ -{0},{1} +{0},{1} @@\n", begin + 1, end - begin);
    for (std::size_t i = begin; i < end;) {
      const std::size_t first = i;
      while (i < end && old[i] != now[i]) diff += print('-', old[i++]);
      for (std::size_t j = first; j < i; ++j) diff += print('+', now[j]);
      if (i < end && old[i] == now[i]) diff += print(' ', old[i++]);
    }
    change = nextChange(end);
  }
  return diff.empty() ? diff : fmt::format("--- {0}\n+++ {0}\n{1}", name, diff);
}

void replaceFile(const std::string& path, std::string_view before, std::string_view after) {
  const std::string target = std::filesystem::canonical(path);
  struct stat status {};
  if (stat(target.c_str(), &status) != 0) throw std::runtime_error(std::strerror(errno));
  if (status.st_nlink > 1) {
    throw std::runtime_error("it has another name (a hard link), which would keep the old text");
  }
  FileBeside file(target);
  file.write(after);
  file.imitate(target, status);
  file.sync();
  if (readText(target) != before) throw std::runtime_error("somebody has changed it meanwhile");
  file.replace(target);
}

}  // namespace check
