#include "tools/check/Judge.h"

#include <fmt/format.h>

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "tools/check/EntryRules.h"
#include "tools/check/LineRules.h"
#include "tools/check/SectionRules.h"
#include "tools/check/WholeRules.h"

namespace check {
namespace {

// What is known of an open file so far.
struct FileState {
  std::optional<Header> header = {};
  std::shared_ptr<const std::string> section = {};  // the name in the header
  std::size_t pendingLine = 0;  // the number of the pair that an indented line would continue
  // For each line rule that is not always reported, the last line reported for it.
  std::vector<std::size_t> reported = std::vector<std::size_t>(lineRules().size());
  std::size_t badLines = 0;
  std::optional<SourceLine> namedAt = {};  // the File line of a dedicated file
  Span namedPlace = {};                    // likewise
};

class Judge {
 public:
  Judge(const std::string& path, const std::string& name, const WalkLimits& limits,
        const Overlay& overlay, const HeardServer* server, Findings& findings)
      : walk_(path, name, limits, overlay), limits_(limits), server_(server), findings_(findings) {}

  Judged operator()();

 private:
  FileState& state() { return files_.back(); }
  void takeLine();
  void takeFileEnd();
  void judgeLine(const LineFacts& facts);
  bool isNew(std::size_t rule, Repeats repeats);
  void takeHeader();
  void takeOpenHeader();
  void begin(Header header);
  void closeHeader();
  void noteUse(std::string_view key);
  bool isRead();
  void takePair(const LineFacts& facts);
  void takeSetting(const LineFacts& facts);
  void takeEntry(const LineFacts& facts);
  void takeFileLine(const LineFacts& facts);
  void enter(const FileFacts& facts);
  std::vector<EntryPlace> entryPlaces() const;

  const SourceLine& here();
  void add(const SourceLine& line, MaybeFinding finding);
  void addHere(MaybeFinding finding);

  Walk walk_;
  const WalkLimits limits_;
  const HeardServer* const server_;
  Findings& findings_;
  Configuration configuration_;
  std::vector<FileState> files_ = std::vector<FileState>(1);  // the open ones
  std::optional<SourceLine> here_;
  bool isEndless_ = false;
  bool tooManyReported_ = false;
  bool relativeReported_ = false;
};

Judged Judge::operator()() {
  for (Walk::Step step = walk_.next(); step != Walk::Step::End; step = walk_.next()) {
    here_.reset();
    if (step == Walk::Step::Line)
      takeLine();
    else
      takeFileEnd();
  }
  const Report report = [&](const SourceLine* line, Finding finding) {
    if (line != nullptr)
      findings_.add(*line, std::move(finding));
    else
      findings_.add(walk_.mainFile(), walk_.order(), std::move(finding));
  };
  judgeWhole(configuration_, report);
  if (server_ != nullptr) judgeServer(configuration_, *server_, report);
  Judged judged{.reading = isEndless_ ? Reading::Endless : Reading::Finite,
                .entries = entryPlaces()};
  for (const SourceFile& file : walk_.files()) judged.files.push_back(file.name);
  return judged;
}

// ---- Findings ---------------------------------------------------------------------------------

// The current line, copied only if something keeps or reports it.
const SourceLine& Judge::here() {
  if (!here_) here_ = walk_.keptLine(state().section);
  return *here_;
}

void Judge::add(const SourceLine& line, MaybeFinding finding) {
  if (!finding) return;
  if (finding->rule.text().weight == Weight::LineError) {
    ++state().badLines;
    configuration_.isPartial = true;
  }
  findings_.add(line, *std::move(finding));
}

void Judge::addHere(MaybeFinding finding) {
  if (finding) add(here(), std::move(finding));
}

// ---- Lines ------------------------------------------------------------------------------------

void Judge::takeLine() {
  const Line& line = walk_.line();
  LineFacts facts{.line = line,
                  .file = walk_.file(),
                  .section = nullptr,
                  .pendingKey = walk_.scanner().pendingName()};
  if (line.kind == LineKind::Continuation) {
    facts.pendingLine = fmt::format("line {}", state().pendingLine);
  }
  if (line.chunk == 1) addHere(notText(walk_.file().head));
  if (line.kind == LineKind::Header) return takeHeader();
  const bool isPair = line.kind == LineKind::Pair || line.kind == LineKind::Continuation;
  if (isPair) noteUse(facts.key());
  if (state().header) facts.section = &state().header->judgedAs();
  judgeLine(facts);
  if (line.kind == LineKind::BadHeader) takeOpenHeader();
  if (line.kind == LineKind::Pair) state().pendingLine = line.number;
  if (isPair) takePair(facts);
}

void Judge::judgeLine(const LineFacts& facts) {
  const auto rules = lineRules();
  for (std::size_t i = 0; i < rules.size(); ++i) {
    MaybeFinding finding = rules[i].judge(facts);
    if (finding && isNew(i, rules[i].repeats)) addHere(std::move(finding));
  }
}

// Whether to report that the current line breaks this rule.
bool Judge::isNew(std::size_t rule, Repeats repeats) {
  switch (repeats) {
    case Repeats::Always:
      break;
    case Repeats::OncePerFile:
      return std::exchange(state().reported[rule], walk_.line().number) == 0;
    case Repeats::OncePerLine:
      // The first piece of a long line is reported apart from the others.
      if (!walk_.line().isTail) return true;
      return std::exchange(state().reported[rule], walk_.line().number) != walk_.line().number;
  }
  return true;
}

// ---- Sections ---------------------------------------------------------------------------------

void Judge::takeHeader() {
  closeHeader();
  state().section = nullptr;
  judgeLine({.line = walk_.line(), .file = walk_.file()});
  Header header = headerIn(walk_.line(), walk_.scanner().section(), here());
  for (const HeaderRule rule : openingRules()) addHere(rule(header));
  begin(std::move(header));
}

// A header without its "]" begins no section. The module refuses a main file with one, so the lines
// below are judged as they were meant, and one round finds all mistakes. In a dedicated file, the
// module reads the lines below as part of the section above, and so does this. The same holds below
// a condition in the main file: the module then opens the files that the lines name, and these may
// lead back to the file.
void Judge::takeOpenHeader() {
  if (walk_.file().isDedicated()) return;
  if (sectionOf(walk_.scanner().section()).kind == SectionKind::Condition) return;
  std::optional<Header> header = openHeaderIn(walk_.line(), here());
  if (!header) return;
  closeHeader();
  begin(*std::move(header));
}

void Judge::begin(Header header) {
  state().section = std::make_shared<const std::string>(header.fullName());
  state().header = std::move(header);
}

void Judge::closeHeader() {
  if (!state().header) return;
  const Header& header = *state().header;
  for (const HeaderRule rule : closingRules()) add(header.at, rule(header));
}

void Judge::takeFileEnd() {
  closeHeader();
  const FileState left = std::move(files_.back());
  files_.pop_back();
  if (!left.namedAt) return;
  add(*left.namedAt, dedicatedFileErrors(left.badLines, walk_.file().name, left.namedPlace));
}

// ---- Pairs ------------------------------------------------------------------------------------

// Records that the section has a pair with this key.
void Judge::noteUse(std::string_view key) {
  if (!state().header || state().header->firstPair > 0) return;
  Header& header = *state().header;
  noteFirstPair(header, walk_.line().number, key);
  for (const HeaderRule rule : firstPairRules()) add(header.at, rule(header));
}

// Whether the module reads the settings and entries of the section. In the main file, those that it
// skips count as read, because the unknown section is the only mistake there.
bool Judge::isRead() {
  return !walk_.file().isDedicated() || state().header->section->kind != SectionKind::Unknown;
}

void Judge::takePair(const LineFacts& facts) {
  const FileState& file = state();
  const bool isLost = facts.section != nullptr && !isRead() && sameName(facts.key(), "Target");
  if (looksLikeTarget(facts) || isLost) {
    const std::string_view known = facts.section != nullptr ? facts.section->name : "";
    configuration_.noteLostTarget(known.empty() && file.section ? *file.section : known, here());
  }
  if (facts.section == nullptr || !isKeyKnown(facts)) return;
  switch (facts.section->kind) {
    case SectionKind::Meters:
    case SectionKind::Engine:
      return takeSetting(facts);
    case SectionKind::MeterEntries:
    case SectionKind::EngineEntries:
      return takeEntry(facts);
    case SectionKind::Condition:
      return takeFileLine(facts);
    case SectionKind::Unknown:
      return;
  }
}

void Judge::takeSetting(const LineFacts& facts) {
  const Line& line = facts.line;
  Setting setting{.key = sameNameIn(facts.key(), facts.section->keys),
                  .at = here(),
                  .place = line.value.size > 0 ? line.value : line.body,
                  .value = std::string(facts.value()),
                  .isContinuation = line.kind == LineKind::Continuation};
  auto& latest = configuration_.settingOf(facts.section->kind, setting.key);
  for (const SettingRule rule : settingRules()) {
    addHere(rule({setting, latest && isRead() ? &*latest : nullptr}));
  }
  if (isRead()) latest = std::move(setting);
}

void Judge::takeEntry(const LineFacts& facts) {
  JudgedEntry judged = judgeEntry(*facts.section, facts.line, facts.file);
  for (Finding& finding : judged.findings) addHere(std::move(finding));
  if (!judged.entry || !isRead()) return;
  here();
  configuration_.entries.push_back(
      {*std::exchange(here_, {}), facts.section, *std::move(judged.entry)});
  if (configuration_.entries.size() <= limits_.entries) return;
  throw UncheckableFile(
      fmt::format("it has more than the {} entries that can be checked", limits_.entries));
}

std::vector<EntryPlace> Judge::entryPlaces() const {
  std::map<const SourceFile*, std::size_t> indices;
  for (const SourceFile& file : walk_.files()) indices.emplace(&file, indices.size());
  std::array<std::array<std::size_t, 4>, 3> sizes{};  // of the lists
  std::vector<EntryPlace> places;
  places.reserve(configuration_.entries.size());
  for (const auto& [at, section, entry] : configuration_.entries) {
    const bool isMeter = section->kind == SectionKind::MeterEntries;
    const standin::SlotSet set = !isMeter       ? standin::SlotSet::Engine
                                 : entry.isSlow ? standin::SlotSet::Slow
                                                : standin::SlotSet::Fast;
    std::size_t& size = sizes.at(static_cast<std::size_t>(set)).at(gateway::indexOf(section->type));
    places.push_back({.file = indices.at(at.file),
                      .line = at.number,
                      .set = set,
                      .type = section->type,
                      .position = size++});
  }
  return places;
}

// ---- Dedicated files --------------------------------------------------------------------------

void Judge::takeFileLine(const LineFacts& facts) {
  Header& header = *state().header;
  header.hasFile = true;
  const Line& line = facts.line;
  const FileFacts file{header, line.value.size > 0 ? line.value : line.body, facts.value()};
  addHere(conditionDiffers(file));
  if (MaybeFinding finding = relativePath(file);
      finding && !std::exchange(relativeReported_, true)) {
    addHere(std::move(finding));
  }
  if (header.conditionHolds)
    enter(file);
  else
    configuration_.isPartial = true;
}

void Judge::enter(const FileFacts& facts) {
  const SourceLine namedAt = here();
  const Walk::Entered entered = walk_.enter(std::string(facts.path));
  switch (entered.result) {
    case Walk::Entering::Entered:
      files_.push_back({.namedAt = namedAt, .namedPlace = facts.place});
      return;
    case Walk::Entering::Unreadable:
      break;
    case Walk::Entering::TooMany:
      if (std::exchange(tooManyReported_, true)) return;
      [[fallthrough]];
    case Walk::Entering::LeadsBack:
    case Walk::Entering::MayBeEndless:
      isEndless_ = true;
  }
  configuration_.isPartial = true;
  add(namedAt, unreadFile(facts, entered));
}

}  // namespace

Judged judge(const std::string& path, const std::string& name, const WalkLimits& limits,
             const Overlay& overlay, const HeardServer* server, Findings& findings) {
  return Judge(path, name, limits, overlay, server, findings)();
}

}  // namespace check
