#include "tools/check/Rules.h"

#include <algorithm>
#include <iterator>

namespace check {
namespace {

constexpr RuleText table[] = {
    {Rule::BadLine, Weight::LineError, "bad-line",
     "a line that is not a header, a pair or a comment",
     "Every line must be empty, a comment (starting with \";\" or \"#\"), a header such as "
     "[Meters], or a pair such as Target=localhost:50005. The module refuses a file with any other "
     "line. A separator counts only before an inline comment. Write NAME=VALUE, or put \";\" in "
     "front to make the line a comment."},
    {Rule::BadHeader, Weight::LineError, "bad-header", "a section header without its \"]\"",
     "A header ends at the next \"]\", which must come before any \";\" that follows white space. "
     "Without it the module refuses the file, and the lines below stay in the section above. Close "
     "the bracket: [Meters]."},
    {Rule::PairOutsideSection, Weight::LineError, "pair-outside-section",
     "a pair before the first section header",
     "A pair belongs to the section whose header stands above it. A pair before the first header "
     "has no section, and the module refuses the file. Put the header above the pair."},
    {Rule::UnknownSection, Weight::LineError, "unknown-section",
     "an unknown section with pairs in it",
     "The sections are Meters, Engine, MetersString, MetersInt, MetersUint, MetersFloat, "
     "EngineString, EngineInt, EngineUint, EngineFloat and ParseIfExist:PATH. Case does not "
     "matter, except in ParseIfExist:, and blanks inside the brackets belong to the name. The "
     "module refuses a file with a pair in any other section. Correct the name."},
    {Rule::UnknownKey, Weight::LineError, "unknown-key", "an unknown key in a section",
     "[Meters] has Target, EnableFastMeters and EnableSlowMeters; [Engine] has Target; the "
     "[Meters...] sections have Meter; the [Engine...] sections have Param. Case does not matter. "
     "The module refuses a file with any other key. Correct the key, or move the line into its "
     "section."},
    {Rule::EarlySeparator, Weight::LineError, "early-separator", "a pair that splits too early",
     "The name of a pair ends at the first \"=\" of the line, wherever that is. Only a line "
     "without \"=\" splits at the first \":\". So \"Meter: Key=a\" has the name \"Meter: Key\", "
     "which no section knows, and the module refuses the file. Write \"=\" after the key: "
     "Meter=Key=a."},
    {Rule::OpenQuote, Weight::LineError, "open-quote", "a quote in an entry that is not closed",
     "The words of a Meter or Param are quoted as in a shell. The module refuses an entry with an "
     "open quote, and the file with it. Close the quote on the same line. For a literal quote, "
     "write \\' or \\\"."},
    {Rule::CommentInQuotes, Weight::LineError, "comment-in-quotes",
     "a \" ;\" that cuts a quoted value",
     "A \";\" after white space begins a comment, even inside quotes, because comments are removed "
     "first. That leaves the quote open, and the module refuses the file. Remove the white space "
     "before the \";\", or the \";\" itself."},
    {Rule::UnknownWord, Weight::LineError, "unknown-word", "an unknown word in an entry",
     "The words of a Meter are Key=, CustomKey=, Type= and DefaultValue=; those of a Param are "
     "Key= and CustomKey=. Case matters. The module refuses an entry with any other word, and the "
     "file with it. Correct the word. If it is part of a value, quote the whole value."},
    {Rule::UnknownType, Weight::LineError, "unknown-type", "a Type that is neither fast nor slow",
     "Type is the rate of a meter: Type=fast or Type=slow, in lower case. The module refuses an "
     "entry with any other Type, and the file with it. The type of the value comes from the "
     "section."},
    {Rule::BadDefault, Weight::LineError, "bad-default",
     "a DefaultValue that is not a number, or is out of range",
     "In MetersInt, MetersUint and MetersFloat, a default must begin with a number in range. An "
     "int takes -2147483648 to 2147483647, an unsigned int takes up to 18446744073709551615, and a "
     "float takes what fits in 32 bits: a number can be too large or too close to 0. The module "
     "refuses an entry with any other default, and the file with it."},
    {Rule::EmptyKey, Weight::Error, "empty-key", "an entry without a Key",
     "Each Meter and each Param needs a Key. The module reads an entry without one, but then "
     "refuses the configuration without saying which entry it was. A Key= without a value does not "
     "count, and neither does a word without \"=\". Write Key=NAME."},
    {Rule::DuplicateKey, Weight::Error, "duplicate-key",
     "two entries of one list with the same Key",
     "A list holds the entries of one value type and, for meters, one rate. A Key may appear in it "
     "once; case counts. Otherwise the module refuses the configuration, and names neither key nor "
     "line. Entries of dedicated files count too. Remove one of the two, or give them different "
     "types or rates."},
    {Rule::LongCustomKey, Weight::Error, "long-custom-key", "a CustomKey of more than 99 bytes",
     "A slot's name has room for 99 bytes, and the module refuses a configuration with a longer "
     "one. Letters outside ASCII take two bytes or more. Shorten the name."},
    {Rule::NoMetersTarget, Weight::Error, "no-meters-target", "meters without a Target in [Meters]",
     "A gateway with meters needs Target=HOST:PORT in [Meters]. Both rates are on unless they are "
     "switched off, so the module even refuses a file that says nothing about meters. For a "
     "gateway without meters, write EnableFastMeters=false and EnableSlowMeters=false in [Meters], "
     "and no Meter entries."},
    {Rule::NoEngineTarget, Weight::Error, "no-engine-target",
     "Param entries without a Target in [Engine]",
     "If a configuration has Param entries, [Engine] needs Target=HOST:PORT; otherwise the module "
     "refuses it. Add the target, or remove the entries."},
    {Rule::NoRateEnabled, Weight::Error, "no-rate-enabled",
     "a meters Target with both rates switched off",
     "With a Target in [Meters], at least one of EnableFastMeters and EnableSlowMeters must be "
     "true; otherwise the module refuses the configuration. Switch one on, or remove the Target "
     "and all Meter entries."},
    {Rule::IncludeCycle, Weight::Error, "include-cycle",
     "a file that includes itself, directly or through others",
     "The module reads a dedicated file in place, and does not notice that it is reading it "
     "already. It continues until it runs out of files or stack, which can take the engine down "
     "with it. Remove the File line that leads back."},
    {Rule::EndlessFile, Weight::Error, "endless-file",
     "a dedicated file that is a pipe or a device",
     "The module reads a dedicated file to its end during the start. A pipe or a device may never "
     "end, and the engine would wait forever. Name a regular file."},
    {Rule::TooManyFiles, Weight::Error, "too-many-files",
     "dedicated files nested too deep, or too many of them",
     "The module follows File lines without a limit, so files that name each other several times "
     "can keep the engine's start busy forever. The checker stops at 1000 files, 4 GiB or 100 "
     "levels, and reads no further. Name each file once."},
    {Rule::IndentedLine, Weight::Warning, "indented-line",
     "an indented line that continues the one above",
     "After a pair, a line that begins with white space is one more value for the name of that "
     "pair: after a Meter another entry, after a Target another target. This holds even if the "
     "line looks like a pair or a header, and across comments and empty lines. Remove the "
     "indentation, or write the name out: Meter=Key=b."},
    {Rule::LongLine, Weight::Warning, "long-line", "a line of more than 1023 bytes",
     "The module reads a line in pieces of 1023 bytes, and each piece counts as a line. The rest "
     "is seldom a good line, and the value at the cut is incomplete. Shorten the line; continue a "
     "comment on a new one."},
    {Rule::NulByte, Weight::Warning, "nul-byte", "a NUL byte in the file",
     "The module loses what follows a NUL byte on its line. Such a file is often not a text file "
     "at all, or one in UTF-16. Save it as UTF-8."},
    {Rule::TextAfterHeader, Weight::Warning, "text-after-header",
     "text after the \"]\" of a header",
     "The module ignores everything after the \"]\" of a header, even a pair. Put it on a line of "
     "its own, or put \";\" in front if it is a comment."},
    {Rule::LongSectionName, Weight::Warning, "long-section-name",
     "a section name of more than 49 bytes",
     "The module cuts section names to 49 bytes. No section has a longer name, so this one is "
     "probably a mistake."},
    {Rule::UnusedSection, Weight::Warning, "unused-section", "an unknown section without a pair",
     "The module notices an unknown section only at its first pair. So this header does nothing, "
     "but with a first pair below it the module would refuse the file. Correct or remove it."},
    {Rule::CommentInContinuation, Weight::Warning, "comment-in-continuation",
     "a \";\" in an indented line, where it begins no comment",
     "Only pairs have inline comments. In an indented line that continues an entry, \";\" and what "
     "follows are words of the entry. Put the comment on a line of its own."},
    {Rule::HashComment, Weight::Warning, "hash-comment",
     "a \"#\" that begins a comment inside an entry",
     "As in a shell, a \"#\" at the beginning of a word starts a comment, and the module ignores "
     "the rest of the line. If the \"#\" belongs to the word, quote it, as in Key=\"a #b\". For a "
     "comment, write \" ;\"."},
    {Rule::SwitchValue, Weight::Warning, "switch-value", "a switch that is neither true nor false",
     "EnableFastMeters and EnableSlowMeters are on if the value is true, in upper or lower case. "
     "Every other value switches off: 1, yes, on, and even true with text after it. Write true or "
     "false."},
    {Rule::RepeatedSetting, Weight::Warning, "repeated-setting",
     "a Target or switch that is set twice",
     "The last line wins, without a message. Remove the line that you do not want."},
    {Rule::OverriddenSetting, Weight::Note, "overridden-setting",
     "a Target or switch that another file has already set",
     "The last setting wins, in the order in which the lines are read: a dedicated file overrides "
     "what stands above its File line, and is overridden by what stands below. Dedicated files are "
     "meant to work this way; the note only points it out."},
    {Rule::BadTarget, Weight::Warning, "bad-target", "a Target that gRPC can't read as an address",
     "The module accepts any text as a target and starts; gRPC then looks for a host of that name "
     "forever. Write HOST:PORT, such as localhost:50005 or [::1]:50005. gRPC knows the prefixes "
     "ipv4:, ipv6:, dns:, unix: and unix-abstract:, but not http://. The whole value is the "
     "target, quotes and \"#\" included."},
    {Rule::WordWithoutEquals, Weight::Warning, "word-without-equals",
     "a word of an entry without \"=\"",
     "The module ignores the word without a message. Usually it is the end of a value with a blank "
     "in it. Quote the value, as in DefaultValue=\"not ready\"."},
    {Rule::WordEndsInEquals, Weight::Warning, "word-ends-in-equals",
     "a word of an entry that ends in \"=\"",
     "The module ignores the word without a message: neither Key= nor Key=a= sets a key. Write the "
     "value, or remove the word."},
    {Rule::TextAfterSecondEquals, Weight::Warning, "text-after-second-equals",
     "text after a second \"=\" in a word",
     "A word splits at its first \"=\", and its value ends at the second: Key=a=b sets the key a. "
     "Quotes do not help. Choose a name without \"=\"."},
    {Rule::LostBackslash, Weight::Warning, "lost-backslash",
     "a \"\\\" that is removed from an entry",
     "As in a shell, a \"\\\" outside quotes is removed, and the character after it stands for "
     "itself: C:\\temp becomes C:temp. At the end of a line, it does not join the line with the "
     "next. Put a value with a \"\\\" in double quotes, and write an entry on one line."},
    {Rule::CurlyQuote, Weight::Warning, "curly-quote",
     "a value that begins with a typographic quote",
     "Only \" and ' quote. The quotes of word processors and web pages are ordinary characters: "
     "they become part of the value, and a blank between them ends it. Write \" instead."},
    {Rule::RepeatedWord, Weight::Warning, "repeated-word", "a word that appears twice in an entry",
     "The last one wins, without a message. Remove the one that you do not want."},
    {Rule::TrailingComma, Weight::Warning, "trailing-comma",
     "a Key or CustomKey that ends in a comma or semicolon",
     "Only blanks separate the words of an entry, so a \",\" or \";\" right after a name belongs "
     "to the name: Key=a, sets the key \"a,\", which no meter has. Remove it."},
    {Rule::TrailingText, Weight::Warning, "trailing-text",
     "text after the number of a DefaultValue",
     "The module reads the number at the beginning and ignores the rest: 12abc is 12, 1,5 is 1, "
     "and for an int 1.5 is 1. Write only the number, with a decimal point."},
    {Rule::UnsignedRange, Weight::Warning, "unsigned-range",
     "a negative or oversized DefaultValue of an unsigned meter",
     "The module keeps only the low 32 bits: -1 becomes 4294967295, and 4294967296 becomes 0. "
     "Write a value from 0 to 4294967295, or use MetersInt."},
    {Rule::LongDefault, Weight::Warning, "long-default", "a text default of more than 99 bytes",
     "A text slot has room for 99 bytes. The module cuts a longer default there, perhaps within a "
     "character. Shorten it."},
    {Rule::KeyNotUtf8, Weight::Warning, "key-not-utf8", "a Key that is not valid UTF-8",
     "Keys travel as UTF-8. No meter can carry such a key, so its slot never gets a value, and no "
     "service understands a parameter with such a key. Save the file as UTF-8."},
    {Rule::ControlCharacter, Weight::Warning, "control-character",
     "an invisible character in a name",
     "Names are compared byte by byte, and nobody sees a control character, a direction mark or a "
     "special blank, such as web pages contain. Remove it, or type the name again."},
    {Rule::OuterBlanks, Weight::Warning, "outer-blanks", "a name that begins or ends with a blank",
     "Quotes keep the blank in a Key or CustomKey, and the brackets of a header keep it in a "
     "condition. Names are compared byte by byte, so the name without the blank is a different "
     "one. Remove the blank."},
    {Rule::RepeatedSlotName, Weight::Warning, "repeated-slot-name",
     "two slots of one set with the same name",
     "The fast, the slow and the engine slots are three sets. If a CustomKey appears twice in a "
     "set, or equals a generated name such as gateway_int_0 in it, two slots share a name, and the "
     "host finds at most one of them. Choose another CustomKey."},
    {Rule::RateOff, Weight::Warning, "rate-off", "meters whose rate is switched off",
     "Such meters get their slots, but the module opens no stream for them, and they keep their "
     "defaults. Switch the rate on, or change the Type; a meter without Type is fast."},
    {Rule::LongCondition, Weight::Warning, "long-condition",
     "a condition path of more than 36 bytes",
     "Section names are cut to 49 bytes, which leaves 36 for the path after ParseIfExist:. The "
     "module looks for the cut path. Name a shorter path as the condition, such as a folder or a "
     "link; the File value may be longer."},
    {Rule::EmptyCondition, Weight::Warning, "empty-condition",
     "a ParseIfExist: section without a path",
     "Without a path the condition never holds: the module skips the section, and logs a line at "
     "level 1 for each pair in it. Write [ParseIfExist:/path]."},
    {Rule::MissingCondition, Weight::Warning, "missing-condition",
     "a condition path that does not exist here",
     "While the path does not exist, the module skips the section and logs a line at level 1 for "
     "each pair in it. If the file should be there, correct the path, or check on the device: only "
     "the engine's file system counts. If the file may be absent, pass --allow missing-condition."},
    {Rule::ConditionDiffers, Weight::Warning, "condition-differs",
     "a condition path that is not the File",
     "The module only tests whether the path in the header exists; it reads the value of File. "
     "Usually both should be the same."},
    {Rule::ConditionWithoutFile, Weight::Warning, "condition-without-file",
     "a ParseIfExist: section without a File",
     "The module only tests whether the path in the header exists; without a File line below it, "
     "it reads nothing. Write File=PATH, or remove the header."},
    {Rule::MissingFile, Weight::Warning, "missing-file", "a File that can't be read",
     "The condition holds, but the file that File names does not exist, is a folder or may not be "
     "read. The module starts without it, and only its log says so. The value is taken literally: "
     "quotes belong to the path."},
    {Rule::StrayKey, Weight::Warning, "stray-key",
     "a key other than File in a ParseIfExist: section",
     "The module ignores the line and starts. If it belongs to the section above, move it before "
     "the ParseIfExist: header."},
    {Rule::DedicatedFileErrors, Weight::Warning, "dedicated-file-errors",
     "bad lines in a dedicated file",
     "A bad line in a dedicated file does not make the module refuse the configuration: it skips "
     "the line and uses all others. It would refuse the same line in the main file."},
    {Rule::RelativePath, Weight::Note, "relative-path", "a path that does not begin with \"/\"",
     "Relative paths start from the engine's working directory, not from the folder of the file. "
     "Here the checker uses its own working directory. Write a path that begins with \"/\"."},
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
