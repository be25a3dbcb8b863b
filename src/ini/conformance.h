/* conformance.h - the table of cases that an INI reader must read as required.
 *
 * This table is the only machine-readable form of the rules. Two programs use it:
 * conformance-probe.cpp, which CMake runs against the installed inih, and the unit tests of the
 * linked reader. For a new rule, add a case here.
 *
 * A case is a file, the pairs that its handler must see, in order, and the result of the pass. The
 * handler refuses exactly the pairs whose value is "refuse".
 *
 * The cases need only the C and C++ standard libraries and mkstemp, so the probe builds wherever
 * the module does. The include path decides whose <ini.h> is tested.
 *
 * Threads: no shared state. Errors: std::system_error if a temporary file cannot be written.
 */
#ifndef INI_CONFORMANCE_H
#define INI_CONFORMANCE_H

#include <ini.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cctype>
#include <cerrno>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <initializer_list>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

namespace ini::conformance {

/* The signature of ini_parse. */
using Reader = int (*)(const char* filename, ini_handler handler, void* user);

/* One call of the handler. */
struct Pair {
  std::string section;
  std::string name;
  std::string value;

  bool operator==(const Pair&) const = default;
};

/* The outcome of a pass: the calls of the handler in order, and the result of ini_parse. */
struct Reading {
  std::vector<Pair> pairs;
  int result;

  bool operator==(const Reading&) const = default;
};

/* `name` states a claim and is unique. `bytes` may contain NULs. */
struct Case {
  std::string name;
  std::string bytes;
  Reading expected;
};

/* ---- Cases ------------------------------------------------------------------------------ */

/* The UTF-8 byte order mark. */
inline constexpr char markBytes[] = "\xEF\xBB\xBF";

inline std::string fill(std::size_t count, char c = 'x') {
  return std::string(count, c);
}

/* A chunk has at most 1023 bytes: "a=" and 1021 bytes fill one exactly. */
inline std::vector<Case> chunkCases() {
  const std::string x600 = fill(600);
  const std::string x1020 = fill(1020);
  const std::string full = fill(1021);
  const std::string x1022 = fill(1022);
  return {
      {"a long line is read whole",
       "a=" + x600 + "\nb=1\n",
       {{{"", "a", x600}, {"", "b", "1"}}, 0}},
      {"1022 bytes and a newline are one line", "a=" + x1020 + "\nbare\n", {{{"", "a", x1020}}, 2}},
      {"the newline after 1023 bytes is another line",
       "a=" + full + "\nbare\n",
       {{{"", "a", full}}, 3}},
      {"the rest after 1023 bytes is the next line",
       "a=" + full + "b=2\n",
       {{{"", "a", full}, {"", "b", "2"}}, 0}},
      {"the rest counts as one line",
       "a=" + full + "b=2\nbare\n",
       {{{"", "a", full}, {"", "b", "2"}}, 3}},
      {"a rest that is a bare word is a bad line", "a=" + full + "x\n", {{{"", "a", full}}, 2}},
      {"a rest that begins with a blank is a continuation",
       "a=" + full + " b=2\n",
       {{{"", "a", full}, {"", "a", "b=2"}}, 0}},
      {"a blank at the end of a chunk is trimmed",
       "a=" + x1020 + " b=2\n",
       {{{"", "a", x1020}, {"", "b", "2"}}, 0}},
      {"the rest of a long comment is not a comment", ";" + x1022 + "b=2\n", {{{"", "b", "2"}}, 0}},
      {"the rest of a long header is not a header",
       "[s]\n[" + x1022 + "]\na=1\n",
       {{{"s", "a", "1"}}, 2}},
      {"a line of three chunks counts as three lines",
       "a=" + full + fill(1023, 'y') + "c=3\nbare\n",
       {{{"", "a", full}, {"", "c", "3"}}, 2}},
      {"a last chunk of 1023 bytes ends the file", "a=" + full, {{{"", "a", full}}, 0}},
  };
}

inline std::vector<Case> byteOrderMarkCases() {
  const std::string mark = markBytes;
  return {
      {"a byte order mark at the start is skipped", mark + "[s]\na=1\n", {{{"s", "a", "1"}}, 0}},
      {"a byte order mark may precede a comment", mark + ";a\n", {{}, 0}},
      {"a byte order mark may precede white space", mark + "  a=1\n", {{{"", "a", "1"}}, 0}},
      {"a byte order mark may be the whole file", mark, {{}, 0}},
      {"a byte order mark counts toward its chunk",
       mark + "a=" + fill(1018) + "b=2\n",
       {{{"", "a", fill(1018)}, {"", "b", "2"}}, 0}},
      {"a byte order mark on a later line is text",
       "a=1\n" + mark + "[s]\n" + mark + "b=2\n",
       {{{"", "a", "1"}, {"", mark + "b", "2"}}, 2}},
      {"a second byte order mark is text", mark + mark + "a=1\n", {{{"", mark + "a", "1"}}, 0}},
      {"a byte order mark after white space is text",
       " " + mark + "a=1\n",
       {{{"", mark + "a", "1"}}, 0}},
      {"part of a byte order mark is text",
       mark.substr(0, 2) + "a=1\n",
       {{{"", mark.substr(0, 2) + "a", "1"}}, 0}},
  };
}

inline std::vector<Case> whiteSpaceCases() {
  return {
      {"trailing white space of every kind is cut", "a=1 \t\v\f\r\n", {{{"", "a", "1"}}, 0}},
      {"leading white space of every kind is skipped", " \t\v\f\ra=1\n", {{{"", "a", "1"}}, 0}},
      {"a line may end in CRLF", "[s]\r\na=1\r\n\r\nbare\r\n", {{{"s", "a", "1"}}, 4}},
      {"a carriage return does not end a line", "a=1\rb=2\n", {{{"", "a", "1\rb=2"}}, 0}},
      {"bytes above 127 are not white space",
       "a=\x85\xA0\n\xA0z=2\n",
       {{{"", "a", "\x85\xA0"}, {"", "\xA0z", "2"}}, 0}},
      {"lines of white space are ignored but counted", "\n \t\n\v\f\r\nbare\n", {{}, 4}},
      {"the last line needs no newline", "[s]\na=1", {{{"s", "a", "1"}}, 0}},
      {"a continuation in the last line needs no newline",
       "a=1\n b",
       {{{"", "a", "1"}, {"", "a", "b"}}, 0}},
      {"an empty file is good", "", {{}, 0}},
  };
}

inline std::vector<Case> commentCases() {
  return {
      {"a line that begins with a semicolon is a comment", ";a=1\nb=2\n", {{{"", "b", "2"}}, 0}},
      {"a line that begins with a hash is a comment", "#[s]\nb=2\n", {{{"", "b", "2"}}, 0}},
      {"an indented comment is a comment", " ;a=1\n\t#a=1\n", {{}, 0}},
      {"an indented comment after a pair is a comment", "a=1\n ;b\n #c\n", {{{"", "a", "1"}}, 0}},
      {"a file may consist of comments", ";\n#\n ; [s]\n # a=1\n", {{}, 0}},
  };
}

inline std::vector<Case> continuationCases() {
  return {
      {"an indented line repeats the pending name",
       "[s]\na=1\n b\n\tc\n",
       {{{"s", "a", "1"}, {"s", "a", "b"}, {"s", "a", "c"}}, 0}},
      {"every kind of white space indents",
       "a=1\n\vb\n\fc\n\rd\n",
       {{{"", "a", "1"}, {"", "a", "b"}, {"", "a", "c"}, {"", "a", "d"}}, 0}},
      {"a continuation is trimmed", "a=1\n  b  c \t\r\n", {{{"", "a", "1"}, {"", "a", "b  c"}}, 0}},
      {"a continuation keeps its inline comment",
       "a=1 ;x\n b ;c\n",
       {{{"", "a", "1"}, {"", "a", "b ;c"}}, 0}},
      {"a continuation may follow comments and empty lines",
       "a=1\n\n;x\n #y\n \t\n b\n",
       {{{"", "a", "1"}, {"", "a", "b"}}, 0}},
      {"an indented header after a pair is a continuation",
       "[s]\na=1\n [t]\nb=2\n",
       {{{"s", "a", "1"}, {"s", "a", "[t]"}, {"s", "b", "2"}}, 0}},
      {"an indented unclosed header after a pair is a continuation",
       "a=1\n [t\n",
       {{{"", "a", "1"}, {"", "a", "[t"}}, 0}},
      {"an indented pair after a pair is a continuation",
       "a=1\n b=2\n : 3\n c\n",
       {{{"", "a", "1"}, {"", "a", "b=2"}, {"", "a", ": 3"}, {"", "a", "c"}}, 0}},
      {"the pending name is the last one seen",
       "a=1\nb=2\n c\n",
       {{{"", "a", "1"}, {"", "b", "2"}, {"", "b", "c"}}, 0}},
      {"a name with an empty value is pending", "a=\n b\n", {{{"", "a", ""}, {"", "a", "b"}}, 0}},
      {"an empty name leaves no name pending",
       "a=1\n=2\n b=3\n :4\n c\n",
       {{{"", "a", "1"}, {"", "", "2"}, {"", "b", "3"}, {"", "b", ":4"}, {"", "b", "c"}}, 0}},
  };
}

/* What clears a pending name and what does not. */
inline std::vector<Case> pendingNameCases() {
  const std::string x48 = fill(48);
  const std::string x49 = fill(49);
  const std::string x50 = fill(50);
  return {
      {"without a pending name an indented header is a header",
       " [s]\n\ta=1\n",
       {{{"s", "a", "1"}}, 0}},
      {"without a pending name an indented bare word is bad", "[s]\n bare\n", {{}, 2}},
      {"a header clears the pending name",
       "[s]\na=1\n[t]\n b=2\n",
       {{{"s", "a", "1"}, {"t", "b", "2"}}, 0}},
      {"a header of the same section clears the pending name",
       "[s]\na=1\n[s]\n b\n",
       {{{"s", "a", "1"}}, 4}},
      {"a bad line keeps the pending name",
       "[s]\na=1\nbare\n b\n",
       {{{"s", "a", "1"}, {"s", "a", "b"}}, 3}},
      {"a bad header keeps section and pending name",
       "[s]\na=1\n[t\n b\n[t ;]\n c\nd=2\n",
       {{{"s", "a", "1"}, {"s", "a", "b"}, {"s", "a", "c"}, {"s", "d", "2"}}, 3}},
      {"the name of a refused pair is pending",
       "a=refuse\n b\n",
       {{{"", "a", "refuse"}, {"", "a", "b"}}, 1}},
      {"a name of 49 bytes is pending uncut",
       x49 + "=1\n b\n",
       {{{"", x49, "1"}, {"", x49, "b"}}, 0}},
      {"a longer pending name is cut to 49 bytes",
       x50 + "=1\n b\n c\n",
       {{{"", x50, "1"}, {"", x49, "b"}, {"", x49, "c"}}, 0}},
      {"a cut pending name is not trimmed",
       x48 + " y=1\n b\n",
       {{{"", x48 + " y", "1"}, {"", x48 + " ", "b"}}, 0}},
  };
}

inline std::vector<Case> headerCases() {
  const std::string x48 = fill(48);
  const std::string x49 = fill(49);
  return {
      {"a header opens a section", "[s]\na=1\n[t]\nb=2\n", {{{"s", "a", "1"}, {"t", "b", "2"}}, 0}},
      {"a header by itself does not reach the handler", "[s]\n[t]\n", {{}, 0}},
      {"a section may be reopened",
       "[s]\na=1\n[t]\n[s]\na=2\n",
       {{{"s", "a", "1"}, {"s", "a", "2"}}, 0}},
      {"a section name is not trimmed", "[ s\t]\na=1\n", {{{" s\t", "a", "1"}}, 0}},
      {"a section name may be empty",
       "[s]\na=1\n[]\nb=2\n",
       {{{"s", "a", "1"}, {"", "b", "2"}}, 0}},
      {"a pair before the first header has the empty section",
       "a=1\n[s]\nb=2\n",
       {{{"", "a", "1"}, {"s", "b", "2"}}, 0}},
      {"text after a header is ignored", "[s] b=2 ;c\na=1\n", {{{"s", "a", "1"}}, 0}},
      {"a section name ends at the first bracket",
       "[[s]t]\na=1\n[u=v:w]\nb=2\n",
       {{{"[s", "a", "1"}, {"u=v:w", "b", "2"}}, 0}},
      {"a section name of 49 bytes is not cut", "[" + x49 + "]\na=1\n", {{{x49, "a", "1"}}, 0}},
      {"a longer section name is cut to 49 bytes",
       "[" + x48 + " yz]\na=1\n",
       {{{x48 + " ", "a", "1"}}, 0}},
      {"a semicolon at the start of a section name is text",
       "[;x]\na=1\n",
       {{{";x", "a", "1"}}, 0}},
      {"a semicolon inside a section name is text", "[x;y]\na=1\n", {{{"x;y", "a", "1"}}, 0}},
      {"a hash in a section name is text", "[ #x]\na=1\n", {{{" #x", "a", "1"}}, 0}},
      {"a semicolon after a blank makes a header bad", "[s ;t]\na=1\n", {{{"", "a", "1"}}, 1}},
      {"a semicolon after a leading blank makes a header bad",
       "[\t;t]\na=1\n",
       {{{"", "a", "1"}}, 1}},
      {"a header without a closing bracket is bad", "[s\n[t=1\n", {{}, 1}},
  };
}

inline std::vector<Case> separatorCases() {
  return {
      {"an equals sign separates", "a=1\n", {{{"", "a", "1"}}, 0}},
      {"a colon separates", "Target: localhost:50005\n", {{{"", "Target", "localhost:50005"}}, 0}},
      {"the first equals sign separates", "a=b=c:d\n", {{{"", "a", "b=c:d"}}, 0}},
      {"an equals sign takes precedence over a colon",
       "Meter: Key=a\n",
       {{{"", "Meter: Key", "a"}}, 0}},
      {"a colon separates if the equals sign is in the comment",
       "a: b ;c=d\n",
       {{{"", "a", "b"}}, 0}},
      {"a semicolon without a blank before it hides no equals sign",
       "a: b;c=d\ne;f=g\n",
       {{{"", "a: b;c", "d"}, {"", "e;f", "g"}}, 0}},
      {"separators in a comment do not count", "a ;b=c\n", {{}, 1}},
      {"a colon in a comment does not count", "a\t;b:c\n", {{}, 1}},
      {"a bare word is bad", "bare\n", {{}, 1}},
      {"name and value are trimmed", "a b \t= \t1  2 \n", {{{"", "a b", "1  2"}}, 0}},
      {"a name may be empty", "=1\n: 2\n", {{{"", "", "1"}, {"", "", "2"}}, 0}},
      {"a long name reaches the handler whole", fill(300) + "=1\n", {{{"", fill(300), "1"}}, 0}},
      {"a hash and brackets in a name are text",
       "a #b=1\n]c[=2\n",
       {{{"", "a #b", "1"}, {"", "]c[", "2"}}, 0}},
  };
}

inline std::vector<Case> valueCases() {
  return {
      {"a value may be empty",
       "a=\nb= \t\nc:\n",
       {{{"", "a", ""}, {"", "b", ""}, {"", "c", ""}}, 0}},
      {"a semicolon after a blank cuts a value",
       "a=1 ;x\nb=2 \t; y ;z\n",
       {{{"", "a", "1"}, {"", "b", "2"}}, 0}},
      {"a semicolon without a blank before it is text", "a=b;c\n", {{{"", "a", "b;c"}}, 0}},
      {"a semicolon as the first character of a value is text",
       "a=;b\nc= ;text\nd:\t; e\n",
       {{{"", "a", ";b"}, {"", "c", ";text"}, {"", "d", "; e"}}, 0}},
      {"a comment may follow a leading semicolon", "a= ;b ;c\n", {{{"", "a", ";b"}}, 0}},
      {"a hash does not cut a value", "a=1 #x\nb=#y\n", {{{"", "a", "1 #x"}, {"", "b", "#y"}}, 0}},
      {"quotes are text and hide no comment",
       "a=\"b c\"\nd=\"e ;f\"\n",
       {{{"", "a", "\"b c\""}, {"", "d", "\"e"}}, 0}},
      {"a backslash escapes nothing",
       "a=\\n \\;b\nc=d\\\ne=1\n",
       {{{"", "a", "\\n \\;b"}, {"", "c", "d\\"}, {"", "e", "1"}}, 0}},
  };
}

inline std::vector<Case> resultCases() {
  return {
      {"the pass reports the first bad line and continues",
       "a=1\nbare\n[s\nb=2\nbare\n",
       {{{"", "a", "1"}, {"", "b", "2"}}, 2}},
      {"a refused pair is a bad line",
       "a=1\nb=refuse\nc=3\n",
       {{{"", "a", "1"}, {"", "b", "refuse"}, {"", "c", "3"}}, 2}},
      {"a refused continuation is a bad line",
       "a=1\n refuse\n b\n",
       {{{"", "a", "1"}, {"", "a", "refuse"}, {"", "a", "b"}}, 2}},
      {"an earlier bad line beats a refused pair", "bare\na=refuse\n", {{{"", "a", "refuse"}}, 1}},
      {"an earlier refused pair beats a bad line",
       "\na=refuse\nbare\n",
       {{{"", "a", "refuse"}}, 2}},
  };
}

inline std::vector<Case> nulCases() {
  using std::string_literals::operator""s;
  return {
      {"a NUL ends the text of its line",
       "a=1\0b\nc=3\nbare\n"s,
       {{{"", "a", "1"}, {"", "c", "3"}}, 3}},
      {"a NUL at the start of a line leaves it empty", "\0a\nb=2\n"s, {{{"", "b", "2"}}, 0}},
      {"a NUL before the separator makes a line bad", "a\0=1\nb=2\n"s, {{{"", "b", "2"}}, 1}},
      {"a NUL before the bracket makes a header bad", "[s\0]\na=1\n"s, {{{"", "a", "1"}}, 1}},
      {"a NUL ends a continuation", "a=1\n b\0c\n"s, {{{"", "a", "1"}, {"", "a", "b"}}, 0}},
      {"white space before a NUL is trimmed", "a=1 \0b\n"s, {{{"", "a", "1"}}, 0}},
      {"a NUL may follow the byte order mark", markBytes + "\0a\nb=2\n"s, {{{"", "b", "2"}}, 0}},
      {"bytes after a NUL count toward the chunk",
       "a=1\0"s + fill(1019) + "b=2\n",
       {{{"", "a", "1"}, {"", "b", "2"}}, 0}},
      {"a file of NULs is empty", std::string(5000, '\0'), {{}, 0}},
  };
}

/* Returns all cases. */
inline std::vector<Case> cases() {
  std::vector<Case> all;
  for (const auto& group : {chunkCases(), byteOrderMarkCases(), whiteSpaceCases(), commentCases(),
                            continuationCases(), pendingNameCases(), headerCases(),
                            separatorCases(), valueCases(), resultCases(), nulCases()}) {
    all.insert(all.end(), group.begin(), group.end());
  }
  return all;
}

/* ---- Running the cases ------------------------------------------------------------------ */

/* A file with the given bytes, which the destructor removes. */
class TemporaryFile {
 public:
  explicit TemporaryFile(const std::string& bytes) {
    const int descriptor = mkstemp(path_.data());
    if (descriptor < 0) throw std::system_error(errno, std::generic_category(), path_);
    close(descriptor);
    if (!(std::ofstream(path_, std::ios::binary) << bytes << std::flush)) {
      std::remove(path_.c_str());
      throw std::system_error(errno, std::generic_category(), path_);
    }
  }
  ~TemporaryFile() { std::remove(path_.c_str()); }

  TemporaryFile(const TemporaryFile&) = delete;
  TemporaryFile& operator=(const TemporaryFile&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_ = std::filesystem::temp_directory_path() / "ini-conformance-XXXXXX";
};

/* The handler of all cases. It adds the pair to `user`, a std::vector<Pair>. */
inline int recordPair(void* user, const char* section, const char* name, const char* value) {
  static_cast<std::vector<Pair>*>(user)->push_back({section, name, value});
  return std::string_view(value) != "refuse";
}

/* Reads the file at `path`. */
inline Reading readPath(Reader reader, const std::string& path) {
  Reading reading{{}, 0};
  reading.result = reader(path.c_str(), recordPair, &reading.pairs);
  return reading;
}

/* Reads a temporary file that holds `bytes`. */
inline Reading readBytes(Reader reader, const std::string& bytes) {
  return readPath(reader, TemporaryFile(bytes).path());
}

/* ---- Reporting differences -------------------------------------------------------------- */

/* Returns the text in double quotes, with unprintable bytes as \xNN and without the middle of a
 * long text. */
inline std::string quote(const std::string& text) {
  if (text.size() > 60) {
    return quote(text.substr(0, 20)) + "..." + quote(text.substr(text.size() - 20)) + " (" +
           std::to_string(text.size()) + " bytes)";
  }
  std::string quoted = "\"";
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    std::array<char, 5> escaped{c};
    if (std::isprint(byte) == 0) std::snprintf(escaped.data(), escaped.size(), "\\x%02X", byte);
    quoted += escaped.data();
  }
  return quoted + '"';
}

inline std::string describe(const Pair& pair) {
  std::string text = "section ";
  text += quote(pair.section) + " name " + quote(pair.name) + " value " + quote(pair.value);
  return text;
}

inline std::string describeResult(const Reading& reading) {
  std::string text = "result ";
  text += std::to_string(reading.result);
  return text;
}

/* Returns the first difference between two readings, as "expected ..., got ..." with a pair or the
 * result on each side. Empty if they agree. */
inline std::string firstDifference(const Reading& expected, const Reading& got) {
  if (expected == got) return "";
  const auto [want, have] = std::mismatch(expected.pairs.begin(), expected.pairs.end(),
                                          got.pairs.begin(), got.pairs.end());
  const auto show = [](const Reading& reading, auto at) {
    return at == reading.pairs.end() ? describeResult(reading) : describe(*at);
  };
  std::string text = "expected ";
  text += show(expected, want) + ", got " + show(got, have);
  return text;
}

/* Returns the first case that `reader` does not read as required, as "\"name\": expected ..., got
 * ...". Empty if there is none. */
inline std::string firstFailure(Reader reader) {
  for (const Case& each : cases()) {
    const std::string difference = firstDifference(each.expected, readBytes(reader, each.bytes));
    if (!difference.empty()) return quote(each.name) + ": " + difference;
  }
  return "";
}

}  // namespace ini::conformance

#endif
