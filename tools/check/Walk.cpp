#include "tools/check/Walk.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/check/ConfigurationRules.h"
#include "tools/check/EntryRules.h"
#include "tools/check/EntryWords.h"
#include "tools/check/LineReport.h"
#include "tools/check/Scanner.h"
#include "tools/check/Text.h"
#include "tools/check/Vocabulary.h"

namespace check {
namespace {

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};
using File = std::unique_ptr<std::FILE, FileCloser>;

// An open file, or why it could not be opened.
struct Opened {
  File file;
  struct stat status {};
  std::string problem;
  bool mayBeEndless = false;
};

bool isNullDevice(const struct stat& status) {
  return S_ISCHR(status.st_mode) && status.st_rdev == makedev(1, 3);
}

// Never blocks: opens neither pipes nor devices, except the null device.
Opened openFile(const std::string& path) {
  Opened opened;
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
    opened.problem = "it is a pipe or a device";
  if (!opened.problem.empty()) return opened;
  const int descriptor = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
  if (descriptor >= 0) opened.file.reset(fdopen(descriptor, "r"));
  if (!opened.file) opened.problem = std::strerror(errno);
  return opened;
}

// A section header, and what is known about its section so far.
struct Header {
  const Section* section = nullptr;
  std::string name = {};  // not cut
  Diagnostic at = {};
  Spot spot = {};
  bool isUsed = false;
  bool hasFile = false;        // of a ParseIfExist: section
  std::string condition = {};  // the path that the module tests
  bool conditionHolds = false;
};

// A file that is being read.
struct Frame {
  Frame(Opened opened, SourceFile read)
      : file(std::move(opened.file)),
        scanner(file.get()),
        device(opened.status.st_dev),
        inode(opened.status.st_ino),
        source(std::move(read)) {}

  File file;
  Scanner scanner;
  dev_t device;
  ino_t inode;
  SourceFile source;
  std::optional<Header> header;
  Spot pendingSpot;  // of the pair that an indented line would continue
  bool strayPairReported = false;
  bool nulReported = false;
  std::size_t tailReported = 0;       // the last line reported as too long
  std::size_t badTail = 0;            // the last line whose bad tail is reported
  std::optional<Diagnostic> namedAt;  // the File line that opened it
};

class Walker {
 public:
  Walker(Findings& findings, const WalkLimits& limits) : findings_(findings), limits_(limits) {}

  Reading operator()(const std::string& path, const std::string& name);

 private:
  void openMain(const std::string& path, const std::string& name);
  void takeLine(Frame& frame);
  void leave();

  void reportChunk(Frame& frame, LineReport& report);
  void takeHeader(Frame& frame, LineReport& report);
  void reportConditionHeader(Header& header, Span place, LineReport& report);
  void closeHeader(Frame& frame);
  void reportNoFile(const Header& header);
  void takeBadLine(Frame& frame, LineReport& report);
  static std::string remedyForBadLine(const Frame& frame, std::string_view body);
  void takePair(Frame& frame, LineReport& report);
  void takeStrayPair(Frame& frame, LineReport& report);
  void takeValue(Frame& frame, std::string_view key, LineReport& report);
  void reportContinuation(const Frame& frame, LineReport& report);
  void useUnknownSection(Frame& frame, LineReport& report);
  void reportUnknownKey(const Section& section, std::string_view key, LineReport& report);
  void takeFileLine(Frame& frame, LineReport& report);
  void include(const std::string& path, Span place, LineReport& report);
  bool leadsBack(const Opened& opened) const;
  void reportEndless(Rule rule, Span place, std::string text, std::string remedy,
                     LineReport& report);

  Findings& findings_;
  const WalkLimits limits_;
  ConfigurationRules configuration_;
  std::vector<std::string> fileNames_;
  std::vector<std::unique_ptr<Frame>> frames_;  // the main file first
  std::uint64_t order_ = 0;
  std::size_t included_ = 0;
  std::size_t includedBytes_ = 0;
  bool isEndless_ = false;
  bool tooManyReported_ = false;
  bool relativeReported_ = false;
};

// ---- Files ------------------------------------------------------------------------------------

Reading Walker::operator()(const std::string& path, const std::string& name) {
  openMain(path, name);
  while (!frames_.empty()) {
    Frame& frame = *frames_.back();
    if (frame.scanner.next())
      takeLine(frame);
    else
      leave();
  }
  configuration_.finish(name, order_, findings_);
  return isEndless_ ? Reading::Endless : Reading::Finite;
}

void Walker::openMain(const std::string& path, const std::string& name) {
  Opened opened = openFile(path);
  if (opened.mayBeEndless) {
    throw UncheckableFile("it is a pipe or a device: name a regular file, or - for standard input");
  }
  if (!opened.file) throw UncheckableFile(opened.problem);
  if (static_cast<std::size_t>(opened.status.st_size) > limits_.bytes) {
    throw UncheckableFile(fmt::format("it has more than {} bytes", limits_.bytes));
  }
  fileNames_.push_back(name);
  frames_.push_back(std::make_unique<Frame>(std::move(opened), SourceFile{.name = name}));
}

void Walker::leave() {
  closeHeader(*frames_.back());
  const std::unique_ptr<Frame> left = std::move(frames_.back());
  frames_.pop_back();
  if (left->source.badLines == 0 || !left->namedAt) return;
  Diagnostic at = *left->namedAt;
  at.rule = Rule::DedicatedFileErrors;
  at.severity = Severity::Warning;
  at.text = fmt::format("the module skips {} in {} and uses the rest of the file",
                        counted(left->source.badLines, "bad line"), inQuotes(left->source.name));
  at.remedy = "correct what is reported below";
  findings_.add(std::move(at));
}

void Walker::takeLine(Frame& frame) {
  const Line& line = frame.scanner.line();
  const bool hasSection = frame.header.has_value();
  LineReport report(findings_, fileNames_, frame.source, line,
                    hasSection && line.kind != LineKind::Header ? frame.header->name : "",
                    ++order_);
  reportChunk(frame, report);
  switch (line.kind) {
    case LineKind::Blank:
    case LineKind::Comment:
      return;
    case LineKind::Header:
      return takeHeader(frame, report);
    case LineKind::BadHeader:
    case LineKind::BadPair:
      return takeBadLine(frame, report);
    case LineKind::Continuation:
      reportContinuation(frame, report);
      return takePair(frame, report);
    case LineKind::Pair:
      frame.pendingSpot = report.spot();
      return takePair(frame, report);
  }
}

// ---- Lines ------------------------------------------------------------------------------------

// The key at the beginning of `name`, if a separator and more text follow it.
std::string_view keyAtBegin(std::string_view name, const std::vector<std::string>& keys) {
  for (const std::string& key : keys) {
    if (name.size() <= key.size() || !sameName(name.substr(0, key.size()), key)) continue;
    const char next = name[key.size()];
    if (isBlank(next) || next == ':') return key;
  }
  return {};
}

// What was probably meant as the value in a text that begins with `key`.
std::string_view valueAfter(std::string_view text, std::string_view key) {
  text.remove_prefix(key.size());
  while (!text.empty() && (isBlank(text.front()) || text.front() == ':')) text.remove_prefix(1);
  return text;
}

// A value without the quotes around it.
std::string_view unquoted(std::string_view value) {
  const bool isQuoted = value.size() > 1 && (value.front() == '"' || value.front() == '\'') &&
                        value.back() == value.front();
  return isQuoted ? value.substr(1, value.size() - 2) : value;
}

constexpr const char* remedyForComment = "begin a comment with \";\"";

bool looksLikeComment(std::string_view text) {
  return text.starts_with("//") || text.starts_with("--");
}

void Walker::reportChunk(Frame& frame, LineReport& report) {
  const Line& line = report.line();
  if (line.hasNul && !std::exchange(frame.nulReported, true)) {
    report.add(Rule::NulByte, {line.text.size(), 1},
               "the module ignores the rest of a line after a NUL byte (reported once per file)",
               "save the file as UTF-8 text");
  }
  const bool matters = line.kind != LineKind::Blank && line.kind != LineKind::Comment;
  if (!line.isTail || !matters) return;
  if (std::exchange(frame.tailReported, line.number) == line.number) return;
  report.add(
      Rule::LongLine, {0, line.text.size()},
      fmt::format("the line has more than {} bytes, so the module reads the rest, from here on, as "
                  "another line",
                  Scanner::chunkSize),
      "shorten the line");
}

void Walker::takeBadLine(Frame& frame, LineReport& report) {
  const Line& line = report.line();
  if (line.isTail && std::exchange(frame.badTail, line.number) == line.number) return;
  if (line.kind == LineKind::BadHeader) {
    const bool isCut = line.body.of(line.text).find(']') != std::string_view::npos;
    report.add(Rule::BadHeader, line.body,
               fmt::format("{}, so the lines below {}, and {}",
                           isCut ? "a \" ;\" begins a comment before the \"]\" of this header"
                                 : "this header has no \"]\"",
                           frame.header ? "stay in the previous section" : "are in no section",
                           report.consequence()),
               isCut ? "remove the \";\"" : "close it, as in [Meters]");
    return;
  }
  const std::string_view body = line.body.of(line.text);
  report.add(
      Rule::BadLine, line.body,
      fmt::format("this line is not a pair, because it has no \"=\"{}, so {}",
                  body.find('=') != body.npos ? " before its comment" : "", report.consequence()),
      remedyForBadLine(frame, body));
}

std::string Walker::remedyForBadLine(const Frame& frame, std::string_view body) {
  if (beginsUnseen(body)) return "remove the invisible character at the beginning";
  const auto& keys = frame.header ? frame.header->section->keys : allKeys();
  if (const auto key = sameNameIn(body, keys); !key.empty()) {
    return fmt::format("write {}=VALUE", key);
  }
  if (const auto key = keyAtBegin(body, keys); !key.empty()) {
    const std::string_view value = valueAfter(body, key);
    return fmt::format("write {}={}", key, value.starts_with(';') ? "VALUE" : value);
  }
  return "write NAME=VALUE, or begin a comment with \";\"";
}

void Walker::takeHeader(Frame& frame, LineReport& report) {
  closeHeader(frame);
  frame.strayPairReported = false;
  const Line& line = report.line();
  const Span brackets{line.body.begin, line.name.end() + 1 - line.body.begin};
  Header header{.section = &sectionOf(frame.scanner.section()),
                .name = std::string(line.name.of(line.text)),
                .at = report.at(brackets),
                .spot = report.spot()};
  const std::string_view rest = line.rest.of(line.text);
  if (!rest.empty() && rest.front() != ';' && rest.front() != '#') {
    report.add(Rule::TextAfterHeader, line.rest,
               fmt::format("the module ignores {} after the header", inQuotes(rest)),
               rest.front() == ']' ? "remove it" : "put it on a line of its own");
  }
  if (header.section->kind == SectionKind::Condition) {
    reportConditionHeader(header, line.name, report);
  } else if (header.name.size() > Scanner::keptName) {
    report.add(
        Rule::LongSectionName, line.name,
        fmt::format("the section name has {} bytes, so the module cuts it to {}: {}",
                    header.name.size(), Scanner::keptName, inQuotes(frame.scanner.section())),
        "write the name of a known section");
  }
  frame.header = std::move(header);
}

void Walker::reportConditionHeader(Header& header, Span place, LineReport& report) {
  const std::size_t prefix = conditionPrefix.size();
  const Span pathPlace{place.begin + prefix, place.size - prefix};
  const std::string whole = header.name.substr(prefix);
  header.condition = header.name.substr(0, Scanner::keptName).substr(prefix);
  header.conditionHolds = !header.condition.empty() && access(header.condition.c_str(), F_OK) == 0;
  if (whole.empty()) {
    report.add(Rule::EmptyCondition, place,
               "there is no path after ParseIfExist:, so the module skips this section",
               "write [ParseIfExist:/path]");
    return;
  }
  if (whole.size() != header.condition.size()) {
    report.add(
        Rule::LongCondition, pathPlace,
        fmt::format("the condition path has {} bytes, so the module looks for the first {}: {}",
                    whole.size(), header.condition.size(), inQuotes(header.condition)),
        "use a path of at most 36 bytes; the File may be longer");
  }
  if (isBlank(whole.front()) || isBlank(whole.back())) {
    report.add(
        Rule::OuterBlanks, pathPlace,
        fmt::format(
            "the condition path {} begins or ends with white space, which is part of the path",
            inQuotes(whole)),
        "remove the white space inside the brackets");
  }
  if (!header.conditionHolds) {
    report.add(Rule::MissingCondition, pathPlace,
               fmt::format("{} does not exist here, so the module skips this section",
                           inQuotes(header.condition)),
               "correct the path, or pass --allow missing-condition if the file may be absent");
  }
}

// Reports what only the end of a section shows.
void Walker::closeHeader(Frame& frame) {
  if (!frame.header) return;
  const Header& header = *frame.header;
  if (header.section->kind == SectionKind::Condition && !header.hasFile)
    return reportNoFile(header);
  if (header.section->kind != SectionKind::Unknown || header.isUsed) return;
  if (!findings_.keepsMore(Severity::Warning))
    return findings_.add({.rule = Rule::UnusedSection, .severity = Severity::Warning});
  std::vector<std::string> names;
  for (const Section& section : namedSections()) names.emplace_back(section.name);
  const std::string close = closestName(header.name, names);
  Diagnostic at = header.at;
  at.rule = Rule::UnusedSection;
  at.severity = Severity::Warning;
  at.text = fmt::format("there is no section {}, but the module ignores a header without pairs",
                        inQuotes(header.name));
  at.remedy = close.empty() ? "remove the header, or put \";\" in front of it"
                            : fmt::format("did you mean [{}]?", close);
  findings_.add(std::move(at));
}

void Walker::reportNoFile(const Header& header) {
  Diagnostic at = header.at;
  at.rule = Rule::ConditionWithoutFile;
  at.severity = Severity::Warning;
  at.text = "this section has no File, so the module reads nothing here";
  at.remedy =
      fmt::format("add File={} below it",
                  header.condition.empty() ? "PATH" : header.name.substr(conditionPrefix.size()));
  findings_.add(std::move(at));
}

// ---- Pairs and continuations ------------------------------------------------------------------

// Whether the value has words of an entry but no Key: probably a second line of the entry above.
bool isRestOfEntry(std::string_view value) {
  const auto words = entryWordsOf(value).words;
  const auto& known = wordsOf(SectionKind::MeterEntries);
  std::size_t found = 0;
  for (const Word& word : words) {
    const Field field = fieldOf(word.text);
    if (field.shape != Field::Shape::Whole && field.shape != Field::Shape::Cut) continue;
    const bool isKnown = std::find(known.begin(), known.end(), field.name) != known.end();
    if (!isKnown || field.name == "Key") return false;
    ++found;
  }
  return found > 0;
}

std::string_view leadingName(std::string_view text) {
  std::string_view name = text.substr(0, text.find_first_of("=:"));
  while (!name.empty() && isBlank(name.back())) name.remove_suffix(1);
  return name.size() < text.size() ? name : std::string_view();
}

void Walker::reportContinuation(const Frame& frame, LineReport& report) {
  const Line& line = report.line();
  const std::string& key = frame.scanner.pendingName();
  const std::string_view text = line.body.of(line.text);
  const bool isEntry = sameName(key, "Meter") || sameName(key, "Param");
  const bool looksLikeHeader = text.starts_with('[') && text.find(']') != text.npos;
  const bool looksLikePair = !sameNameIn(leadingName(text), allKeys()).empty();
  const std::string looks = looksLikeHeader ? "not a header but "
                            : looksLikePair ? "not a pair but "
                                            : "";
  const bool isSwitch = sameName(key, "EnableFastMeters") || sameName(key, "EnableSlowMeters");
  const auto& keys = frame.header && frame.header->section->kind != SectionKind::Unknown
                         ? frame.header->section->keys
                         : allKeys();
  if (isEntry && looks.empty() && isRestOfEntry(text)) {
    const std::string remedy =
        fmt::format("append it to the entry in {}", report.nameOf(frame.pendingSpot));
    report.add(Rule::IndentedLine, {0, line.body.end()},
               fmt::format("this indented line does not continue the entry in {}: it adds an entry "
                           "without a Key",
                           report.nameOf(frame.pendingSpot)),
               remedy);
    return report.takeAsMisplaced(remedy);
  }
  const std::string effect = sameNameIn(key, keys).empty() ? "it is just as wrong"
                             : isEntry                     ? "it adds an entry"
                             : sameName(key, "File")       ? "it adds a file"
                             : !isSwitch                   ? "it replaces that value"
                             : sameName(text, "true")      ? "it switches the meters on"
                                                           : "it switches the meters off";
  report.add(Rule::IndentedLine, {0, line.body.end()},
             fmt::format("this indented line is {}another value of {} in {}: {}", looks,
                         inQuotes(key), report.nameOf(frame.pendingSpot), effect),
             looks.empty() && isEntry ? fmt::format("remove the indentation and write {}={}", key,
                                                    text.size() <= 40 ? text : "...")
                                      : "remove the indentation");
  if (!looks.empty()) report.takeAsMisplaced("remove the indentation");
}

void Walker::takePair(Frame& frame, LineReport& report) {
  if (frame.header && frame.header->section->kind == SectionKind::Unknown) {
    useUnknownSection(frame, report);
  } else if (frame.header) {
    frame.header->isUsed = true;
    const Line& line = report.line();
    const bool isPair = line.kind == LineKind::Pair;
    takeValue(frame, isPair ? line.name.of(line.text) : frame.scanner.pendingName(), report);
  } else {
    takeStrayPair(frame, report);
  }
}

void Walker::takeStrayPair(Frame& frame, LineReport& report) {
  const Line& line = report.line();
  if (sameName(line.name.of(line.text), "Target"))
    configuration_.noteLostTarget("", report.ownName());
  if (std::exchange(frame.strayPairReported, true)) return;
  report.add(Rule::PairOutsideSection, line.body,
             fmt::format("there is no section header above this line, so {}", report.consequence()),
             looksLikeComment(line.body.of(line.text)) ? remedyForComment
                                                       : "put a header such as [Meters] above it");
}

void Walker::takeValue(Frame& frame, std::string_view key, LineReport& report) {
  const Section& section = *frame.header->section;
  const Span value = report.line().value;
  const bool isKnown = !sameNameIn(key, section.keys).empty();
  if (!isKnown) {
    // The pair itself is already reported. Its continuation lines add nothing.
    if (report.line().kind == LineKind::Pair) reportUnknownKey(section, key, report);
  } else if (section.kind == SectionKind::Condition) {
    takeFileLine(frame, report);
  } else if (section.kind == SectionKind::Meters || section.kind == SectionKind::Engine) {
    configuration_.set(section.kind, key, value, report);
  } else if (const auto entry = readEntry(section, value, report)) {
    configuration_.add(section, *entry, report);
    if (configuration_.entries() <= limits_.entries) return;
    throw UncheckableFile(
        fmt::format("it has more than the {} entries that can be checked", limits_.entries));
  }
}

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
    for (const Synonym& each : synonyms) {
      if (sameName(name, std::string(kind) + std::string(each.word))) {
        return std::string(kind) + std::string(each.type);
      }
    }
  }
  return {};
}

std::string remedyForSection(std::string_view name) {
  std::vector<std::string> names;
  for (const Section& section : namedSections()) names.emplace_back(section.name);
  names.emplace_back(conditionPrefix);
  std::string_view bare = name;
  while (!bare.empty() && isBlank(bare.front())) bare.remove_prefix(1);
  while (!bare.empty() && isBlank(bare.back())) bare.remove_suffix(1);
  const std::string_view front = bare.substr(0, bare.find(':') + 1);
  const std::string close = closestName(front.empty() ? bare : front, names);
  if (const auto same = sameNameIn(bare, names); !same.empty()) {
    return fmt::format("write [{}], without white space inside the brackets", same);
  }
  if (sameName(front, conditionPrefix)) {
    return fmt::format("write [{}{}], with exactly these capitals and no leading white space",
                       conditionPrefix, bare.substr(front.size()));
  }
  if (close == conditionPrefix) {
    return fmt::format("did you mean [{}PATH]?", conditionPrefix);
  }
  if (!close.empty()) {
    return fmt::format("did you mean [{}]?", close);
  }
  std::string solid(bare);
  std::erase_if(solid, [](char each) { return isBlank(each) || each == '.' || each == '-'; });
  // "FloatMeters" for "MetersFloat". Both first halves, Meters and Engine, have six letters.
  constexpr std::size_t half = 6;
  for (const Section& section : namedSections()) {
    const std::string swapped =
        std::string(section.name.substr(half)) + std::string(section.name.substr(0, half));
    if (section.name.size() > half && sameName(solid, swapped)) {
      return fmt::format("did you mean [{}]?", section.name);
    }
  }
  if (const auto meant = sectionByOtherWord(solid); !meant.empty()) {
    return fmt::format("did you mean [{}]?", meant);
  }
  return fmt::format("the sections are {}PATH", fmt::join(names, ", "));
}

void Walker::useUnknownSection(Frame& frame, LineReport& report) {
  Header& header = *frame.header;
  const Line& line = report.line();
  if (sameName(line.name.of(line.text), "Target")) {
    configuration_.noteLostTarget(header.name, report.ownName());
  }
  if (std::exchange(header.isUsed, true)) return;
  Diagnostic at = header.at;
  at.rule = Rule::UnknownSection;
  at.severity = report.isDedicated() ? Severity::Warning : Severity::Error;
  at.text =
      fmt::format("there is no section {}, so {} (first pair in line {})", inQuotes(header.name),
                  report.isDedicated() ? "the module skips its lines" : report.consequence(),
                  report.line().number);
  if (findings_.keepsMore(at.severity)) at.remedy = remedyForSection(header.name);
  ++frame.source.badLines;
  findings_.add(std::move(at));
}

// Says where a key belongs, or a word that stands in place of one.
std::string remedyForKey(const Section& section, std::string_view key, std::string_view value) {
  const auto& words = wordsOf(section.kind);
  const bool isEntry =
      section.kind == SectionKind::MeterEntries || section.kind == SectionKind::EngineEntries;
  if (isEntry && !sameNameIn(key, words).empty()) {
    const auto word = sameNameIn(key, words);
    return word == "Key" ? fmt::format("write {}={}={}", section.keys.front(), word, value)
                         : fmt::format("append {}={} to its entry, on the same line", word, value);
  }
  const std::string close = closestName(key, section.keys);
  const auto elsewhere = sameNameIn(key, allKeys());
  if (isEntry && (elsewhere == "Meter" || elsewhere == "Param")) {
    const bool isMeter = elsewhere == "Meter";
    return fmt::format("write {}={} if it is a {}, or move it to [{}{}]", section.keys.front(),
                       value, isMeter ? "parameter" : "meter", isMeter ? "Meters" : "Engine",
                       section.name.substr(std::string_view("Meters").size()));
  }
  if (elsewhere == "Meter") {
    return "move it to [MetersString], [MetersInt], [MetersUint] or [MetersFloat]";
  }
  if (elsewhere == "Param") {
    return "move it to [EngineString], [EngineInt], [EngineUint] or [EngineFloat]";
  }
  if (elsewhere == "Target") return "move it to [Meters] or [Engine]";
  if (elsewhere == "File") return "move it to a [ParseIfExist:PATH] section";
  if (!elsewhere.empty()) return "move it to [Meters]";
  if (!close.empty()) return fmt::format("did you mean {}?", close);
  return fmt::format("the section accepts {}", fmt::join(section.keys, ", "));
}

void Walker::reportUnknownKey(const Section& section, std::string_view key, LineReport& report) {
  const Line& line = report.line();
  const Span place = line.kind == LineKind::Pair && line.name.size > 0 ? line.name : line.body;
  const bool isCondition = section.kind == SectionKind::Condition;
  const Rule unknown = isCondition ? Rule::StrayKey : Rule::UnknownKey;
  if (!report.keepsMore(unknown)) return report.add(unknown, place, {}, {});
  const bool isSettings =
      section.kind == SectionKind::Meters || section.kind == SectionKind::Engine;
  if (!closestName(key.substr(0, key.find_first_of(" \t:")), {"Target"}).empty()) {
    configuration_.noteLostTarget(section.name, report.ownName());
  }
  const std::string consequence = isCondition ? "the module skips the line" : report.consequence();
  if (const auto meant = keyAtBegin(key, section.keys); !meant.empty()) {
    const std::string_view body = line.body.of(line.text);
    const std::string_view value = valueAfter(body, meant);
    report.add(
        isCondition ? Rule::StrayKey : Rule::EarlySeparator, place,
        fmt::format("the first {} ends the name, so the name is {}, and {}",
                    body.find('=') != body.npos ? "\"=\"" : "\":\"", inQuotes(key), consequence),
        fmt::format("write {}={}", meant, isSettings || isCondition ? unquoted(value) : value));
    return;
  }
  report.add(
      unknown, place,
      fmt::format("{} does not accept the key {}, so {}",
                  isCondition ? "a ParseIfExist: section" : fmt::format("[{}]", section.name),
                  inQuotes(key), consequence),
      looksLikeComment(key) ? remedyForComment
                            : remedyForKey(section, key, line.value.of(line.text)));
}

// ---- Dedicated files --------------------------------------------------------------------------

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

void Walker::takeFileLine(Frame& frame, LineReport& report) {
  Header& header = *frame.header;
  header.hasFile = true;
  const Line& line = report.line();
  const Span place = line.value.size > 0 ? line.value : line.body;
  const std::string path(line.value.of(line.text));
  const std::string whole = header.name.substr(conditionPrefix.size());
  // If such marks make the file missing, Rule::MissingFile says more.
  const std::string marks = remedyForMarks(path);
  const bool isReportedAsMissing =
      !marks.empty() && header.conditionHolds && access(path.c_str(), F_OK) != 0;
  if (!path.empty() && !whole.empty() && path != whole && !isReportedAsMissing) {
    report.add(
        Rule::ConditionDiffers, place,
        fmt::format("the section applies if {} exists, but File names {}", inQuotes(whole),
                    inQuotes(path)),
        !marks.empty() ? marks : "use the same path in both places, unless this is intended");
  }
  const bool isRelative = !unquoted(path).empty() && unquoted(path).front() != '/';
  if (isRelative && !std::exchange(relativeReported_, true)) {
    report.add(
        Rule::RelativePath, place,
        fmt::format(
            "the engine resolves {} against its working directory, not against the folder of "
            "this file (reported once)",
            inQuotes(path)),
        "write a path that begins with \"/\"");
  }
  if (header.conditionHolds) include(path, place, report);
}

void Walker::include(const std::string& path, Span place, LineReport& report) {
  Opened opened = openFile(path);
  if (opened.mayBeEndless) {
    return reportEndless(
        Rule::EndlessFile, place,
        fmt::format("{} is a pipe or a device, so the engine might wait for its end forever",
                    inQuotes(path)),
        "name a regular file", report);
  }
  if (!opened.file) {
    const std::string marks = remedyForMarks(path);
    report.add(Rule::MissingFile, place,
               fmt::format("the module can't read {} and starts without it: {}", inQuotes(path),
                           opened.problem),
               marks.empty() ? "correct the path" : marks);
    return;
  }
  if (leadsBack(opened)) {
    return reportEndless(
        Rule::IncludeCycle, place,
        fmt::format("{} is still being read, so the module would read it again and again until "
                    "it runs out of files or stack",
                    inQuotes(path)),
        "remove this File line", report);
  }
  ++included_;
  includedBytes_ += static_cast<std::size_t>(opened.status.st_size);
  if (frames_.size() > limits_.depth || included_ > limits_.files ||
      includedBytes_ > limits_.bytes) {
    if (std::exchange(tooManyReported_, true)) return;
    return reportEndless(
        Rule::TooManyFiles, place,
        fmt::format(
            "the dedicated files are too many, too large or nested too deeply: {} so far, {} "
            "deep, {} bytes",
            included_, frames_.size(), includedBytes_),
        "name each dedicated file only once", report);
  }
  SourceFile source{
      .number = static_cast<std::uint32_t>(fileNames_.size()),
      .name = path,
      .readAt = fmt::format("{}:{}", fileNames_[report.spot().file], report.line().number)};
  fileNames_.push_back(path);
  frames_.push_back(std::make_unique<Frame>(std::move(opened), std::move(source)));
  frames_.back()->namedAt = report.at(place);
}

bool Walker::leadsBack(const Opened& opened) const {
  return std::any_of(frames_.begin(), frames_.end(), [&](const auto& frame) {
    return frame->device == opened.status.st_dev && frame->inode == opened.status.st_ino;
  });
}

void Walker::reportEndless(Rule rule, Span place, std::string text, std::string remedy,
                           LineReport& report) {
  isEndless_ = true;
  report.add(rule, place, std::move(text), std::move(remedy));
}

}  // namespace

Reading walk(const std::string& path, const std::string& name, Findings& findings,
             const WalkLimits& limits) {
  return Walker(findings, limits)(path, name);
}

}  // namespace check
