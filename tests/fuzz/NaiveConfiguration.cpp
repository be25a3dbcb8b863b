#include "tests/fuzz/NaiveConfiguration.h"

#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <optional>
#include <set>
#include <utility>

#include "tests/ini/naive_reader.h"
#include "tests/shquote/naive_reader.h"

namespace fuzz {
namespace {

using Bytes = std::optional<std::string>;  // nullopt if a text is not a number of the type

std::string lower(std::string text) {
  for (char& byte : text) {
    if (byte >= 'A' && byte <= 'Z') byte = static_cast<char>(byte - 'A' + 'a');
  }
  return text;
}

bool beginsWith(const std::string& text, const std::string& beginning) {
  return text.compare(0, beginning.size(), beginning) == 0;
}

template <class T>
std::string bytesOf(const T& number) {
  return {reinterpret_cast<const char*>(&number), sizeof number};
}
std::string bytesOf(const std::string& text) {
  return text;
}

// ---- Numbers ------------------------------------------------------------------------------------

struct Whole {
  bool isNegative = false;
  std::uint64_t magnitude = 0;
  bool isTooLarge = false;  // for 64 bits
};

// The whole number at the beginning of the text, which may continue with anything.
std::optional<Whole> wholeIn(const std::string& text) {
  Whole number;
  std::size_t at = text.find_first_not_of(" \t\n\v\f\r");
  if (at == text.npos) return std::nullopt;
  if (text[at] == '-' || text[at] == '+') number.isNegative = text[at++] == '-';
  const std::size_t begin = at;
  for (; at < text.size() && text[at] >= '0' && text[at] <= '9'; ++at) {
    const auto digit = static_cast<std::uint64_t>(text[at] - '0');
    number.isTooLarge = number.isTooLarge || number.magnitude > (UINT64_MAX - digit) / 10;
    number.magnitude = number.magnitude * 10 + digit;
  }
  if (at == begin) return std::nullopt;
  return number;
}

Bytes intIn(const std::string& text) {
  const std::optional<Whole> number = wholeIn(text);
  if (!number || number->isTooLarge) return std::nullopt;
  const std::uint64_t most = number->isNegative ? 2147483648U : 2147483647U;
  if (number->magnitude > most) return std::nullopt;
  const auto magnitude = static_cast<std::int64_t>(number->magnitude);
  return bytesOf(static_cast<std::int32_t>(number->isNegative ? -magnitude : magnitude));
}

Bytes uintIn(const std::string& text) {
  const std::optional<Whole> number = wholeIn(text);
  if (!number || number->isTooLarge) return std::nullopt;
  const auto low = static_cast<std::uint32_t>(number->magnitude);
  return bytesOf(number->isNegative ? 0U - low : low);
}

Bytes floatIn(const std::string& text) {
  char* end = nullptr;
  errno = 0;
  const float number = std::strtof(text.c_str(), &end);
  if (end == text.c_str() || errno == ERANGE) return std::nullopt;
  return bytesOf(number);
}

Bytes defaultIn(const std::string& text, const std::string& type) {
  if (type == "int") return intIn(text);
  if (type == "uint") return uintIn(text);
  if (type == "float") return floatIn(text);
  return text;
}

// ---- Entries ------------------------------------------------------------------------------------

bool setField(NaiveEntry& entry, const std::string& name, const std::string& value,
              const std::string& type, bool isMeter) {
  if (name == "Key") {
    entry.key = value;
    return true;
  }
  if (name == "CustomKey") {
    entry.customKey = value;
    return true;
  }
  if (isMeter && name == "Type") {
    entry.isSlow = value == "slow";
    return value == "slow" || value == "fast";
  }
  if (!isMeter || name != "DefaultValue") return false;
  const Bytes bytes = defaultIn(value, type);
  if (bytes) entry.defaultValue = *bytes;
  return bytes.has_value();
}

std::optional<NaiveEntry> entryIn(const std::string& text, const std::string& type, bool isMeter) {
  NaiveEntry entry;
  if (isMeter && type != "string") entry.defaultValue = std::string(4, '\0');
  const Split split = naiveParseArgv(text);
  bool isGood = split.code == 0;
  for (const std::string& word : split.words) {
    const std::size_t equals = word.find('=');
    if (equals == word.npos || word[word.size() - 1] == '=') continue;
    const std::size_t next = word.find('=', equals + 1);
    const std::string value = word.substr(equals + 1, next - equals - 1);
    isGood = setField(entry, word.substr(0, equals), value, type, isMeter) && isGood;
  }
  if (!isGood) return std::nullopt;
  return entry;
}

template <class T>
NaiveEntry entryOf(const gateway::MeterEntry<T>& entry) {
  const bool isSlow = entry.type == gateway::MeterEntryType::Slow;
  return {entry.key, entry.customKey, isSlow, bytesOf(entry.defaultValue)};
}
NaiveEntry entryOf(const gateway::EngineEntry& entry) {
  return {.key = entry.key, .customKey = entry.customKey};
}

template <class Entry>
std::vector<NaiveEntry> entriesOf(const std::vector<Entry>& list) {
  std::vector<NaiveEntry> entries;
  for (const Entry& entry : list) entries.push_back(entryOf(entry));
  return entries;
}

}  // namespace

// ---- Files --------------------------------------------------------------------------------------

class NaiveConfiguration::Reading {
 public:
  Reading(NaiveConfiguration& config, const Files& files) : config_(config), files_(files) {}

  bool read(std::string_view path) {
    const std::string* const text = files_(path);
    if (text == nullptr) return false;
    const auto take = [this](const ini::conformance::Pair& pair) { return takePair(pair); };
    return NaiveIniReader::read(*text, take) == 0;
  }

 private:
  bool takePair(const ini::conformance::Pair& pair) {
    const std::string section = lower(pair.section);
    const std::string name = lower(pair.name);
    if (section == "meters") return takeMeters(name, pair.value);
    if (section == "engine" && name == "target") config_.engineTarget_ = pair.value;
    if (section == "engine") return name == "target";
    for (const std::string type : {"string", "int", "uint", "float"}) {
      if (section == "meters" + type) return name == "meter" && add(pair.value, type, true);
      if (section == "engine" + type) return name == "param" && add(pair.value, type, false);
    }
    const std::string condition = "ParseIfExist:";
    if (!beginsWith(pair.section, condition)) return false;
    const std::string path = pair.section.substr(condition.size());
    const bool exists = files_(path) != nullptr || access(path.c_str(), F_OK) == 0;
    if (exists && name == "file") read(pair.value);
    return true;
  }

  bool takeMeters(const std::string& name, const std::string& value) {
    if (name == "target") {
      config_.metersTarget_ = value;
    } else if (name == "enablefastmeters") {
      config_.fast_ = lower(value) == "true";
    } else if (name == "enableslowmeters") {
      config_.slow_ = lower(value) == "true";
    } else {
      return false;
    }
    return true;
  }

  bool add(const std::string& text, const std::string& type, bool isMeter) {
    const std::optional<NaiveEntry> entry = entryIn(text, type, isMeter);
    if (!entry) return false;
    const std::string rate = !isMeter ? "engine " : entry->isSlow ? "slow " : "fast ";
    config_.lists_[rate + type].push_back(*entry);
    return true;
  }

  NaiveConfiguration& config_;
  const Files& files_;
};

// ---- Checks on the whole ------------------------------------------------------------------------

NaiveConfiguration::NaiveConfiguration(const Files& files, std::string_view mainPath) {
  const bool isGood = Reading(*this, files).read(mainPath);
  isValid_ = isGood && isSound();
}

bool NaiveConfiguration::isSound() const {
  bool hasMeters = false;
  bool hasParameters = false;
  for (const auto& [name, entries] : lists_) {
    (beginsWith(name, "engine") ? hasParameters : hasMeters) = true;
    std::set<std::string> keys;
    for (const NaiveEntry& entry : entries) {
      keys.insert(entry.key);
      if (entry.key.empty() || entry.customKey.size() > 99) return false;
    }
    if (keys.size() != entries.size()) return false;
  }
  if (engineTarget_.empty() && hasParameters) return false;
  return metersTarget_.empty() ? !fast_ && !slow_ && !hasMeters : fast_ || slow_;
}

NaiveConfiguration::NaiveConfiguration(const gateway::ConfigManager& config)
    : metersTarget_(config.metersTarget),
      engineTarget_(config.engineTarget),
      fast_(config.enableFastMeters),
      slow_(config.enableSlowMeters),
      lists_{{"slow string", entriesOf(config.slowMeterStrings)},
             {"slow int", entriesOf(config.slowMeterInts)},
             {"slow uint", entriesOf(config.slowMeterUints)},
             {"slow float", entriesOf(config.slowMeterFloats)},
             {"fast string", entriesOf(config.fastMeterStrings)},
             {"fast int", entriesOf(config.fastMeterInts)},
             {"fast uint", entriesOf(config.fastMeterUints)},
             {"fast float", entriesOf(config.fastMeterFloats)},
             {"engine string", entriesOf(config.engineStrings)},
             {"engine int", entriesOf(config.engineInts)},
             {"engine uint", entriesOf(config.engineUints)},
             {"engine float", entriesOf(config.engineFloats)}},
      isValid_(config.valid) {
  std::erase_if(lists_, [](const auto& list) { return list.second.empty(); });
}

}  // namespace fuzz
