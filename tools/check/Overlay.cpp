#include "tools/check/Overlay.h"

#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <system_error>
#include <utility>

#include "tools/check/Vocabulary.h"
#include "tools/check/Walk.h"

namespace check {
namespace {

// The dedicated file that the module would read at the current line of the walk, or an empty text.
std::string namedFile(const Walk& walk) {
  const Line& line = walk.line();
  const bool isContinuation = line.kind == LineKind::Continuation;
  if (!isContinuation && line.kind != LineKind::Pair) return {};
  const std::string_view key =
      isContinuation ? std::string_view(walk.scanner().pendingName()) : line.name.of(line.text);
  const std::string& section = walk.scanner().section();
  if (!section.starts_with(conditionPrefix) || !sameName(key, "File")) return {};
  const std::string condition = section.substr(conditionPrefix.size());
  const bool holds = !condition.empty() && access(condition.c_str(), F_OK) == 0;
  return std::string(holds ? line.value.of(line.text) : "");
}

// The reader makes the same of a piece of a long line as of a line of its own.
void append(std::string& text, const Line& line) {
  constexpr std::string_view mark = "\xEF\xBB\xBF";
  if (line.chunk == 1 && line.offset > 0) text += mark;
  text.append(line.text) += '\n';
}

// A file that is being copied.
struct Copied {
  std::string text = {};
  bool differs = false;       // the reader must read the copy, not the file
  std::string fileLine = {};  // that named it; empty for the main file
};

}  // namespace

bool isSameFile(const std::string& a, const std::string& b) {
  std::error_code error;
  return a == b || std::filesystem::equivalent(a, b, error);
}

void Overlay::set(const std::string& path, const std::string& text) {
  auto file = std::make_shared<const standin::MemoryFile>(text);
  const auto found = std::find_if(texts_.begin(), texts_.end(),
                                  [&](const Text& each) { return isSameFile(each.path, path); });
  if (found == texts_.end())
    texts_.push_back({path, std::move(file)});
  else
    found->file = std::move(file);
}

std::string Overlay::placeOf(const std::string& path) const {
  const auto found = std::find_if(texts_.begin(), texts_.end(),
                                  [&](const Text& each) { return isSameFile(each.path, path); });
  return found == texts_.end() ? path : found->file->path();
}

OverlaidCopy::OverlaidCopy(const std::string& path, const WalkLimits& limits,
                           const Overlay& overlay)
    : path_(path) {
  Walk walk(path, path, limits, overlay);
  std::vector<Copied> open{{.differs = overlay.placeOf(path) != path}};
  for (Walk::Step step = walk.next(); step != Walk::Step::End; step = walk.next()) {
    if (step == Walk::Step::Line) {
      const std::string file = namedFile(walk);
      std::string line;
      append(line, walk.line());
      if (!file.empty() && walk.enter(file).result == Walk::Entering::Entered) {
        open.push_back({.differs = overlay.placeOf(file) != file, .fileLine = std::move(line)});
      } else {
        open.back().text += line;
      }
      continue;
    }
    Copied left = std::move(open.back());
    open.pop_back();
    if (left.differs) {
      files_.push_back(std::make_unique<standin::MemoryFile>(left.text));
      left.fileLine = "File=" + files_.back()->path() + "\n";
    }
    if (open.empty()) break;
    open.back().text += left.fileLine;
    open.back().differs |= left.differs;
  }
  if (!files_.empty()) path_ = files_.back()->path();
}

}  // namespace check
