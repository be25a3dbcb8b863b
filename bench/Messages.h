// Meter messages that are serialised once and differ only in their sequence number, which is
// written into the bytes.
#pragma once

#include <cstdint>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>

#include "meters.pb.h"

namespace bench {

class Messages {
 public:
  // The file has a line "TYPE KEY" for each value of a message. TYPE is float, int, uint or string,
  // and KEY may have blanks. The first value is a float: the sequence number of the message,
  // counted from 1. The other values are arbitrary. Throws std::runtime_error.
  explicit Messages(const std::string& path) {
    sonalith::grpc::Meter meter;
    std::ifstream lines(path);
    for (std::string type, key; lines >> type && std::getline(lines >> std::ws, key);) {
      add(meter, type, key);
    }
    bytes_ = meter.SerializeAsString();
    position_ = bytes_.find(std::string(reinterpret_cast<const char*>(&mark), sizeof mark));
    if (position_ == std::string::npos) throw std::runtime_error("no float value in " + path);
  }

  std::size_t size() const { return bytes_.size(); }

  // Writes size() bytes.
  void write(char* to, std::uint64_t sequence) const {
    std::memcpy(to, bytes_.data(), bytes_.size());
    const auto number = static_cast<float>(sequence);
    std::memcpy(to + position_, &number, sizeof number);
  }

 private:
  static constexpr float mark = -1234567.875f;

  static void add(sonalith::grpc::Meter& meter, const std::string& type, const std::string& key) {
    const int position = meter.values_size();
    auto& item = *meter.add_values();
    item.set_key(key);
    auto& value = *item.mutable_value();
    if (type == "float") value.set_sfloat(position == 0 ? mark : static_cast<float>(position));
    if (type == "int") value.set_sint(-position);
    if (type == "uint") value.set_suint(static_cast<std::uint32_t>(position));
    if (type == "string") value.mutable_sstring()->set_data("value " + std::to_string(position));
  }

  std::string bytes_;
  std::size_t position_;
};

}  // namespace bench
