// Every log call of the module. Integrators search logs for these texts, so each format is fixed,
// and so are its level and the source that logs it.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "standin/Host.h"

struct ModuleLogCall {
  std::string_view source;  // file name without its ending
  int level;
  std::string_view format;

  bool operator==(const ModuleLogCall&) const = default;
};

inline constexpr ModuleLogCall moduleLogCalls[] = {
    {"grpc-gateway-module", 1, "%s(%s, %p)"},
    {"grpc-gateway-module", 1, "%s(%s)"},
    {"grpc-gateway-module", 1, "gatewayConfigPath: %s"},
    {"grpc-gateway-module", 3, "gRPC gateway configuration is not valid!"},
    {"grpc-gateway-module", 4, "gRPC gateway module error starting"},
    {"grpc-gateway-module", 3, "grpc-gateway: destroying module manager.."},
    {"grpc-gateway-module", 1, "C++ exception in grpc gateway: %s"},  // in a notification
    {"grpc-gateway-module", 3, "C++ exception in grpc gateway: %s"},  // in a start or stop

    {"ConfigManager", 3, "configManager: problem parsing %s (%d)"},
    {"ConfigManager", 4, "unknown section %s in grpc gateway configuration file"},
    {"ConfigManager", 4, "unknown field %s in Meters section"},
    {"ConfigManager", 4, "unknown field %s in Engine section"},
    {"ConfigManager", 4, "unknown field %s in meter entry section"},
    {"ConfigManager", 4, "unknown field %s in engine entry section"},
    {"ConfigManager", 1, "file '%s' not exist, so not parsing dedicated file"},
    {"ConfigManager", 1, "subparsing file '%s' as requested"},
    {"ConfigManager", 1, "ret from handle if exist: %d"},
    {"ConfigManager", 4, "error in c_shquote_parse_argv"},
    {"ConfigManager", 3, "unknown meter type %s while parsing meter entry"},
    {"ConfigManager", 3, "could not convert value %s as default value"},
    {"ConfigManager", 3, "unknown key %s while parsing meter entry"},
    {"ConfigManager", 3, "unknown key %s while parsing engine entry"},
    {"ConfigManager", 4, "unsupported meter type for entry %d"},  // never reached
    {"ConfigManager", 3, "meters target can't be empty if fast or slow meters are set"},
    {"ConfigManager", 3, "meters target can't be empty is some meters are set"},
    {"ConfigManager", 3, "at least one meter type must be enabled"},
    {"ConfigManager", 3, "engine target can't be empty is some engine parameters are set"},
    {"ConfigManager", 3, "MeterEntry Key field can't be empty"},
    {"ConfigManager", 3, "EngineEntry Key field can't be empty"},
    {"ConfigManager", 3, "MeterEntry CustomKey maximum size is %d"},  // of both kinds of entry
    {"ConfigManager", 1, "Meters settings verification failed!"},
    {"ConfigManager", 1, "Engine settings verification failed!"},
    {"ConfigManager", 1, "MeterEntry string settings verification failed!"},
    {"ConfigManager", 1, "EngineEntry string settings verification failed!"},

    {"gRPCGatewayClient", 1, "Start gRPC Gateway Client"},
    {"gRPCGatewayClient", 1, "gRPC Client already running!"},
    {"gRPCGatewayClient", 1, "Start gRPC complete"},
    {"gRPCGatewayClient", 2, "Starting fast meter request on %s"},
    {"gRPCGatewayClient", 2, "Starting slow meter request on %s"},
    {"gRPCGatewayClient", 2, "Create stub for engine RPCs on %s"},
    {"gRPCGatewayClient", 3, "exception while converting list: %s"},
    {"gRPCGatewayClient", 1, "C++ exception in %s(): %s"},
    {"gRPCGatewayClient", 1, "Stop gRPC Gateway client"},
    {"gRPCGatewayClient", 1, "gRPC GatewayClient already stopped!"},
    {"gRPCGatewayClient", 1, "Stop gRPC Gateway complete"},
    {"gRPCGatewayClient", 1, "Destructing gRPC gateway client singleton"},
    {"gRPCGatewayClient", 1, "Shutting down completion queue"},
    {"gRPCGatewayClient", 1, "Starting completion queue flush"},
    {"gRPCGatewayClient", 1, "Flushing tag %p"},
    {"gRPCGatewayClient", 1, "Completion queue flush ended"},

    {"AsyncMetersPayload", 1, "%s() %s"},
};

// Expects that each line comes from one of these calls, whatever its text is, and that no two
// formats come from the same line of a source.
inline void expectModuleLog(const std::vector<standin::LogLine>& lines) {
  constexpr std::string_view folder = "src/module/grpc-gateway/";
  constexpr std::string_view ending = ".cpp";
  std::map<std::pair<std::string, int>, std::string> formatAt;
  for (const standin::LogLine& line : lines) {
    const std::string_view file = line.file;
    ASSERT_TRUE(file.starts_with(folder) && file.ends_with(ending)) << file;
    const ModuleLogCall call{
        file.substr(folder.size(), file.size() - folder.size() - ending.size()), line.level,
        line.format};
    EXPECT_NE(std::find(std::begin(moduleLogCalls), std::end(moduleLogCalls), call),
              std::end(moduleLogCalls))
        << "unknown log call: " << file << ", level " << line.level << ", \"" << line.format
        << "\", which wrote \"" << line.text << '"';
    const auto& known = formatAt.try_emplace({line.file, line.line}, line.format).first->second;
    EXPECT_EQ(line.format, known) << "both are logged in line " << line.line << " of " << file;
    EXPECT_GT(line.line, 0) << line.text;
    EXPECT_EQ(line.one, 1) << line.text;
  }
}
