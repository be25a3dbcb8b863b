#include "tests/module/grpc-gateway/config/config_fixture.h"

#include "tests/module/grpc-gateway/ModuleLog.h"

namespace gateway {
namespace {

template <class T>
std::vector<Meter<T>> valuesOf(const std::vector<MeterEntry<T>>& entries) {
  std::vector<Meter<T>> meters;
  for (const auto& entry : entries) {
    meters.push_back({entry.key, entry.customKey, entry.type, entry.defaultValue});
  }
  return meters;
}

std::vector<Param> valuesOf(const std::vector<EngineEntry>& entries) {
  std::vector<Param> params;
  for (const auto& entry : entries) params.push_back({entry.key, entry.customKey});
  return params;
}

Settings settingsOf(const ConfigManager& config) {
  return {config.metersTarget,
          config.enableFastMeters,
          config.enableSlowMeters,
          config.engineTarget,
          valuesOf(config.slowMeterStrings),
          valuesOf(config.slowMeterInts),
          valuesOf(config.slowMeterUints),
          valuesOf(config.slowMeterFloats),
          valuesOf(config.fastMeterStrings),
          valuesOf(config.fastMeterInts),
          valuesOf(config.fastMeterUints),
          valuesOf(config.fastMeterFloats),
          valuesOf(config.engineStrings),
          valuesOf(config.engineInts),
          valuesOf(config.engineUints),
          valuesOf(config.engineFloats),
          config.valid};
}

template <class T>
void print(std::ostream& out, const char* list, const std::vector<Meter<T>>& meters) {
  for (const auto& meter : meters) {
    out << "\n  " << list << ": \"" << meter.key << "\", \"" << meter.customKey << "\", type "
        << static_cast<std::uint32_t>(meter.type) << ", default " << meter.defaultValue;
  }
}

void print(std::ostream& out, const char* list, const std::vector<Param>& params) {
  for (const auto& param : params) {
    out << "\n  " << list << ": \"" << param.key << "\", \"" << param.customKey << '"';
  }
}

}  // namespace

void PrintTo(const Settings& settings, std::ostream* out) {
  *out << (settings.valid ? "valid" : "not valid") << ", meters at \"" << settings.metersTarget
       << "\", fast " << settings.enableFastMeters << ", slow " << settings.enableSlowMeters
       << ", engine at \"" << settings.engineTarget << '"';
  print(*out, "slowMeterStrings", settings.slowMeterStrings);
  print(*out, "slowMeterInts", settings.slowMeterInts);
  print(*out, "slowMeterUints", settings.slowMeterUints);
  print(*out, "slowMeterFloats", settings.slowMeterFloats);
  print(*out, "fastMeterStrings", settings.fastMeterStrings);
  print(*out, "fastMeterInts", settings.fastMeterInts);
  print(*out, "fastMeterUints", settings.fastMeterUints);
  print(*out, "fastMeterFloats", settings.fastMeterFloats);
  print(*out, "engineStrings", settings.engineStrings);
  print(*out, "engineInts", settings.engineInts);
  print(*out, "engineUints", settings.engineUints);
  print(*out, "engineFloats", settings.engineFloats);
}

void PrintTo(const Line& line, std::ostream* out) {
  *out << "\n  " << line.level << ' ' << line.text;
}

Settings ConfigTest::read(const std::string& text) {
  write("main.conf", text);
  return readPath("main.conf");
}

Settings ConfigTest::readPath(const std::string& path) {
  host_.clearRecords();
  return settingsOf(ConfigManager(path));
}

Lines ConfigTest::log() const {
  expectModuleLog(host_.log());
  Lines lines;
  for (const standin::LogLine& line : host_.log()) lines.push_back({line.level, line.text});
  return lines;
}

}  // namespace gateway
