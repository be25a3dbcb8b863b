#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/check/EntryWords.h"
#include "tools/check/Text.h"
#include "tools/common/EntryText.h"
#include "tools/lsp/Descriptions.h"
#include "tools/lsp/Features.h"
#include "tools/lsp/Lines.h"

namespace lsp {
namespace {

using check::LineKind;
using check::Section;
using check::SectionKind;

// As the protocol numbers what an item is.
enum class ItemKind { Word = 5, Meter = 6, Section = 9, Key = 10, Value = 20 };

// All keys of a large server would keep the editor waiting, and nobody would read the list.
constexpr std::size_t mostKeys = 1000;

constexpr std::string_view keyWord = "Key=";

bool containsIgnoringCase(std::string_view text, std::string_view part) {
  const auto lower = [](char c) { return std::tolower(static_cast<unsigned char>(c)); };
  return std::search(text.begin(), text.end(), part.begin(), part.end(),
                     [&](char a, char b) { return lower(a) == lower(b); }) != text.end() ||
         part.empty();
}

std::optional<standin::SlotSet> rateIn(const check::EntryWords& entry) {
  for (const check::Word& word : entry.words) {
    if (word.text.starts_with("Type=")) {
      return word.text == "Type=slow" ? standin::SlotSet::Slow : standin::SlotSet::Fast;
    }
  }
  return std::nullopt;
}

// The keys of the list, without the one on this line of the document.
void addKeys(EntryList& list, const check::Checked& checked, const Document& document,
             std::size_t line) {
  std::set<std::size_t> ours;
  for (const check::EntryPlace& entry : checked.entries) {
    if (entry.line == line && entry.set == list.rate && entry.type == list.type &&
        Checks::names(checked.files[entry.file], document)) {
      ours.insert(entry.position);
    }
  }
  for (const tools::ConfiguredSlot& slot : checked.slots) {
    if (slot.set == list.rate && slot.type == list.type && !ours.contains(slot.position)) {
      list.keys.insert(slot.key);
    }
  }
}

// What is written ends at the cursor, so the blanks at its end belong to it.
std::string_view withoutIndent(std::string_view text) {
  while (!text.empty() && check::isBlank(text.front())) text.remove_prefix(1);
  return text;
}

// The place where something is to be completed, and what fits there.
class Completer {
 public:
  Completer(const Document& document, Checks& checks, const MeterServer* server, std::size_t offset)
      : document_(document),
        checks_(checks),
        server_(server),
        offset_(offset),
        section_(&check::sectionOf("")) {
    const Places& places = document.places();
    number_ = places.positionOf(offset).line;
    const std::size_t begin = places.startOf(number_);
    before_ = std::string_view(document.text()).substr(begin, offset - begin);
    after_ = places.line(number_).substr(before_.size());
    readContext();
  }

  Json operator()() {
    const std::string_view text = check::trimmed(before_);
    if (text.starts_with(';') || text.starts_with('#') || isInComment_) return items_;
    if (isContinuation_) {
      completeValue(key_, before_);
    } else if (text.starts_with('[')) {
      if (text.find(']') == text.npos) completeSection();
    } else if (const std::size_t equals = before_.find('='); equals != before_.npos) {
      completeValue(check::trimmed(before_.substr(0, equals)), before_.substr(equals + 1));
    } else {
      completeKey();
    }
    if (!isIncomplete_) return items_;
    return {{"isIncomplete", true}, {"items", items_}};
  }

 private:
  // Reads the section above the line, the key that the line would continue, and its comment.
  void readContext() {
    Lines lines(document_);
    bool isHere = false;
    while ((isHere = lines.next()) && lines.line().number <= number_) {
      section_ = &lines.section();
      if (!lines.key().empty()) key_ = lines.key();
      if (lines.line().kind == LineKind::Header) key_.clear();
    }
    if (isHere && lines.line().number == number_ + 1) cutComment(lines.line());
    const bool isIndented = !before_.empty() && check::isBlank(before_.front());
    isContinuation_ = isIndented && !key_.empty();
  }

  // Cuts off the end of a pair that the module does not read.
  void cutComment(const check::Line& line) {
    if (line.kind != LineKind::Pair || line.rest.size == 0 || line.offset > 0) return;
    isInComment_ = line.rest.begin < before_.size();
    if (!isInComment_) after_ = after_.substr(0, line.rest.begin - before_.size());
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
    if (entry.comment) return;
    if (entry.openQuote) return completeQuoted(value, *entry.openQuote);
    const bool isBetween = value.empty() || check::isBlank(value.back());
    const check::Word none;
    const auto& [place, last] = isBetween || entry.words.empty() ? none : entry.words.back();
    if (place.size != last.size()) return;  // it is quoted
    if (last.find('=') == last.npos) return completeWord(entry, last);
    if (section_->kind != SectionKind::MeterEntries) return;
    const std::string_view written = std::string_view(last).substr(last.find('=') + 1);
    if (last.starts_with("Type=")) addValues(written, {"fast", "slow"});
    if (last.starts_with(keyWord)) completeMeter(entry, written, after_);
  }

  // Completes a key in quotes. The closing quote follows the cursor if the editor has added it.
  void completeQuoted(std::string_view value, std::size_t quote) {
    const std::string_view before = value.substr(0, quote);
    const std::size_t word = before.size() - std::min(before.size(), keyWord.size());
    const bool isKey = before.substr(word) == keyWord &&
                       (word == 0 || check::isBlank(before[word - 1])) &&
                       section_->kind == SectionKind::MeterEntries;
    if (!isKey) return;
    const bool isClosed = after_.starts_with(value[quote]);
    completeMeter(check::entryWordsOf(before), value.substr(quote),
                  after_.substr(isClosed ? 1 : 0));
  }

  // `after` is what follows the text that an item replaces.
  void completeMeter(const check::EntryWords& before, std::string_view written,
                     std::string_view after) {
    if (server_ == nullptr) return;
    const auto rate = rateIn(before);
    EntryList list{
        .rate = rate ? *rate : rateIn(check::entryWordsOf(after)).value_or(standin::SlotSet::Fast),
        .type = section_->type};
    for (const Document* root : checks_.rootsOf(document_)) {
      addKeys(list, checks_.of(*root), document_, number_ + 1);
    }
    const std::size_t end = offset_ + (after_.size() - after.size());
    for (const KeyChoice& choice : choicesFor(list, written)) addMeter(choice, written, end);
  }

  // If there are too many choices, only those that contain the written text.
  std::vector<KeyChoice> choicesFor(const EntryList& list, std::string_view written) {
    std::vector<KeyChoice> choices = server_->choicesFor(list);
    isIncomplete_ = choices.size() > mostKeys;
    if (!isIncomplete_) return choices;
    const std::string_view part =
        written.substr(std::min(written.find_first_not_of("\"'"), written.size()));
    std::erase_if(choices,
                  [&](const KeyChoice& choice) { return !containsIgnoringCase(choice.key, part); });
    if (choices.size() > mostKeys) choices.resize(mostKeys);
    return choices;
  }

  void addMeter(const KeyChoice& choice, std::string_view written, std::size_t end) {
    add(ItemKind::Meter, written, choice.key, tools::entryTextOf(choice.key), {});
    Json& item = items_.back();
    item["textEdit"]["range"] = document_.rangeOf(offset_ - written.size(), end);
    item["detail"] =
        choice.description + (choice.fit == Fit::Configured ? ", already in this list" : "");
    item["sortText"] = fmt::format("{}{}", static_cast<int>(choice.fit), choice.key);
    // Editors compare this with the written text, quotes included.
    const bool isQuoted = written.starts_with('"') || written.starts_with('\'');
    if (isQuoted) item["filterText"] = fmt::format("{}{}", written.front(), choice.key);
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
  Checks& checks_;
  const MeterServer* const server_;  // or null
  const std::size_t offset_;
  std::size_t number_ = 0;   // of the line, from 0
  std::string_view before_;  // of the line, before the place
  std::string_view after_;
  const Section* section_;
  std::string key_;
  bool isContinuation_ = false;
  bool isInComment_ = false;
  bool isIncomplete_ = false;  // there are more items
  Json items_ = Json::array();
};

}  // namespace

Json completion(const Document& document, Checks& checks, const MeterServer* server,
                const Json& params) {
  return Completer(document, checks, server, document.offsetOf(params.at("position")))();
}

}  // namespace lsp
