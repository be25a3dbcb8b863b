#include "tools/check/Rules.h"

#include <algorithm>
#include <iterator>

namespace check {
namespace {

constexpr RuleText table[] = {
    {Rule::BadLine, Weight::LineError, "bad-line",
     "a line that is not a header, a pair or a comment",
     "Every line must be empty, a comment (beginning with \";\" or \"#\"), a header such as "
     "[Meters], or a pair such as Target=localhost:50005. The module refuses a file with any other "
     "line. The \"=\" or \":\" of a pair must come before an inline comment. Write NAME=VALUE, or "
     "begin the line with \";\" to make it a comment."},
    {Rule::BadHeader, Weight::LineError, "bad-header", "a section header without its \"]\"",
     "A header ends at the next \"]\". A \";\" after white space begins a comment, even inside a "
     "header. Without a \"]\" before the comment the module refuses the file, and the lines below "
     "stay in the previous section. Close the bracket, as in [Meters]."},
    {Rule::PairOutsideSection, Weight::LineError, "pair-outside-section",
     "a pair above the first section header",
     "A pair belongs to the section whose header is above it. Above the first header there is no "
     "section, so the module refuses the file. Put the header above the pair."},
    {Rule::UnknownSection, Weight::LineError, "unknown-section",
     "an unknown section with pairs in it",
     "The sections are Meters, Engine, MetersString, MetersInt, MetersUint, MetersFloat, "
     "EngineString, EngineInt, EngineUint, EngineFloat and ParseIfExist:PATH. Case matters only in "
     "ParseIfExist:. White space inside the brackets is part of the name. A pair in any other "
     "section makes the module refuse the file. Correct the name."},
    {Rule::UnknownKey, Weight::LineError, "unknown-key", "a key that its section does not accept",
     "[Meters] accepts Target, EnableFastMeters and EnableSlowMeters; [Engine] accepts Target; the "
     "[Meters...] sections accept Meter; the [Engine...] sections accept Param. Case does not "
     "matter. Any other key makes the module refuse the file. Correct the key, or move the line to "
     "its section."},
    {Rule::EarlySeparator, Weight::LineError, "early-separator",
     "a pair that is split in the wrong place",
     "The name of a pair ends at the first \"=\" of the line. Only a line without \"=\" is split "
     "at its first \":\". So \"Meter: Key=a\" has the name \"Meter: Key\", which no section "
     "accepts, and the module refuses the file. Write \"=\" after the key: Meter=Key=a."},
    {Rule::OpenQuote, Weight::LineError, "open-quote", "a quote in an entry that is never closed",
     "The words of a Meter or Param are quoted as in a shell. The module refuses an entry with an "
     "open quote, and the file with it. Close the quote on the same line. For a literal quote, "
     "write \\' or \\\"."},
    {Rule::CommentInQuotes, Weight::LineError, "comment-in-quotes",
     "a \" ;\" that cuts off a quoted value",
     "A \";\" after white space begins a comment, even inside quotes, because comments are removed "
     "before quotes are read. That leaves the quote open, and the module refuses the file. Remove "
     "the white space before the \";\", or the \";\" itself."},
    {Rule::UnknownWord, Weight::LineError, "unknown-word", "an unknown word in an entry",
     "A Meter accepts the words Key=, CustomKey=, Type= and DefaultValue=; a Param accepts Key= "
     "and CustomKey=. Case matters. The module refuses an entry with any other word, and the file "
     "with it. Correct the word. If it is part of a value, put quotes around the whole value."},
    {Rule::UnknownType, Weight::LineError, "unknown-type", "a Type other than fast or slow",
     "Type is the rate of a meter: Type=fast or Type=slow, in lower case. The module refuses an "
     "entry with any other Type, and the file with it. The value type comes from the section, not "
     "from Type."},
    {Rule::BadDefault, Weight::LineError, "bad-default",
     "a DefaultValue that is not a number, or is out of range",
     "In MetersInt, MetersUint and MetersFloat the default must begin with a number in range. An "
     "int takes -2147483648 to 2147483647, a uint takes at most 18446744073709551615, and a float "
     "takes what fits in 32 bits: a number can be too large or too close to 0. The module refuses "
     "an entry with any other default, and the file with it."},
    {Rule::EmptyKey, Weight::Error, "empty-key", "an entry without a Key",
     "Every Meter and every Param needs a Key. The module reads an entry without one, but then "
     "refuses the configuration and does not say which entry is at fault. A Key= without a value "
     "does not count, nor does a word without \"=\". Write Key=NAME."},
    {Rule::DuplicateKey, Weight::Error, "duplicate-key",
     "two entries of one list with the same Key",
     "A list holds the entries of one value type and, for meters, of one rate. A Key may appear "
     "only once in a list. Case matters, and entries of dedicated files count, too. The module "
     "refuses a configuration with a repeated Key, and names neither the key nor the line. Remove "
     "one of the two entries, or give them different types or rates."},
    {Rule::LongCustomKey, Weight::Error, "long-custom-key", "a CustomKey of more than 99 bytes",
     "A slot name has room for 99 bytes, and the module refuses a configuration with a longer one. "
     "Letters outside ASCII take two bytes or more. Shorten the name."},
    {Rule::NoMetersTarget, Weight::Error, "no-meters-target", "meters without a Target in [Meters]",
     "A gateway with meters needs Target=HOST:PORT in [Meters]. Both rates are on by default, so "
     "the module also refuses a file that does not mention meters. For a gateway without meters, "
     "write EnableFastMeters=false and EnableSlowMeters=false in [Meters], and remove all Meter "
     "entries."},
    {Rule::NoEngineTarget, Weight::Error, "no-engine-target",
     "Param entries without a Target in [Engine]",
     "The module refuses a configuration that has Param entries but no Target=HOST:PORT in "
     "[Engine]. Add the target, or remove the entries."},
    {Rule::NoRateEnabled, Weight::Error, "no-rate-enabled",
     "a meters Target with both rates switched off",
     "With a Target in [Meters], EnableFastMeters or EnableSlowMeters must be true. Otherwise the "
     "module refuses the configuration. Switch one on, or remove the Target and all Meter "
     "entries."},
    {Rule::IncludeCycle, Weight::Error, "include-cycle",
     "a file that includes itself, directly or through others",
     "The module reads a dedicated file in place and does not notice that it is already reading "
     "that file. It continues until it runs out of files or stack, which can crash the engine. "
     "Remove the File line that leads back."},
    {Rule::EndlessFile, Weight::Error, "endless-file",
     "a dedicated file that is a pipe or a device",
     "The module reads a dedicated file to its end while the engine starts. A pipe or a device may "
     "have no end, so the engine would wait forever. Name a regular file."},
    {Rule::TooManyFiles, Weight::Error, "too-many-files",
     "too many dedicated files, or too deeply nested ones",
     "The module follows File lines without a limit, so files that name each other several times "
     "can keep the engine from ever starting. The checker reads at most 1000 dedicated files, 4 "
     "GiB in all, nested 100 deep. Name each file only once."},
    {Rule::IndentedLine, Weight::Warning, "indented-line",
     "an indented line that adds a value to the pair above",
     "An indented line below a pair is another value of that pair: below a Meter one more entry, "
     "below a Target another target. This holds even if the line looks like a pair or a header, "
     "and across comments and empty lines. Remove the indentation, or write the name as well: "
     "Meter=Key=b."},
    {Rule::LongLine, Weight::Warning, "long-line", "a line of more than 1023 bytes",
     "The module reads a line in pieces of 1023 bytes and treats each piece as a line of its own. "
     "The second piece is rarely a valid line, and the values on both sides are cut. Shorten the "
     "line, or split a long comment into several."},
    {Rule::NulByte, Weight::Warning, "nul-byte", "a NUL byte in the file",
     "The module ignores the rest of a line after a NUL byte. Such a file is often not a text file "
     "at all, or one in UTF-16. Save it as UTF-8."},
    {Rule::TextAfterHeader, Weight::Warning, "text-after-header",
     "text after the \"]\" of a header",
     "The module ignores whatever follows the \"]\" of a header, even a pair. Put it on a line of "
     "its own. If it is a comment, begin it with \";\"."},
    {Rule::LongSectionName, Weight::Warning, "long-section-name",
     "a section name of more than 49 bytes",
     "The module cuts a section name to 49 bytes and uses only those. No known section has a "
     "longer name, so this one is probably a mistake. Write the name of a known section."},
    {Rule::UnusedSection, Weight::Warning, "unused-section", "an unknown section without pairs",
     "The module notices an unknown section only at its first pair. This header has no effect, but "
     "the first pair below it would make the module refuse the file. Correct or remove the "
     "header."},
    {Rule::CommentInContinuation, Weight::Warning, "comment-in-continuation",
     "a \";\" in an indented line, where it does not begin a comment",
     "Only pairs can have inline comments. In an indented line that adds an entry, \";\" and what "
     "follows are words of that entry. Put the comment on a line of its own."},
    {Rule::HashComment, Weight::Warning, "hash-comment",
     "a \"#\" that begins a comment inside an entry",
     "As in a shell, a \"#\" at the beginning of a word begins a comment, and the module ignores "
     "the rest of the line. Put quotes around the word if the \"#\" is part of it, as in Key=\"a "
     "#b\". Begin comments with \" ;\"."},
    {Rule::SwitchValue, Weight::Warning, "switch-value", "a switch that is neither true nor false",
     "EnableFastMeters and EnableSlowMeters are on only if the value is true, in upper or lower "
     "case. Every other value switches them off: 1, yes, on, and even true with text after it. "
     "Write true or false."},
    {Rule::RepeatedSetting, Weight::Warning, "repeated-setting",
     "a Target or switch that is set twice",
     "The last line wins, and the module does not report it. Remove the line that you do not "
     "want."},
    {Rule::OverriddenSetting, Weight::Note, "overridden-setting",
     "a Target or switch that another file has already set",
     "The module reads lines in order, and the last setting wins. A dedicated file overrides the "
     "lines above its File line, and the lines below override the dedicated file. Dedicated files "
     "are meant to be used this way; the note only makes it visible."},
    {Rule::BadTarget, Weight::Warning, "bad-target", "a Target that is not a usable address",
     "The module accepts any text as a target and starts. gRPC then keeps looking for a host with "
     "that name. Write HOST:PORT, such as localhost:50005 or [::1]:50005. The prefixes ipv4:, "
     "ipv6:, dns:, unix: and unix-abstract: are allowed; http:// is not. The whole value is the "
     "target, including quotes and \"#\"."},
    {Rule::WordWithoutEquals, Weight::Warning, "word-without-equals",
     "a word without \"=\" in an entry",
     "The module ignores the word and does not report it. Usually it is the rest of a value that "
     "contains a space. Put quotes around such a value, as in DefaultValue=\"not ready\"."},
    {Rule::WordEndsInEquals, Weight::Warning, "word-ends-in-equals",
     "a word that ends in \"=\" in an entry",
     "The module ignores the word and does not report it. Key= sets no key, and neither does "
     "Key=a=. Write the value, or remove the word."},
    {Rule::TextAfterSecondEquals, Weight::Warning, "text-after-second-equals",
     "text after the second \"=\" of a word",
     "The value of a word begins after its first \"=\" and ends at its second. Key=a=b sets the "
     "key to a, even inside quotes. Choose a value without \"=\"."},
    {Rule::LostBackslash, Weight::Warning, "lost-backslash",
     "a \"\\\" that the module removes from an entry",
     "As in a shell, a \"\\\" outside quotes is removed, and the next character is taken "
     "literally: C:\\temp becomes C:temp. At the end of a line it does not join the next line. Put "
     "double quotes around a value that contains \"\\\", and write each entry on one line."},
    {Rule::CurlyQuote, Weight::Warning, "curly-quote",
     "a value that begins with a typographic quote",
     "Only \" and ' are quotes. The typographic quotes of word processors and web pages are "
     "ordinary characters: they become part of the value, and a space between them ends it. Use \" "
     "instead."},
    {Rule::RepeatedWord, Weight::Warning, "repeated-word", "a word that appears twice in an entry",
     "The last one wins, and the module does not report it. Remove the one that you do not want."},
    {Rule::TrailingComma, Weight::Warning, "trailing-comma",
     "a Key or CustomKey that ends in a comma or semicolon",
     "Only white space separates the words of an entry, so a \",\" or \";\" directly after a name "
     "is part of the name. Key=a, sets the key \"a,\", which no meter has. Remove the comma or "
     "semicolon."},
    {Rule::TrailingText, Weight::Warning, "trailing-text",
     "text after the number of a DefaultValue",
     "The module reads the number at the beginning and ignores the rest: 12abc is 12, 1,5 is 1, "
     "and for an int 1.5 is 1. Write only the number, with \".\" as the decimal point."},
    {Rule::UnsignedRange, Weight::Warning, "unsigned-range",
     "a negative or oversized DefaultValue of an unsigned meter",
     "The module keeps only the low 32 bits: -1 becomes 4294967295, and 4294967296 becomes 0. "
     "Write a value from 0 to 4294967295, or use MetersInt."},
    {Rule::LongDefault, Weight::Warning, "long-default", "a text default of more than 99 bytes",
     "A text slot has room for 99 bytes. A longer default is cut there, possibly in the middle of "
     "a character. Shorten it."},
    {Rule::KeyNotUtf8, Weight::Warning, "key-not-utf8", "a Key that is not valid UTF-8",
     "Keys are sent as UTF-8. No meter can have such a key, so its slot never gets a value. The "
     "engine service can't read a parameter with such a key. Save the file as UTF-8."},
    {Rule::ControlCharacter, Weight::Warning, "control-character",
     "an invisible character in a name",
     "Names are compared byte by byte. A control character, a direction mark or a special space "
     "such as those on web pages is part of the name, although nobody can see it. Remove it, or "
     "type the name again."},
    {Rule::OuterBlanks, Weight::Warning, "outer-blanks",
     "a name that begins or ends with white space",
     "White space inside quotes is part of a Key or CustomKey, and white space inside the brackets "
     "of a header is part of the condition. Names are compared byte by byte, so the name without "
     "it is a different one. Remove the white space."},
    {Rule::RepeatedSlotName, Weight::Warning, "repeated-slot-name",
     "two slots of one set with the same name",
     "The fast, slow and engine slots are three sets. Two slots of a set get the same name if they "
     "share a CustomKey, or if a CustomKey equals a generated name such as gateway_int_0. The host "
     "then finds at most one of them. Choose another CustomKey."},
    {Rule::RateOff, Weight::Warning, "rate-off", "meters whose rate is switched off",
     "Such meters get their slots, but the module opens no stream for them, so they keep their "
     "defaults. Switch the rate on, or change the Type. A meter without a Type is fast."},
    {Rule::LongCondition, Weight::Warning, "long-condition",
     "a condition path of more than 36 bytes",
     "The module cuts section names to 49 bytes, which leaves 36 for the path after ParseIfExist:. "
     "It looks for the cut path. Use a shorter path as the condition, such as a folder or a link. "
     "The File value may be longer."},
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
     "a condition path that differs from the File",
     "The module only tests whether the path in the header exists; it reads the file that File "
     "names. Usually both should be the same."},
    {Rule::ConditionWithoutFile, Weight::Warning, "condition-without-file",
     "a ParseIfExist: section without a File",
     "The module only tests whether the path in the header exists. It reads nothing without a File "
     "line below. Write File=PATH, or remove the header."},
    {Rule::MissingFile, Weight::Warning, "missing-file", "a File that can't be read",
     "The condition holds, but the path in File does not exist, is a folder or can't be read. The "
     "module starts without it, and only its log says so. It takes the value literally, so quotes "
     "are part of the path."},
    {Rule::StrayKey, Weight::Warning, "stray-key",
     "a key other than File in a ParseIfExist: section",
     "The module skips the line and starts. If the line belongs to the section above, move it "
     "above the ParseIfExist: header."},
    {Rule::DedicatedFileErrors, Weight::Warning, "dedicated-file-errors",
     "bad lines in a dedicated file",
     "A bad line in a dedicated file does not make the module refuse the configuration. The module "
     "skips the line and uses all others. It would refuse the same line in the main file."},
    {Rule::RelativePath, Weight::Note, "relative-path", "a path that does not begin with \"/\"",
     "The engine resolves a relative path against its working directory, not against the folder of "
     "the file. The checker resolves it against the current directory. Write a path that begins "
     "with \"/\"."},
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
  if (weight == Weight::LineError) return "error, but a warning in a dedicated file";
  return nameOf(severityOf(weight, false));
}

bool canBeAllowed(Weight weight) {
  return weight == Weight::LineError || weight == Weight::Warning;
}

}  // namespace check
