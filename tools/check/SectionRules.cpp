#include "tools/check/SectionRules.h"

#include <fmt/format.h>
#include <fmt/ranges.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <utility>
#include <vector>

#include "tools/check/Text.h"

namespace check {
namespace {

bool isCondition(const Header& header) {
  return header.section->kind == SectionKind::Condition;
}

Span placeOfCondition(const Header& header) {
  return {header.name.begin + conditionPrefix.size(), header.name.size - conditionPrefix.size()};
}

// ---- At the header ----------------------------------------------------------------------------

MaybeFinding textAfterHeader(const Header& header) {
  const std::string_view rest = header.rest.of(header.at.text);
  if (rest.empty() || rest.front() == ';' || rest.front() == '#') return std::nullopt;
  const std::string text = fmt::format("the module ignores {} after the header", inQuotes(rest));
  if (rest.front() == ']')
    return Finding{"text-after-header", header.rest, text, safe(remove(header.rest, "it"))};
  return Finding{"text-after-header", header.rest, text, "put it on a line of its own"};
}

MaybeFinding longSectionName(const Header& header) {
  if (isCondition(header) || header.name.size <= Scanner::keptName) return std::nullopt;
  return Finding{"long-section-name", header.name,
                 fmt::format("the section name has {} bytes, so the module cuts it to {}: {}",
                             header.name.size, Scanner::keptName, inQuotes(header.cutName)),
                 "write the name of a known section"};
}

MaybeFinding emptyCondition(const Header& header) {
  if (!isCondition(header) || !header.fullCondition().empty()) return std::nullopt;
  return Finding{"empty-condition", header.name,
                 "there is no path after ParseIfExist:, so the module skips this section",
                 "write [ParseIfExist:/path]"};
}

MaybeFinding longCondition(const Header& header) {
  const std::string_view whole = header.fullCondition();
  if (whole.size() == header.condition.size()) return std::nullopt;
  return Finding{
      "long-condition", placeOfCondition(header),
      fmt::format("the condition path has {} bytes, so the module looks for the first {}: {}",
                  whole.size(), header.condition.size(), inQuotes(header.condition)),
      "use a path of at most 36 bytes; the File may be longer"};
}

MaybeFinding blanksAroundCondition(const Header& header) {
  const std::string_view whole = header.fullCondition();
  if (whole.empty() || (!isBlank(whole.front()) && !isBlank(whole.back()))) return std::nullopt;
  return Finding{
      "outer-blanks",
      placeOfCondition(header),
      fmt::format(
          "the condition path {} begins or ends with white space, which is part of the path",
          inQuotes(whole)),
      {"remove the white space inside the brackets", placeOfCondition(header),
       std::string(trimmed(whole))}};
}

MaybeFinding missingCondition(const Header& header) {
  if (header.conditionHolds || header.fullCondition().empty()) return std::nullopt;
  return Finding{"missing-condition", placeOfCondition(header),
                 fmt::format("{} does not exist here, so the module skips this section",
                             inQuotes(header.condition)),
                 "correct the path, or pass --allow missing-condition if the file may be absent"};
}

// ---- The section that was meant ---------------------------------------------------------------

const std::vector<std::string>& sectionNames() {
  static const auto names = [] {
    std::vector<std::string> all;
    for (const Section& section : namedSections()) all.emplace_back(section.name);
    return all;
  }();
  return names;
}

constexpr std::size_t half = 6;  // the letters of "Meters" and of "Engine"

// The section that was meant by a common synonym of its type, such as "MetersDouble".
std::string sectionByOtherWord(std::string_view name) {
  struct Synonym {
    std::string_view word, type;
  };
  constexpr std::array<Synonym, 7> synonyms = {{{"Integer", "Int"},
                                                {"Signed", "Int"},
                                                {"Unsigned", "Uint"},
                                                {"UnsignedInt", "Uint"},
                                                {"Double", "Float"},
                                                {"Real", "Float"},
                                                {"Text", "String"}}};
  for (const std::string_view kind : {"Meters", "Engine"}) {
    if (!sameName(name.substr(0, half), kind)) continue;
    for (const Synonym& each : synonyms) {
      if (sameName(name.substr(half), each.word)) return fmt::format("{}{}", kind, each.type);
    }
  }
  return {};
}

// The section that was meant by a name such as "FloatMeters".
std::string sectionBySwap(std::string_view name) {
  for (const std::string& section : sectionNames()) {
    const std::string_view type = std::string_view(section).substr(half);
    if (!type.empty() && name.size() == section.size() &&
        sameName(name.substr(0, type.size()), type) &&
        sameName(name.substr(type.size()), section.substr(0, half))) {
      return section;
    }
  }
  return {};
}

// The section that was probably meant by an unknown name, or nothing.
std::string meantName(std::string_view name) {
  if (const auto same = sameNameIn(name, sectionNames()); !same.empty()) return std::string(same);
  if (std::string close = closestName(name, sectionNames()); !close.empty()) return close;
  std::string solid(name);
  std::erase_if(solid, [](char each) { return isBlank(each) || each == '.' || each == '-'; });
  std::string swapped = sectionBySwap(solid);
  return swapped.empty() ? sectionByOtherWord(solid) : swapped;
}

Remedy remedyForSection(const Header& header) {
  std::vector<std::string> names = sectionNames();
  names.emplace_back(conditionPrefix);
  const std::string_view bare = trimmed(header.fullName());
  const std::string_view front = bare.substr(0, bare.find(':') + 1);
  const Span place = header.brackets();
  if (const auto same = sameNameIn(bare, names); !same.empty()) {
    return safe(
        write(place, fmt::format("[{}]", same), ", without white space inside the brackets"));
  }
  if (sameName(front, conditionPrefix)) {
    return write(place, fmt::format("[{}{}]", conditionPrefix, bare.substr(front.size())),
                 ", with exactly these capitals and no leading white space");
  }
  if (closestName(front.empty() ? bare : front, names) == conditionPrefix) {
    return fmt::format("did you mean [{}PATH]?", conditionPrefix);
  }
  if (const std::string meant = meantName(bare); !meant.empty()) {
    return ask(place, fmt::format("[{}]", meant));
  }
  return fmt::format("the sections are {}PATH", fmt::join(names, ", "));
}

// Whether entries are below a header such as "[Meter]", which lacks the value type.
bool lacksType(const Header& header) {
  return header.meant != nullptr && isEntryKey(header.firstKey) &&
         !closestName(header.fullName(), {"Meters", "Engine"}).empty();
}

std::string adviceForType(const Header& header) {
  return fmt::format("write [{0}String], [{0}Int], [{0}Uint] or [{0}Float]",
                     sameName(header.firstKey, "Meter") ? "Meters" : "Engine");
}

MaybeFinding unknownSection(const Header& header) {
  if (header.section->kind != SectionKind::Unknown) return std::nullopt;
  const SourceFile& file = *header.at.file;
  return Finding{
      "unknown-section", header.brackets(),
      fmt::format("there is no section {}, so {} (first pair in line {})",
                  inQuotes(header.fullName()),
                  file.isDedicated() ? "the module skips its lines" : consequenceIn(file),
                  header.firstPair),
      lacksType(header) ? Remedy(adviceForType(header)) : remedyForSection(header)};
}

// ---- At the end of a section ------------------------------------------------------------------

MaybeFinding unusedSection(const Header& header) {
  if (header.section->kind != SectionKind::Unknown || header.firstPair > 0) return std::nullopt;
  const std::string text =
      fmt::format("there is no section {}, but the module ignores a header without pairs",
                  inQuotes(header.fullName()));
  const std::string close = closestName(header.fullName(), sectionNames());
  if (!close.empty()) {
    return Finding{"unused-section", header.brackets(), text,
                   ask(header.brackets(), fmt::format("[{}]", close))};
  }
  return Finding{"unused-section", header.brackets(), text,
                 "remove the header, or put \";\" in front of it"};
}

MaybeFinding conditionWithoutFile(const Header& header) {
  if (!isCondition(header) || header.hasFile) return std::nullopt;
  return Finding{"condition-without-file", header.brackets(),
                 "this section has no File, so the module reads nothing here",
                 fmt::format("add File={} below it",
                             header.condition.empty() ? "PATH" : header.fullCondition())};
}

constexpr std::array<HeaderRule, 6> opening = {textAfterHeader,       longSectionName,
                                               emptyCondition,        longCondition,
                                               blanksAroundCondition, missingCondition};
constexpr std::array<HeaderRule, 1> firstPair = {unknownSection};
constexpr std::array<HeaderRule, 2> closing = {unusedSection, conditionWithoutFile};

// What to do about quotes and "#" that became part of a path by mistake; empty if there are none.
std::string remedyForMarks(std::string_view path) {
  if (path.starts_with('"') || path.starts_with('\'')) {
    return "remove the quotes, which are part of the path";
  }
  if (path.find(" #") != path.npos) {
    return "write \" ;\" instead of \"#\" to begin the comment";
  }
  return {};
}

bool exists(std::string_view path) {
  return access(std::string(path).c_str(), F_OK) == 0;
}

}  // namespace

std::string_view Header::fullCondition() const {
  return isCondition(*this) ? fullName().substr(conditionPrefix.size()) : std::string_view();
}

const Section& Header::judgedAs() const {
  return meant != nullptr ? *meant : *section;
}

void noteFirstPair(Header& header, std::size_t number, std::string_view key) {
  header.firstPair = number;
  header.firstKey = key;
  if (header.section->kind != SectionKind::Unknown) return;
  const std::string name = meantName(trimmed(header.fullName()));
  if (name.empty()) return;
  header.meant = &sectionOf(name);
  // "[Meter]" with entries lacks the type. Strings are assumed: they accept any default.
  if (!isEntryKey(key) || (name != "Meters" && name != "Engine")) return;
  header.meant = &sectionOf(sameName(key, "Meter") ? "MetersString" : "EngineString");
}

Header headerIn(const Line& line, std::string_view cutName, SourceLine kept) {
  Header header{.at = std::move(kept),
                .name = line.name,
                .cutName = std::string(cutName),
                .rest = line.rest,
                .section = &sectionOf(cutName)};
  if (!isCondition(header)) return header;
  header.condition = header.cutName.substr(conditionPrefix.size());
  header.conditionHolds = !header.condition.empty() && exists(header.condition);
  return header;
}

std::optional<Header> openHeaderIn(const Line& line, SourceLine kept) {
  const std::string_view cutName = line.name.of(line.text).substr(0, Scanner::keptName);
  if (sectionOf(cutName).kind == SectionKind::Unknown && meantName(cutName).empty()) return {};
  return headerIn(line, cutName, std::move(kept));
}

std::span<const HeaderRule> openingRules() {
  return opening;
}

std::span<const HeaderRule> firstPairRules() {
  return firstPair;
}

std::span<const HeaderRule> closingRules() {
  return closing;
}

// ---- Files ------------------------------------------------------------------------------------

MaybeFinding notText(std::string_view head) {
  const bool hasMark = head.starts_with("\xFF\xFE") || head.starts_with("\xFE\xFF");
  const std::size_t bad = badBytesIn(head);
  const auto nuls = static_cast<std::size_t>(std::count(head.begin(), head.end(), '\0'));
  // Without its mark, every other byte of a text in UTF-16 is NUL.
  constexpr std::size_t least = 16;
  const bool alternates = nuls * 5 > head.size() * 2 && nuls * 5 < head.size() * 3 && bad == nuls;
  if (hasMark || (head.size() >= least && alternates)) {
    return Finding{"not-text",
                   {0, 1},
                   "this file is in UTF-16, which the module can't read",
                   "save it as UTF-8, for example with iconv -f UTF-16 -t UTF-8",
                   Scope::File};
  }
  constexpr std::size_t leastBinary = 64;
  if (head.size() < leastBinary || bad < head.size() / 4) return std::nullopt;
  return Finding{"not-text",
                 {0, 1},
                 "this is not a text file, but the module would read its bytes as lines",
                 "name the configuration file",
                 Scope::File};
}

MaybeFinding conditionDiffers(const FileFacts& facts) {
  const auto& [header, place, path] = facts;
  const std::string_view whole = header.fullCondition();
  if (path.empty() || whole.empty() || path == whole) return std::nullopt;
  // If quotes or "#" are why the file is missing, missing-file explains it better.
  const std::string marks = remedyForMarks(path);
  if (!marks.empty() && header.conditionHolds && !exists(path)) return std::nullopt;
  return Finding{
      "condition-differs", place,
      fmt::format("the section applies if {} exists, but File names {}", inQuotes(whole),
                  inQuotes(path)),
      !marks.empty() ? marks : "use the same path in both places, unless this is intended"};
}

MaybeFinding relativePath(const FileFacts& facts) {
  const std::string_view path = unquoted(facts.path);
  if (path.empty() || path.front() == '/') return std::nullopt;
  return Finding{
      "relative-path", facts.place,
      fmt::format("the engine resolves {} against its working directory, not against the folder of "
                  "this file (reported once)",
                  inQuotes(facts.path)),
      "write a path that begins with \"/\""};
}

MaybeFinding unreadFile(const FileFacts& facts, const Walk::Entered& entered) {
  const std::string path = inQuotes(facts.path);
  const std::string marks = remedyForMarks(facts.path);
  switch (entered.result) {
    case Walk::Entering::Entered:
      break;
    case Walk::Entering::Unreadable:
      return Finding{
          "missing-file", facts.place,
          fmt::format("the module can't read {} and starts without it: {}", path, entered.problem),
          marks.empty() ? "correct the path" : marks};
    case Walk::Entering::MayBeEndless:
      return Finding{
          "endless-file", facts.place,
          fmt::format("{} {}, so the engine might wait for its end forever", path, entered.problem),
          "name a regular file"};
    case Walk::Entering::LeadsBack:
      return Finding{"include-cycle", facts.place,
                     fmt::format("{} is still being read, so the module would read it again and "
                                 "again until it runs out of files or stack",
                                 path),
                     "remove this File line"};
    case Walk::Entering::TooMany:
      return Finding{"too-many-files", facts.place,
                     fmt::format("the dedicated files are too many, too large or nested too "
                                 "deeply: {}",
                                 entered.problem),
                     "name each dedicated file only once"};
  }
  return std::nullopt;
}

MaybeFinding dedicatedFileErrors(std::size_t badLines, std::string_view name, Span place) {
  if (badLines == 0) return std::nullopt;
  return Finding{"dedicated-file-errors", place,
                 fmt::format("the module skips {} in {} and uses the rest of the file",
                             counted(badLines, "bad line"), inQuotes(name)),
                 "correct what is reported below"};
}

}  // namespace check
