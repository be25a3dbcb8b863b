#include "tools/lsp/Checks.h"

#include <algorithm>

namespace lsp {
namespace {

bool reads(const check::Checked& checked, const Document& document) {
  return std::any_of(checked.files.begin(), checked.files.end(),
                     [&](const std::string& file) { return Checks::names(file, document); });
}

}  // namespace

bool Checks::names(const std::string& file, const Document& document) {
  return check::isSameFile(file, document.path());
}

void Checks::noteChange(const Document& document) {
  std::erase_if(kept_, [&](const auto& each) {
    return each.first == &document || reads(each.second, document);
  });
}

const Document* Checks::next() const {
  const auto& all = documents_.all();
  const auto found = std::find_if(all.begin(), all.end(),
                                  [&](const Document& each) { return !kept_.contains(&each); });
  return found == all.end() ? nullptr : &*found;
}

check::Request Checks::requestOf(const Document& document) const {
  check::Request request{.path = document.path(),
                         .name = document.path(),
                         .withSlots = true,
                         .withRefusedSlots = true};
  for (const Document& each : documents_.all()) request.overlay.set(each.path(), each.text());
  return request;
}

const check::Checked& Checks::of(const Document& document) {
  const auto kept = kept_.find(&document);
  if (kept != kept_.end()) return kept->second;
  return kept_.emplace(&document, check::check(requestOf(document))).first->second;
}

std::vector<const Document*> Checks::roots() {
  std::vector<const Document*> roots;
  const auto& all = documents_.all();
  for (const Document& document : all) {
    const bool isPart = std::any_of(all.begin(), all.end(), [&](const Document& other) {
      if (&other == &document || !reads(of(other), document)) return false;
      // Of files that name each other, the first that was opened is the main file.
      return other.order < document.order || !reads(of(document), other);
    });
    if (!isPart) roots.push_back(&document);
  }
  return roots;
}

std::vector<const Document*> Checks::rootsOf(const Document& document) {
  std::vector<const Document*> result = roots();
  std::erase_if(result, [&](const Document* root) {
    return root != &document && !reads(of(*root), document);
  });
  return result;
}

}  // namespace lsp
