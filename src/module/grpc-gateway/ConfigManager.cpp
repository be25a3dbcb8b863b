#include "module/grpc-gateway/ConfigManager.h"

#include <ini.h>
#include <locale.h>
#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <type_traits>

#include "module/grpc-gateway/HostAccess.h"
#include "shquote/shquote.h"

namespace gateway {
namespace {

constexpr char defaultPath[] = "/etc/sonalith/grpc-gateway.conf";
constexpr int maximumCustomKeySize = SONALITH_SLOT_TEXT_SIZE - 1;

bool sameName(const char* a, const char* b) {
  return strcasecmp(a, b) == 0;
}

// ---- Entry values: "Key=a Type=slow" ----------------------------------------------------------

struct Field {
  std::string name;
  std::string value;
};

// A word without "=", or one that ends with it, has no field. Text after a second "=" is dropped.
std::optional<Field> splitWord(std::string_view word) {
  const std::size_t equals = word.find('=');
  if (equals == std::string_view::npos || word.back() == '=') return std::nullopt;
  const std::string_view rest = word.substr(equals + 1);
  return Field{std::string(word.substr(0, equals)), std::string(rest.substr(0, rest.find('=')))};
}

struct FreeBlock {
  void operator()(char** block) const { std::free(block); }
};

// Calls `apply` for every field, even after one fails, so that one line reports all its faults.
// Returns whether all were good.
template <class Apply>
bool applyFields(const char* value, Apply apply) {
  constexpr std::size_t maximumWords = 2147483646;
  char** words = nullptr;
  std::size_t count = 0;
  const int result = c_shquote_parse_argv(&words, &count, value, std::strlen(value));
  const std::unique_ptr<char*, FreeBlock> block(words);
  if (result != 0 || count > maximumWords) {
    GATEWAY_LOG(SONALITH_LOG_ERROR, "error in c_shquote_parse_argv");
    return false;
  }
  bool ok = true;
  for (std::size_t i = 0; i < count; ++i) {
    const std::optional<Field> field = splitWord(words[i]);
    if (field && !apply(*field)) ok = false;
  }
  return ok;
}

template <class Entry>
bool setName(Entry& entry, const Field& field) {
  if (field.name == "Key") {
    entry.key = field.value;
  } else if (field.name == "CustomKey") {
    entry.customKey = field.value;
  } else {
    return false;
  }
  return true;
}

bool setType(MeterEntryType& type, const std::string& value) {
  if (value == "fast") {
    type = MeterEntryType::Fast;
  } else if (value == "slow") {
    type = MeterEntryType::Slow;
  } else {
    GATEWAY_LOG(SONALITH_LOG_FAULT, "unknown meter type %s while parsing meter entry",
                value.c_str());
    return false;
  }
  return true;
}

void convert(const std::string& text, std::int32_t& value) {
  value = std::stoi(text);
}

// As std::stof does in the locale "C": a decimal comma in the host's locale changes no number.
void convert(const std::string& text, float& value) {
  const std::unique_ptr<std::remove_pointer_t<locale_t>, void (*)(locale_t)> plain(
      newlocale(LC_ALL_MASK, "C", nullptr), freelocale);
  char* end = nullptr;
  errno = 0;
  value = strtof_l(text.c_str(), &end, plain.get());
  if (end == text.c_str()) throw std::invalid_argument(text);
  if (errno == ERANGE) throw std::out_of_range(text);
}

// Keeps the low 32 bits: "-1" becomes the largest value, "4294967296" becomes 0.
void convert(const std::string& text, std::uint32_t& value) {
  value = static_cast<std::uint32_t>(std::stoul(text));
}

template <class T>
bool setDefault(T& defaultValue, const std::string& text) {
  try {
    convert(text, defaultValue);
    return true;
  } catch (const std::exception&) {
    GATEWAY_LOG(SONALITH_LOG_FAULT, "could not convert value %s as default value", text.c_str());
    return false;
  }
}

bool setDefault(std::string& defaultValue, const std::string& text) {
  defaultValue = text;
  return true;
}

template <class T>
bool setMeterField(MeterEntry<T>& entry, const Field& field) {
  if (setName(entry, field)) return true;
  if (field.name == "Type") return setType(entry.type, field.value);
  if (field.name == "DefaultValue") return setDefault(entry.defaultValue, field.value);
  GATEWAY_LOG(SONALITH_LOG_FAULT, "unknown key %s while parsing meter entry", field.name.c_str());
  return false;
}

bool setEngineField(EngineEntry& entry, const Field& field) {
  if (setName(entry, field)) return true;
  GATEWAY_LOG(SONALITH_LOG_FAULT, "unknown key %s while parsing engine entry", field.name.c_str());
  return false;
}

void logUnsupportedType() {
// This text has always been logged with a "%d" and no argument; people search for it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat"
  GATEWAY_LOG(SONALITH_LOG_ERROR, "unsupported meter type for entry %d");
#pragma GCC diagnostic pop
}

template <class T>
bool parseMeterEntry(const char* value, std::vector<MeterEntry<T>>& slow,
                     std::vector<MeterEntry<T>>& fast) {
  MeterEntry<T> entry;
  if (!applyFields(value, [&](const Field& field) { return setMeterField(entry, field); })) {
    return false;
  }
  switch (entry.type) {
    case MeterEntryType::Slow:
      slow.push_back(std::move(entry));
      return true;
    case MeterEntryType::Fast:
      fast.push_back(std::move(entry));
      return true;
  }
  logUnsupportedType();
  return false;
}

bool parseEngineEntry(const char* value, EngineEntry& entry) {
  return applyFields(value, [&](const Field& field) { return setEngineField(entry, field); });
}

// ---- Sections -----------------------------------------------------------------------------------

// "yes", "1" and the empty value are false, too.
bool isTrue(const char* value) {
  return sameName(value, "true");
}

bool handleMeters(ConfigManager& config, const char* name, const char* value) {
  if (sameName(name, "Target")) {
    config.metersTarget = value;
  } else if (sameName(name, "EnableFastMeters")) {
    config.enableFastMeters = isTrue(value);
  } else if (sameName(name, "EnableSlowMeters")) {
    config.enableSlowMeters = isTrue(value);
  } else {
    GATEWAY_LOG(SONALITH_LOG_ERROR, "unknown field %s in Meters section", name);
    return false;
  }
  return true;
}

bool handleEngine(ConfigManager& config, const char* name, const char* value) {
  if (!sameName(name, "Target")) {
    GATEWAY_LOG(SONALITH_LOG_ERROR, "unknown field %s in Engine section", name);
    return false;
  }
  config.engineTarget = value;
  return true;
}

template <class T>
bool handleMeterEntries(ConfigManager& config, const char* name, const char* value) {
  if (!sameName(name, "Meter")) {
    GATEWAY_LOG(SONALITH_LOG_ERROR, "unknown field %s in meter entry section", name);
    return false;
  }
  return parseMeterEntry(value, config.*ListsOf<T>::slowMeters, config.*ListsOf<T>::fastMeters);
}

// Also reports a wrong key in a dedicated-file section, as if it were in an engine section.
bool refuseEngineField(const char* name) {
  GATEWAY_LOG(SONALITH_LOG_ERROR, "unknown field %s in engine entry section", name);
  return false;
}

template <class T>
bool handleEngineEntries(ConfigManager& config, const char* name, const char* value) {
  if (!sameName(name, "Param")) return refuseEngineField(name);
  EngineEntry entry;
  if (!parseEngineEntry(value, entry)) return false;
  (config.*ListsOf<T>::params).push_back(std::move(entry));
  return true;
}

using SectionHandler = bool (*)(ConfigManager& config, const char* name, const char* value);

// Null for an unknown section.
SectionHandler handlerOf(const char* section) {
  if (sameName(section, "Meters")) return handleMeters;
  if (sameName(section, "Engine")) return handleEngine;
  SectionHandler handler = nullptr;
  visitValueTypes([&]<class T>() {
    const ValueTypeRow& row = rowOf(ListsOf<T>::type);
    if (sameName(section, row.meterSection)) handler = handleMeterEntries<T>;
    if (sameName(section, row.paramSection)) handler = handleEngineEntries<T>;
    return handler == nullptr;
  });
  return handler;
}

constexpr char ifExistPrefix[] = "ParseIfExist:";
constexpr std::size_t ifExistPrefixSize = sizeof(ifExistPrefix) - 1;

int configHandler(void* user, const char* section, const char* name, const char* value);

bool handleIfExist(void* user, const char* name, const char* value) {
  if (!sameName(name, "File")) return refuseEngineField(name);
  GATEWAY_LOG(SONALITH_LOG_TRACE, "subparsing file '%s' as requested", value);
  return ini_parse(value, configHandler, user) == 0;
}

// A fault in a dedicated file never invalidates the file that names it.
void handleIfExistSection(void* user, const char* path, const char* name, const char* value) {
  if (*path == '\0' || access(path, F_OK) != 0) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "file '%s' not exist, so not parsing dedicated file", path);
    return;
  }
  const bool result = handleIfExist(user, name, value);
  GATEWAY_LOG(SONALITH_LOG_TRACE, "ret from handle if exist: %d", result ? 1 : 0);
}

// Called by the reader for each pair. Returning 0 marks the line as bad; reading continues.
int configHandler(void* user, const char* section, const char* name, const char* value) {
  ConfigManager& config = *static_cast<ConfigManager*>(user);
  if (const SectionHandler handle = handlerOf(section)) return handle(config, name, value) ? 1 : 0;
  if (std::strncmp(section, ifExistPrefix, ifExistPrefixSize) == 0) {
    handleIfExistSection(user, section + ifExistPrefixSize, name, value);
    return 1;
  }
  GATEWAY_LOG(SONALITH_LOG_ERROR, "unknown section %s in grpc gateway configuration file", section);
  return 0;
}

// ---- Verification -------------------------------------------------------------------------------

bool hasMeters(const ConfigManager& config) {
  const auto isEmpty = [](const auto& list) { return list.empty(); };
  return !visitMeters(config, MeterEntryType::Slow, isEmpty) ||
         !visitMeters(config, MeterEntryType::Fast, isEmpty);
}

bool hasEngineParameters(const ConfigManager& config) {
  return !visitParams(config, []<class>(const auto& list) { return list.empty(); });
}

bool verifyMetersSettings(const ConfigManager& config) {
  const bool anyRate = config.enableFastMeters || config.enableSlowMeters;
  if (!config.metersTarget.empty()) {
    if (anyRate) return true;
    GATEWAY_LOG(SONALITH_LOG_FAULT, "at least one meter type must be enabled");
  } else if (anyRate) {
    GATEWAY_LOG(SONALITH_LOG_FAULT, "meters target can't be empty if fast or slow meters are set");
  } else if (hasMeters(config)) {
    GATEWAY_LOG(SONALITH_LOG_FAULT, "meters target can't be empty is some meters are set");
  } else {
    return true;
  }
  return false;
}

bool verifyEngineSettings(const ConfigManager& config) {
  if (!config.engineTarget.empty() || !hasEngineParameters(config)) return true;
  GATEWAY_LOG(SONALITH_LOG_FAULT, "engine target can't be empty is some engine parameters are set");
  return false;
}

template <class T>
void logEmptyKey(const MeterEntry<T>&) {
  GATEWAY_LOG(SONALITH_LOG_FAULT, "MeterEntry Key field can't be empty");
}

void logEmptyKey(const EngineEntry&) {
  GATEWAY_LOG(SONALITH_LOG_FAULT, "EngineEntry Key field can't be empty");
}

// Doesn't log which key is repeated; only the summary of the stage reports the repetition.
template <class Entry>
bool verifyEntries(const std::vector<Entry>& entries) {
  std::vector<std::string_view> keys;
  keys.reserve(entries.size());
  for (const Entry& entry : entries) {
    keys.push_back(entry.key);
    if (entry.key.empty()) {
      logEmptyKey(entry);
      return false;
    }
    if (entry.customKey.size() > maximumCustomKeySize) {
      GATEWAY_LOG(SONALITH_LOG_FAULT, "MeterEntry CustomKey maximum size is %d",
                  maximumCustomKeySize);
      return false;
    }
  }
  std::sort(keys.begin(), keys.end());
  return std::adjacent_find(keys.begin(), keys.end()) == keys.end();
}

template <class T>
bool verifyMeterEntries(std::vector<MeterEntry<T>> entries) {
  return verifyEntries(entries);
}

bool verifyEngineEntries(const std::vector<EngineEntry>& entries) {
  return verifyEntries(entries);
}

bool verifyMeterLists(const ConfigManager& config) {
  const auto isSound = [](const auto& list) { return verifyMeterEntries(list); };
  return visitMeters(config, MeterEntryType::Slow, isSound) &&
         visitMeters(config, MeterEntryType::Fast, isSound);
}

bool verifyEngineLists(const ConfigManager& config) {
  return visitParams(config, []<class>(const auto& list) { return verifyEngineEntries(list); });
}

// Runs every stage, so that one start reports the faults of all of them.
bool verify(const ConfigManager& config) {
  bool sound = true;
  if (!verifyMetersSettings(config)) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "Meters settings verification failed!");
    sound = false;
  }
  if (!verifyEngineSettings(config)) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "Engine settings verification failed!");
    sound = false;
  }
  if (!verifyMeterLists(config)) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "MeterEntry string settings verification failed!");
    sound = false;
  }
  if (!verifyEngineLists(config)) {
    GATEWAY_LOG(SONALITH_LOG_TRACE, "EngineEntry string settings verification failed!");
    sound = false;
  }
  return sound;
}

}  // namespace

ConfigManager::ConfigManager(const std::string& path) {
  const char* const file = path.empty() ? defaultPath : path.c_str();
  const int result = ini_parse(file, configHandler, this);
  if (result == 0) {
    valid = verify(*this);
  } else {
    GATEWAY_LOG(SONALITH_LOG_FAULT, "configManager: problem parsing %s (%d)", file, result);
    valid = false;
  }
}

}  // namespace gateway
