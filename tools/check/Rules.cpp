#include "tools/check/Rules.h"

#include <algorithm>
#include <iterator>

namespace check {
namespace {

constexpr RuleText table[] = {
    {Rule::BadLine, Weight::LineError, "bad-line", "a line that is no header, pair or comment",
     "Every line is empty, a comment (it begins with \";\" or \"#\"), a header such as [Meters], "
     "or "
     "a pair such as Target=localhost:50005. The module refuses a file with any other line. A "
     "separator counts only in front of an inline comment. Write NAME=VALUE, or put \";\" in front "
     "to make the line a comment."},
    {Rule::BadHeader, Weight::LineError, "bad-header", "a section header without its \"]\"",
     "A header ends at the next \"]\", and that has to come before a \";\" that follows white "
     "space. Without it the module refuses the file, and the lines below stay in the section "
     "before. Close the bracket: [Meters]."},
    {Rule::PairOutsideSection, Weight::LineError, "pair-outside-section",
     "a pair in front of the first section header",
     "A pair belongs to the section whose header stands above it. In front of the first header "
     "there is none, and the module refuses the file. Put the header above the pair."},
    {Rule::UnknownSection, Weight::LineError, "unknown-section",
     "a section that the module does not know, with pairs in it",
     "The sections are Meters, Engine, MetersString, MetersInt, MetersUint, MetersFloat, "
     "EngineString, EngineInt, EngineUint, EngineFloat and ParseIfExist:PATH. Case does not "
     "matter, "
     "but for ParseIfExist:, and blanks within the brackets belong to the name. Each pair in "
     "another section makes the module refuse the file. Correct the name."},
    {Rule::UnknownKey, Weight::LineError, "unknown-key", "a key that its section does not have",
     "[Meters] has Target, EnableFastMeters and EnableSlowMeters; [Engine] has Target; the "
     "[Meters...] sections have Meter; the [Engine...] sections have Param. Case does not matter. "
     "Any other key makes the module refuse the file. Correct the key, or move the line into its "
     "section."},
    {Rule::EarlySeparator, Weight::LineError, "early-separator",
     "a pair that is split at another place than meant",
     "The name of a pair ends at the first \"=\" of the line, wherever that is; only in a line "
     "without \"=\" it ends at the first \":\". So \"Meter: Key=a\" has the name \"Meter: Key\", "
     "which no section knows, and the module refuses the file. Write \"=\" behind the key: "
     "Meter=Key=a."},
    {Rule::OpenQuote, Weight::LineError, "open-quote", "a quote in an entry that is not closed",
     "The words of a Meter or Param are quoted as in a shell. An entry with an open quote is "
     "refused, and the file with it. Close the quote on the same line; write \\' or \\\" for a "
     "quote that is meant as such."},
    {Rule::CommentInQuotes, Weight::LineError, "comment-in-quotes",
     "a \" ;\" that cuts a quoted value",
     "A \";\" behind white space begins a comment, also within quotes: comments are cut before "
     "quotes are looked at. The quote is then left open, and the module refuses the file. Take the "
     "white space in front of the \";\" away, or do without the \";\"."},
    {Rule::UnknownWord, Weight::LineError, "unknown-word",
     "an entry with a word that entries do not have",
     "The words of a Meter are Key=, CustomKey=, Type= and DefaultValue=; those of a Param are "
     "Key= "
     "and CustomKey=. Case matters. An entry with any other word is refused, and the file with it. "
     "Correct the word, or put quotes around the whole value if the word is a part of it."},
    {Rule::UnknownType, Weight::LineError, "unknown-type", "a Type that is neither fast nor slow",
     "Type is the rate of a meter: Type=fast or Type=slow, in lower case. An entry with another "
     "one "
     "is refused, and the file with it. The type of the value is said by the section, not here."},
    {Rule::BadDefault, Weight::LineError, "bad-default",
     "a DefaultValue that is no number, or one out of range",
     "In MetersInt, MetersUint and MetersFloat the default has to begin with a number that fits: "
     "-2147483648 to 2147483647 for an int, up to 18446744073709551615 for an unsigned one, the "
     "range of a 32-bit float for a float, where too small is out of range as well. An entry with "
     "another one is refused, and the file with it."},
    {Rule::EmptyKey, Weight::Error, "empty-key", "an entry without a Key",
     "Each Meter and each Param needs its Key. An entry without one is read, but the module then "
     "refuses the configuration and does not say which entry it was. A Key= without a value does "
     "not count, and neither does a word without \"=\". Write Key=NAME."},
    {Rule::DuplicateKey, Weight::Error, "duplicate-key",
     "two entries of one list with the same Key",
     "Within one list, that is within one value type and for meters one rate, each Key may stand "
     "once; case counts. The module refuses the configuration otherwise, and names neither key nor "
     "line. Entries of dedicated files count too. Remove one of the two, or give them different "
     "types or rates."},
    {Rule::LongCustomKey, Weight::Error, "long-custom-key", "a CustomKey of more than 99 bytes",
     "A slot's name has room for 99 bytes. The module refuses a configuration with a longer one. "
     "Letters outside ASCII take two bytes or more. Shorten the name."},
    {Rule::NoMetersTarget, Weight::Error, "no-meters-target", "meters without a Target in [Meters]",
     "A gateway with meters needs Target=HOST:PORT in [Meters]. Both rates are on unless they are "
     "switched off, so that a file that says nothing about meters is refused. For a gateway "
     "without meters, write EnableFastMeters=false and EnableSlowMeters=false in [Meters], and "
     "have "
     "no Meter entries."},
    {Rule::NoEngineTarget, Weight::Error, "no-engine-target",
     "Param entries without a Target in [Engine]",
     "A configuration with Param entries needs Target=HOST:PORT in [Engine]; the module refuses it "
     "otherwise. Add the target, or remove the entries."},
    {Rule::NoRateEnabled, Weight::Error, "no-rate-enabled",
     "a meters Target with both rates switched off",
     "With a Target in [Meters] at least one of EnableFastMeters and EnableSlowMeters has to be "
     "true; the module refuses the configuration otherwise. Switch one on, or remove the Target "
     "and "
     "all Meter entries."},
    {Rule::IncludeCycle, Weight::Error, "include-cycle",
     "a file that includes itself, directly or through others",
     "The module reads a dedicated file in place, and does not notice that it is reading it "
     "already: it goes on until it runs out of files or of stack, which can take the engine down "
     "with it. Remove the File line that leads back."},
    {Rule::EndlessFile, Weight::Error, "endless-file",
     "a dedicated file that is a pipe or a device",
     "The module reads a dedicated file to its end within the start. A pipe or a device may have "
     "none, and the engine would wait for it without end. Name a regular file."},
    {Rule::TooManyFiles, Weight::Error, "too-many-files",
     "dedicated files nested too deep, or too many of them",
     "The module follows File lines without a limit: files that name each other several times can "
     "keep the start of the engine busy for good. More than 1000 files, more than 4 GiB of them or "
     "a nesting deeper than 100 is taken for such a case, and what lies beyond is not looked at. "
     "Let each file be named once."},
    {Rule::IndentedLine, Weight::Warning, "indented-line",
     "an indented line that continues the one above",
     "A line with white space in front, below a pair, is a further value for the name of that "
     "pair: "
     "below a Meter one more entry, below a Target another target. This is so even if it looks "
     "like "
     "a pair or a header, and also across comments and empty lines. Remove the indentation, or "
     "write the name out: Meter=Key=b."},
    {Rule::LongLine, Weight::Warning, "long-line", "a line of more than 1023 bytes",
     "The module reads a line in pieces of 1023 bytes, and each piece is a line of its own. The "
     "tail is seldom a good line, and the values on both sides are cut. Shorten the line; for a "
     "comment, begin a new one."},
    {Rule::NulByte, Weight::Warning, "nul-byte", "a NUL byte in the file",
     "What follows a NUL byte on its line is lost. Such a file is often not a text file at all, or "
     "one in UTF-16. Save it as UTF-8."},
    {Rule::TextAfterHeader, Weight::Warning, "text-after-header",
     "text behind the \"]\" of a header",
     "The module passes over what stands behind the \"]\" of a header, a pair included. Put it on "
     "a "
     "line of its own, or put \";\" in front if it is a comment."},
    {Rule::LongSectionName, Weight::Warning, "long-section-name",
     "a section name of more than 49 bytes",
     "Section names are cut to 49 bytes, and the cut name is what counts. No section has a longer "
     "name, so this one is hardly what was meant."},
    {Rule::UnusedSection, Weight::Warning, "unused-section", "an unknown section without a pair",
     "The module notices an unknown section only at its first pair, so this header does nothing, "
     "and the first line below it would make the file refused. Correct or remove it."},
    {Rule::CommentInContinuation, Weight::Warning, "comment-in-continuation",
     "a \";\" in an indented line, where it begins no comment",
     "Inline comments are cut from pairs only. In an indented line that continues an entry, \";\" "
     "and what follows are words of the entry. Put the comment on a line of its own."},
    {Rule::HashComment, Weight::Warning, "hash-comment",
     "a \"#\" that begins a comment inside an entry",
     "As in a shell, a \"#\" at the begin of a word ends the entry: the rest of the line is passed "
     "over. Put quotes around the word if the \"#\" belongs to it, as in Key=\"a #b\"; for a "
     "comment write \" ;\"."},
    {Rule::SwitchValue, Weight::Warning, "switch-value", "a switch that is neither true nor false",
     "EnableFastMeters and EnableSlowMeters are on if the value is true, in any case, and off for "
     "every other value: 1, yes and on switch off, and so does true with text behind it. Write "
     "true "
     "or false."},
    {Rule::RepeatedSetting, Weight::Warning, "repeated-setting",
     "a Target or switch that is given twice",
     "The last line wins, without a message. Remove the one that is not meant."},
    {Rule::OverriddenSetting, Weight::Note, "overridden-setting",
     "a Target or switch that another file has given before",
     "Files are read in the order of their lines, and the last setting wins: a dedicated file "
     "overrides what stands above its File line, and is overridden by what stands below it. This "
     "is "
     "how a dedicated file is meant to be used, and said only so that it is seen."},
    {Rule::BadTarget, Weight::Warning, "bad-target", "a Target that gRPC can't read as an address",
     "The module takes any text for a target and starts; gRPC then tries for good to find a host "
     "of "
     "that name. Write HOST:PORT, such as localhost:50005 or [::1]:50005; ipv4:, ipv6:, dns:, "
     "unix: "
     "and unix-abstract: are understood in front, http:// is not. The whole value is the target: "
     "quotes and a \"#\" belong to it."},
    {Rule::WordWithoutEquals, Weight::Warning, "word-without-equals",
     "a word of an entry without \"=\"",
     "The module passes over it without a message. Mostly it is the end of a value with a blank in "
     "it: put quotes around that, as in DefaultValue=\"not ready\"."},
    {Rule::WordEndsInEquals, Weight::Warning, "word-ends-in-equals",
     "a word of an entry that ends in \"=\"",
     "The module passes over it without a message: Key= gives no key, and neither does Key=a=. "
     "Write the value, or remove the word."},
    {Rule::TextAfterSecondEquals, Weight::Warning, "text-after-second-equals",
     "text behind a second \"=\" of a word",
     "A word is split at its first \"=\", and its value ends at the second: Key=a=b gives the key "
     "a. Quotes do not help. Choose a name without \"=\"."},
    {Rule::LostBackslash, Weight::Warning, "lost-backslash",
     "a \"\\\" that is taken out of an entry",
     "As in a shell, a \"\\\" outside quotes is taken away, and what follows it stands for itself: "
     "C:\\temp is C:temp. At the end of a line it does not join the line with the next one. Put "
     "double quotes around a value with a \"\\\" in it, and write an entry on one line."},
    {Rule::CurlyQuote, Weight::Warning, "curly-quote",
     "a value that begins with a typographic quote",
     "Only \" and ' quote. The quotes of word processors and web pages are letters like others: "
     "they belong to the value, and a blank between them ends it. Write \" for them."},
    {Rule::RepeatedWord, Weight::Warning, "repeated-word", "a word that is given twice in an entry",
     "The last one wins, without a message. Remove the one that is not meant."},
    {Rule::TrailingComma, Weight::Warning, "trailing-comma",
     "a Key or CustomKey that ends in a comma or semicolon",
     "Blanks alone part the words of an entry, so that a \",\" or \";\" right behind a name "
     "belongs to "
     "the name: Key=a, gives the key \"a,\", which no meter has. Remove it."},
    {Rule::TrailingText, Weight::Warning, "trailing-text",
     "text behind the number of a DefaultValue",
     "The module reads the number at the begin and passes over the rest: 12abc is 12, 1,5 is 1, "
     "and "
     "for an int 1.5 is 1. Write the number alone, with a point."},
    {Rule::UnsignedRange, Weight::Warning, "unsigned-range",
     "a negative or oversized DefaultValue of an unsigned meter",
     "Only the low 32 bits are kept: -1 becomes 4294967295, and 4294967296 becomes 0. Write a "
     "value "
     "from 0 to 4294967295, or use MetersInt."},
    {Rule::LongDefault, Weight::Warning, "long-default", "a text default of more than 99 bytes",
     "A text slot has room for 99 bytes, and a longer default is cut there, perhaps within a "
     "letter. Shorten it."},
    {Rule::KeyNotUtf8, Weight::Warning, "key-not-utf8", "a Key that is not valid UTF-8",
     "Keys travel as UTF-8. No meter can carry such a key, so its slot never gets a value, and a "
     "parameter with such a key is not understood by its service. Save the file as UTF-8."},
    {Rule::ControlCharacter, Weight::Warning, "control-character",
     "a character in a name that can't be seen",
     "Names are compared byte by byte, and nobody sees a control character, a mark of direction or "
     "a special blank, such as web pages have. Remove it, or type the name again."},
    {Rule::OuterBlanks, Weight::Warning, "outer-blanks", "a name that begins or ends with a blank",
     "Quotes keep the blank in a Key or CustomKey, and the brackets of a header keep it in a "
     "condition. Names are compared byte by byte, so that the name without it is another. Remove "
     "the blank."},
    {Rule::RepeatedSlotName, Weight::Warning, "repeated-slot-name",
     "two slots of one set with the same name",
     "The fast, the slow and the engine slots are a set each. A CustomKey that is used twice in "
     "one, or that equals a generated name such as gateway_int_0 there, gives two slots of one "
     "name, and the host finds one of them at best. Choose another CustomKey."},
    {Rule::RateOff, Weight::Warning, "rate-off", "meters whose rate is switched off",
     "Such meters get their slots, but no stream is opened for them, and they keep their defaults. "
     "Switch the rate on, or change the Type; a meter without Type is fast."},
    {Rule::LongCondition, Weight::Warning, "long-condition",
     "a condition path of more than 36 bytes",
     "Section names are cut to 49 bytes, which leaves 36 for the path behind ParseIfExist:. The "
     "cut "
     "path is what the module looks for. Name a shorter path as the condition, such as a folder or "
     "a link: the File value may be longer."},
    {Rule::EmptyCondition, Weight::Warning, "empty-condition",
     "a ParseIfExist: section without a path",
     "Without a path the condition never holds, and the section is passed over. Write "
     "[ParseIfExist:/path]."},
    {Rule::MissingCondition, Weight::Warning, "missing-condition",
     "a condition path that does not exist here",
     "The module passes over the section as long as the path does not exist, and says nothing. "
     "Look at the path if the file should be there, or check on the device: the file system that "
     "counts is the engine's. For a file that may be absent, pass --allow missing-condition."},
    {Rule::ConditionDiffers, Weight::Warning, "condition-differs",
     "a condition path that is not the File",
     "The path in the header is only tested for; what is read is the value of File. Mostly both "
     "are "
     "meant to be the same."},
    {Rule::ConditionWithoutFile, Weight::Warning, "condition-without-file",
     "a ParseIfExist: section without a File",
     "The path in the header is only tested for, and nothing is read without a File line below it. "
     "Write File=PATH, or remove the header."},
    {Rule::MissingFile, Weight::Warning, "missing-file", "a File that can't be read",
     "The condition holds, but the file that File names is not there, is no file or may not be "
     "read. The module then starts without it, and only its log tells. The value is taken as it "
     "stands: quotes belong to the path."},
    {Rule::StrayKey, Weight::Warning, "stray-key",
     "a key other than File in a ParseIfExist: section",
     "The module passes over it and starts. If the line is meant for the section above, put it in "
     "front of the ParseIfExist: header."},
    {Rule::DedicatedFileErrors, Weight::Warning, "dedicated-file-errors",
     "bad lines in a dedicated file",
     "A bad line in a dedicated file does not make the module refuse the configuration: the line "
     "is "
     "passed over, and all others are used. The same line in the main file would be refused."},
    {Rule::RelativePath, Weight::Note, "relative-path", "a path that does not begin with \"/\"",
     "Relative paths start from the folder in which the engine was started, not from that of the "
     "file. Here they start from the current folder. Write a path that begins with \"/\"."},
};

}  // namespace

std::string_view nameOf(Severity severity) {
  switch (severity) {
    case Severity::Error:
      return "error";
    case Severity::Warning:
      return "warning";
    case Severity::Note:
      break;
  }
  return "note";
}

Severity severityOf(Weight weight, bool inDedicatedFile) {
  switch (weight) {
    case Weight::LineError:
      return inDedicatedFile ? Severity::Warning : Severity::Error;
    case Weight::Error:
      return Severity::Error;
    case Weight::Warning:
      return Severity::Warning;
    case Weight::Note:
      break;
  }
  return Severity::Note;
}

std::span<const RuleText> allRules() {
  return table;
}

const RuleText& textOf(Rule rule) {
  return table[static_cast<std::size_t>(rule)];
}

const RuleText* ruleOf(std::string_view name) {
  const auto* found = std::find_if(std::begin(table), std::end(table),
                                   [&](const RuleText& each) { return each.name == name; });
  return found == std::end(table) ? nullptr : found;
}

std::vector<std::string> ruleNames() {
  std::vector<std::string> names;
  for (const RuleText& rule : table) names.emplace_back(rule.name);
  return names;
}

std::string_view describe(Weight weight) {
  if (weight == Weight::LineError) return "error; in a dedicated file a warning";
  return nameOf(severityOf(weight, false));
}

bool canBeAllowed(Weight weight) {
  return weight == Weight::LineError || weight == Weight::Warning;
}

}  // namespace check
