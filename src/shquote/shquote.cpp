#include "shquote/shquote.h"

#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string_view>

#include "shquote/shquote-private.h"

namespace {

// A table: searching the set for each byte would take a fifth of the time of reading a
// configuration.
class ByteSet {
 public:
  constexpr explicit ByteSet(std::string_view bytes) {
    for (const char byte : bytes) isIn_[static_cast<unsigned char>(byte)] = true;
  }

  constexpr bool contains(char byte) const { return isIn_[static_cast<unsigned char>(byte)]; }

  // The offset of the first byte, from `start` on, that is in the set. The size if there is none.
  size_t findIn(std::string_view text, size_t start) const {
    size_t at = start;
    while (at < text.size() && !contains(text[at])) ++at;
    return at;
  }
  size_t findNotIn(std::string_view text) const {
    size_t at = 0;
    while (at < text.size() && contains(text[at])) ++at;
    return at;
  }

 private:
  std::array<bool, 256> isIn_{};
};

constexpr ByteSet kBlanks(" \t\n");
constexpr ByteSet kQuoting("\"'\\");
// Without #, which is an ordinary byte once a token has started.
constexpr ByteSet kBlanksAndQuoting(" \t\n\"'\\");
constexpr ByteSet kEndsOfDoubleQuoted("\"\\");
constexpr ByteSet kEscapedInDoubleQuoted("\"$\\`\n");

// A working copy of the caller's cursors, stored back only on success.
struct Cursors {
  char* out;
  size_t room;
  const char* in;
  size_t left;

  std::string_view input() const { return {in, left}; }

  // Consumes `consumed` bytes of input and writes `output`. On an error it does neither.
  int replace(size_t consumed, std::string_view output) {
    if (consumed > left) return -ENOTRECOVERABLE;
    if (output.size() > room) return SHQUOTE_ERR_NO_ROOM;
    output.copy(out, output.size());
    out += output.size();
    room -= output.size();
    in += consumed;
    left -= consumed;
    return 0;
  }

  // `stop` is the result of a search in the input: the offset of a byte, or npos for the end.
  size_t lengthTo(size_t stop) const { return stop == std::string_view::npos ? left : stop; }
  int skipTo(size_t stop) { return replace(lengthTo(stop), {}); }
  int copyTo(size_t stop) { return replace(lengthTo(stop), {in, lengthTo(stop)}); }

  void storeOutput(char** outCursor, size_t* outRoom) const {
    *outCursor = out;
    *outRoom = room;
  }
  void storeInput(const char** inCursor, size_t* inLength) const {
    *inCursor = in;
    *inLength = left;
  }
};

int copySingleQuoted(Cursors& at) {
  const size_t close = at.input().find('\'', 1);
  if (close == std::string_view::npos) return SHQUOTE_ERR_UNTERMINATED;
  return at.replace(close + 1, {at.in + 1, close - 1});
}

int copyBareEscape(Cursors& at) {
  if (at.left == 1) return at.replace(1, {});
  if (at.in[1] == '\n') return at.replace(2, {});
  return at.replace(2, {at.in + 1, 1});
}

int copyDoubleQuotedEscape(Cursors& at) {
  if (at.left == 1) return SHQUOTE_ERR_UNTERMINATED;
  if (kEscapedInDoubleQuoted.contains(at.in[1])) return at.replace(2, {at.in + 1, 1});
  return at.replace(2, {at.in, 2});
}

// Copies what starts at the cursor: a quoted text, an escape, or a run of bytes up to the next one
// in `stops`. A run always includes its first byte, so every call consumes something.
int copyPiece(Cursors& at, const ByteSet& stops) {
  switch (*at.in) {
    case '"':
      return c_shquote_copy_double_quoted(&at.out, &at.room, &at.in, &at.left);
    case '\'':
      return copySingleQuoted(at);
    case '\\':
      return copyBareEscape(at);
    default:
      return at.copyTo(stops.findIn(at.input(), 1));
  }
}

// Writes the next token and a NUL byte after it.
int parseWord(Cursors& at) {
  const int error = c_shquote_parse_next(&at.out, &at.room, &at.in, &at.left);
  constexpr char nul = '\0';
  return error == 0 ? at.replace(0, {&nul, 1}) : error;
}

// Allocates one block: the array, followed by the `texts` that it points to. Null if out of memory.
char** makeWordArray(std::string_view texts, size_t count) {
  const size_t arraySize = (count + 1) * sizeof(char*);
  auto* words = static_cast<char**>(std::malloc(arraySize + texts.size()));
  if (words == nullptr) return nullptr;
  char* text = reinterpret_cast<char*>(words + count + 1);
  texts.copy(text, texts.size());
  for (size_t i = 0; i < count; ++i) {
    words[i] = text;
    text += std::strlen(text) + 1;
  }
  words[count] = nullptr;
  return words;
}

struct Free {
  void operator()(char* memory) const { std::free(memory); }
};

}  // namespace

int c_shquote_copy_double_quoted(char** out, size_t* room, const char** in,
                                 size_t* length) noexcept {
  Cursors at{*out, *room, *in, *length};
  if (at.left == 0 || *at.in != '"') return -ENOTRECOVERABLE;
  int error = at.replace(1, {});
  while (error == 0 && at.left > 0 && *at.in != '"') {
    error = *at.in == '\\' ? copyDoubleQuotedEscape(at)
                           : at.copyTo(kEndsOfDoubleQuoted.findIn(at.input(), 0));
  }
  if (error == 0 && at.left == 0) error = SHQUOTE_ERR_UNTERMINATED;
  if (error == 0) error = at.replace(1, {});
  if (error != 0) return error;
  at.storeOutput(out, room);
  at.storeInput(in, length);
  return 0;
}

int c_shquote_quote(char** out, size_t* room, const char* in, size_t length) noexcept {
  Cursors at{*out, *room, in, length};
  int error = at.replace(0, "'");
  while (error == 0 && at.left > 0) {
    error = *at.in == '\'' ? at.replace(1, "'\\''") : at.copyTo(at.input().find('\''));
  }
  if (error == 0) error = at.replace(0, "'");
  if (error == 0) at.storeOutput(out, room);
  return error;
}

int c_shquote_unquote(char** out, size_t* room, const char* in, size_t length) noexcept {
  Cursors at{*out, *room, in, length};
  int error = 0;
  while (error == 0 && at.left > 0) error = copyPiece(at, kQuoting);
  if (error == 0) at.storeOutput(out, room);
  return error;
}

int c_shquote_parse_next(char** out, size_t* room, const char** in, size_t* length) noexcept {
  Cursors at{*out, *room, *in, *length};
  bool started = false;
  int error = 0;
  while (error == 0 && at.left > 0) {
    const char first = *at.in;
    if (kBlanks.contains(first)) {
      error = at.skipTo(kBlanks.findNotIn(at.input()));
      if (started) break;
    } else if (first == '#' && !started) {
      error = at.skipTo(at.input().find('\n'));
    } else {
      error = copyPiece(at, kBlanksAndQuoting);
      // An escape that yields no byte starts no token.
      started = started || first != '\\' || at.room != *room;
    }
  }
  if (error != 0) return error;
  if (!started) return SHQUOTE_ERR_END_OF_INPUT;
  at.storeOutput(out, room);
  at.storeInput(in, length);
  return 0;
}

int c_shquote_parse_argv(char*** words, size_t* count, const char* in, size_t length) noexcept {
  const std::string_view text(in, length);
  if (text.find('\0') != text.npos) return SHQUOTE_ERR_EMBEDDED_NUL;
  // This size suffices: a word is never longer than its quoted form, and the separator after it
  // leaves room for its NUL byte. The extra byte is for the NUL of the last word.
  const std::unique_ptr<char, Free> scratch(static_cast<char*>(std::malloc(length + 1)));
  if (scratch == nullptr) return -ENOMEM;
  Cursors at{scratch.get(), length + 1, in, length};
  size_t found = 0;
  int error;
  while ((error = parseWord(at)) == 0) ++found;
  if (error != SHQUOTE_ERR_END_OF_INPUT) return error;
  char** block = makeWordArray({scratch.get(), length + 1 - at.room}, found);
  if (block == nullptr) return -ENOMEM;
  *words = block;
  *count = found;
  return 0;
}
