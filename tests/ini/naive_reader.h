// A second implementation of the rules of src/ini/ini.h, byte by byte and in memory. It is slow and
// shares nothing with the reader under test, which searches and cuts.
#ifndef TESTS_INI_NAIVE_READER_H
#define TESTS_INI_NAIVE_READER_H

#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <utility>

#include "ini/conformance.h"

class NaiveIniReader {
 public:
  // Returns whether it accepts the pair.
  using Handler = std::function<bool(const ini::conformance::Pair& pair)>;

  // Makes a pass over the bytes and returns its result.
  static int read(std::string_view bytes, Handler handler) {
    NaiveIniReader reader(std::move(handler));
    for (const char byte : bytes) reader.take(byte);
    if (!reader.chunk_.empty()) reader.endChunk();
    return reader.result_;
  }

  // Makes a pass with the handler of the conformance cases and returns its outcome.
  static ini::conformance::Reading read(std::string_view bytes) {
    ini::conformance::Reading reading{{}, 0};
    reading.result = read(bytes, [&](const ini::conformance::Pair& pair) {
      reading.pairs.push_back(pair);
      return pair.value != "refuse";
    });
    return reading;
  }

 private:
  explicit NaiveIniReader(Handler handler) : handler_(std::move(handler)) {}

  void take(char byte) {
    chunk_ += byte;
    if (byte == '\n' || chunk_.size() == 1023) endChunk();
  }

  void endChunk() {
    ++number_;
    std::string line = chunk_.c_str();
    if (number_ == 1 && line.substr(0, 3) == "\xEF\xBB\xBF") line.erase(0, 3);
    if (!isGood(line) && result_ == 0) result_ = number_;
    chunk_.clear();
  }

  bool isGood(const std::string& line) {
    const std::string text = stripped(line);
    if (text.empty() || text[0] == ';' || text[0] == '#') return true;
    if (isBlank(line[0]) && !pendingName_.empty()) return hand(pendingName_, text);
    return text[0] == '[' ? takeHeader(text) : takePair(text);
  }

  bool takeHeader(const std::string& text) {
    std::string name;
    for (std::size_t i = 1; i < text.size() && !commentBegins(text, i); ++i) {
      if (text[i] == ']') {
        section_ = name.substr(0, 49);
        pendingName_ = "";
        return true;
      }
      name += text[i];
    }
    return false;
  }

  bool takePair(const std::string& text) {
    std::size_t separator = text.size();
    for (std::size_t i = 0; i < text.size() && !commentBegins(text, i); ++i) {
      if (text[i] == ':' && separator == text.size()) separator = i;
      if (text[i] != '=') continue;
      separator = i;
      break;
    }
    if (separator == text.size()) return false;
    const std::string name = stripped(text.substr(0, separator));
    pendingName_ = name.substr(0, 49);
    return hand(name, valueOf(stripped(text.substr(separator + 1))));
  }

  static std::string valueOf(const std::string& text) {
    std::string value;
    for (std::size_t i = 0; i < text.size() && !commentBegins(text, i); ++i) value += text[i];
    return stripped(value);
  }

  bool hand(const std::string& name, const std::string& value) {
    return handler_({section_, name, value});
  }

  static bool isBlank(char byte) {
    return byte == ' ' || byte == '\t' || byte == '\n' || byte == '\v' || byte == '\f' ||
           byte == '\r';
  }

  static bool commentBegins(const std::string& text, std::size_t at) {
    return at > 0 && text[at] == ';' && isBlank(text[at - 1]);
  }

  static std::string stripped(std::string text) {
    while (!text.empty() && isBlank(text[0])) text.erase(0, 1);
    while (!text.empty() && isBlank(text[text.size() - 1])) text.erase(text.size() - 1);
    return text;
  }

  const Handler handler_;
  int result_ = 0;
  std::string chunk_;
  int number_ = 0;
  std::string section_;
  std::string pendingName_;
};

#endif  // TESTS_INI_NAIVE_READER_H
