#include <algorithm>
#include <array>
#include <string>
#include <string_view>

#include "tools/check/EntryWords.h"
#include "tools/check/Text.h"
#include "tools/lsp/Descriptions.h"
#include "tools/lsp/Features.h"
#include "tools/lsp/Lines.h"

namespace lsp {
namespace {

using check::LineKind;
using check::Section;
using check::SectionKind;

// As the protocol numbers what an item is.
enum class ItemKind { Word = 5, Section = 9, Key = 10, Value = 20 };

// What is written ends at the cursor, so the blanks at its end belong to it.
std::string_view withoutIndent(std::string_view text) {
  while (!text.empty() && check::isBlank(text.front())) text.remove_prefix(1);
  return text;
}

// The place where something is to be completed, and what fits there.
class Completer {
 public:
  Completer(const Document& document, std::size_t offset)
      : document_(document), offset_(offset), section_(&check::sectionOf("")) {
    const Places& places = document.places();
    number_ = places.positionOf(offset).line;
    const std::size_t begin = places.startOf(number_);
    before_ = std::string_view(document.text()).substr(begin, offset - begin);
    after_ = places.line(number_).substr(before_.size());
    readContext();
  }

  Json operator()() {
    const std::string_view text = check::trimmed(before_);
    if (text.starts_with(';') || text.starts_with('#')) return items_;
    if (isContinuation_) {
      completeValue(key_, before_);
    } else if (text.starts_with('[')) {
      if (text.find(']') == text.npos) completeSection();
    } else if (const std::size_t equals = before_.find('='); equals != before_.npos) {
      completeValue(check::trimmed(before_.substr(0, equals)), before_.substr(equals + 1));
    } else {
      completeKey();
    }
    return items_;
  }

 private:
  // The section above the line, and the key that the line would continue.
  void readContext() {
    Lines lines(document_);
    while (lines.next() && lines.line().number <= number_) {
      section_ = &lines.section();
      if (!lines.key().empty()) key_ = lines.key();
      if (lines.line().kind == LineKind::Header) key_.clear();
    }
    const bool isIndented = !before_.empty() && check::isBlank(before_.front());
    isContinuation_ = isIndented && !key_.empty();
  }

  // An item that replaces what has been written of it.
  void add(ItemKind kind, std::string_view written, std::string_view label, std::string_view text,
           const std::string& description) {
    Json item = {
        {"label", label},
        {"kind", static_cast<int>(kind)},
        {"textEdit",
         {{"range", document_.rangeOf(offset_ - written.size(), offset_)}, {"newText", text}}}};
    if (!description.empty()) item["documentation"] = description;
    items_.push_back(std::move(item));
  }

  void completeSection() {
    const std::string_view written = before_.substr(before_.find('[') + 1);
    const std::string_view end = after_.starts_with(']') ? "" : "]";
    for (const Section& section : check::namedSections()) {
      const std::string text = std::string(section.name).append(end);
      add(ItemKind::Section, written, section.name, text, describeSection(section.name));
    }
    add(ItemKind::Section, written, check::conditionPrefix, check::conditionPrefix,
        describeSection(check::conditionPrefix));
  }

  void completeKey() {
    const std::string_view written = withoutIndent(before_);
    for (const std::string& key : section_->keys) {
      add(ItemKind::Key, written, key, key + "=", describeKey(section_->name, key));
    }
  }

  void completeValue(std::string_view key, std::string_view value) {
    if (check::sameNameIn(key, section_->keys).empty()) return;
    const bool isEntry =
        section_->kind == SectionKind::MeterEntries || section_->kind == SectionKind::EngineEntries;
    if (isEntry) return completeEntry(value);
    if (section_->kind != SectionKind::Meters || check::sameName(key, "Target")) return;
    addValues(withoutIndent(value), {"true", "false"});
  }

  void addValues(std::string_view written, std::array<std::string_view, 2> values) {
    for (const std::string_view value : values) add(ItemKind::Value, written, value, value, {});
  }

  void completeEntry(std::string_view value) {
    const check::EntryWords entry = check::entryWordsOf(value);
    if (entry.openQuote) return;
    const bool isBetween = value.empty() || check::isBlank(value.back());
    const check::Word none;
    const auto& [place, last] = isBetween || entry.words.empty() ? none : entry.words.back();
    if (place.size != last.size()) return;  // it is quoted
    if (last.find('=') == last.npos) return completeWord(entry, last);
    const bool isType = last.starts_with("Type=") && section_->kind == SectionKind::MeterEntries;
    if (isType) addValues(std::string_view(last).substr(last.find('=') + 1), {"fast", "slow"});
  }

  // Each word makes sense only once.
  void completeWord(const check::EntryWords& entry, std::string_view written) {
    for (const std::string& word : check::wordsOf(section_->kind)) {
      const bool isUsed =
          std::any_of(entry.words.begin(), entry.words.end(),
                      [&](const check::Word& each) { return each.text.starts_with(word + "="); });
      if (!isUsed) add(ItemKind::Word, written, word + "=", word + "=", describeWord(word));
    }
  }

  const Document& document_;
  const std::size_t offset_;
  std::size_t number_ = 0;   // of the line, from 0
  std::string_view before_;  // of the line, before the place
  std::string_view after_;
  const Section* section_;
  std::string key_;
  bool isContinuation_ = false;
  Json items_ = Json::array();
};

}  // namespace

Json completion(const Document& document, const Json& params) {
  return Completer(document, document.offsetOf(params.at("position")))();
}

}  // namespace lsp
