#include "tests/proto/wire.h"

#include <cstdio>

namespace wire {
namespace {

// Global, since the runtime's log handler takes no user argument.
std::vector<std::string>& logged() {
  static std::vector<std::string> messages;
  return messages;
}

void take(google::protobuf::LogLevel, const char*, int, const std::string& message) {
  logged().push_back(message);
}

}  // namespace

std::string bytes(std::string_view spelling) {
  std::istringstream in{std::string(spelling)};
  std::string all;
  for (std::string pair; in >> pair;) all += static_cast<char>(std::stoi(pair, nullptr, 16));
  return all;
}

std::string spelled(std::string_view bytes) {
  std::string all;
  for (const char byte : bytes) {
    char pair[4];
    std::snprintf(pair, sizeof(pair), "%02X", static_cast<unsigned>(byte) & 0xFFU);
    all += (all.empty() ? "" : " ") + std::string(pair);
  }
  return all;
}

std::string emptyField(int number, int wireType) {
  const std::size_t sizes[] = {1, 8, 1, 0, 0, 4};  // one byte for a varint or a length
  return spelled(static_cast<char>(number * 8 + wireType) + std::string(sizes[wireType], '\0'));
}

ErrorLog::ErrorLog() : before_(google::protobuf::SetLogHandler(take)) {
  logged().clear();
}

ErrorLog::~ErrorLog() {
  google::protobuf::SetLogHandler(before_);
}

std::vector<std::string> ErrorLog::fields() const {
  std::vector<std::string> names;
  for (const std::string& message : logged()) {
    const std::size_t open = message.find('\'') + 1;
    names.push_back(message.substr(open, message.find('\'', open) - open));
  }
  return names;
}

}  // namespace wire
