// What holds in the whole tree: includes point downward only, every source is built, and nothing is
// left for later.
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <set>
#include <sstream>
#include <string>
#include <string_view>
#include <vector>

#include "tests/support/FileText.h"

namespace {

namespace fs = std::filesystem;

const fs::path root = SOURCE_FOLDER;

// The files in a folder, as paths relative to the project's root.
std::vector<std::string> filesIn(const std::string& folder,
                                 const std::set<std::string>& endings = {".h", ".cpp", ".c"}) {
  std::vector<std::string> files;
  for (const auto& entry : fs::recursive_directory_iterator(root / folder)) {
    const std::string path = entry.path();
    const bool isForeign = path.find("/corpus/") != path.npos ||
                           path.find("/cases/") != path.npos || path.ends_with("-lock.json") ||
                           path.find("/node_modules/") != path.npos ||
                           path.find("/__pycache__/") != path.npos;
    if (!entry.is_regular_file() || isForeign) continue;
    const bool wanted = endings.empty() || endings.contains(entry.path().extension());
    if (wanted) files.push_back(fs::relative(entry.path(), root));
  }
  return files;
}

std::vector<std::string> includesOf(const std::string& file) {
  constexpr std::string_view directive = "#include ";
  std::istringstream text(textOf(root / file));
  std::vector<std::string> names;
  for (std::string line; std::getline(text, line);) {
    if (!line.starts_with(directive)) continue;
    const std::size_t begin = directive.size() + 1;  // after the quote or bracket
    names.push_back(line.substr(begin, line.find_first_of("\">", begin) - begin));
  }
  return names;
}

// A room of the tree: the files whose paths begin with its name.
struct Room {
  std::string name;
  std::set<std::string> mayInclude;  // rooms besides itself
};

const std::string module = "src/module/grpc-gateway/";
const std::string anything = "*";

// From the lowest floor up. A file belongs to the first room whose name begins its path.
const std::vector<Room> rooms = {
    // The boundary, the readers and the wire do not know each other.
    {"src/host/", {}},
    {"src/shquote/", {}},
    {"src/ini/", {}},
    {"src/sanitizers/", {}},
    {"proto/", {}},
    // The module.
    {module + "HostAccess", {"src/host/"}},
    {module + "TextBlock", {}},
    {module + "ValueType", {"src/host/"}},
    {module + "ConfigManager",
     {"src/host/", "src/shquote/", "src/ini/", module + "HostAccess", module + "ValueType"}},
    {module + "GatewaySlots", {"src/host/", module + "ConfigManager"}},
    {module + "KeyTags", {module + "TextBlock"}},
    {module + "MeterListCopy",
     {module + "ConfigManager", module + "KeyTags", module + "TextBlock"}},
    {module + "EngineListCopy", {module + "ConfigManager", module + "TextBlock"}},
    {module + "ParamConversion", {"src/host/", "proto/", module + "HostAccess"}},
    {module + "Async",
     {"src/host/", "proto/", module + "HostAccess", module + "ConfigManager",
      module + "MeterListCopy"}},
    {module + "gRPCGatewayClient",
     {"src/host/", "proto/", module + "HostAccess", module + "ConfigManager",
      module + "GatewaySlots", module + "ParamConversion", module + "Async"}},
    {module + "grpc-gateway-module",
     {"src/host/", module + "HostAccess", module + "ConfigManager", module + "EngineListCopy",
      module + "GatewaySlots", module + "gRPCGatewayClient"}},
    // The stand-in knows the module only as a file to load, through the boundary.
    {"src/standin/", {"src/host/"}},
    // Sub-commands do not know each other, except for `top` and `lsp`; what they share is below
    // them.
    {"tools/common/",
     {"src/host/", "src/shquote/", "src/ini/", "src/sanitizers/", "src/standin/", "proto/",
      module + "ValueType", module + "ConfigManager", module + "GatewaySlots"}},
    {"tools/recording/", {"src/standin/", "tools/common/"}},
    {"tools/sim/",
     {"proto/", "src/sanitizers/", "src/standin/", module + "ConfigManager", module + "ValueType",
      "tools/common/", "tools/recording/"}},
    {"tools/host/",
     {"src/host/", "src/standin/", module + "ConfigManager", module + "ValueType", "tools/common/",
      "tools/recording/"}},
    {"tools/check/",
     {"src/host/", "src/shquote/", "src/standin/", module + "ConfigManager", module + "ValueType",
      "tools/common/", "tools/recording/"}},
    {"tools/discover/",
     {"src/host/", "src/standin/", module + "ValueType", "tools/common/", "tools/recording/"}},
    {"tools/record/", {"proto/", "src/standin/", "tools/common/", "tools/recording/"}},
    {"tools/probe/",
     {"proto/", "src/sanitizers/", "src/standin/", module + "ValueType", "tools/common/"}},
    // Runs the module as `host` does, with another view of it.
    {"tools/top/",
     {"src/host/", "src/standin/", module + "ValueType", "tools/common/", "tools/host/"}},
    // Judges as `check` does, with another view of it.
    {"tools/lsp/", {"src/standin/", "tools/common/", "tools/check/"}},
    {"tools/demo/", {"src/standin/", "tools/common/"}},
    {"tools/manual/", {"tools/common/"}},
    {"tools/gatewayctl",
     {"tools/sim/", "tools/host/", "tools/check/", "tools/discover/", "tools/demo/", "tools/lsp/",
      "tools/manual/", "tools/probe/", "tools/record/", "tools/top/", "tools/common/"}},
    // Measures a part of a tool.
    {"bench/bench-relay", {"tools/sim/"}},
    // The other benchmarks must not depend on tools or tests.
    {"bench/",
     {"src/host/", "proto/", "src/standin/", module + "ConfigManager", module + "GatewaySlots",
      module + "MeterListCopy", module + "EngineListCopy"}},
    // Tests include whatever they test; only tests include tests.
    {"tests/support/", {"proto/", "src/host/", "src/standin/", "src/sanitizers/", "tools/common/"}},
    {"tests/", {anything}},
};

const Room* roomOf(const std::string& path) {
  for (const Room& room : rooms) {
    if (path.starts_with(room.name)) return &room;
  }
  return nullptr;
}

bool mayInclude(const Room& room, const std::string& target) {
  const Room* const other = roomOf(target);
  if (other == &room || room.mayInclude.contains(anything)) return true;
  return other != nullptr && room.mayInclude.contains(other->name);
}

// The project file that an include names; empty for a library's header.
std::string targetOf(const std::string& include) {
  if (include == "ini.h") return "src/ini/ini.h";
  if (include.find('/') == include.npos && include.ends_with(".pb.h")) return "proto/" + include;
  for (const char* folder : {"src/", ""}) {
    if (fs::exists(root / (folder + include))) return folder + include;
  }
  return "";
}

TEST(Style, IncludesPointDownwardOnly) {
  std::size_t arrows = 0;
  for (const char* folder : {"src", "tools", "bench", "tests"}) {
    for (const std::string& file : filesIn(folder)) {
      const Room* const room = roomOf(file);
      ASSERT_NE(room, nullptr) << file << " belongs to no room: add one above";
      for (const std::string& include : includesOf(file)) {
        const std::string target = targetOf(include);
        if (target.empty()) continue;
        EXPECT_TRUE(mayInclude(*room, target)) << file << " includes " << target;
        ++arrows;
      }
    }
  }
  EXPECT_GT(arrows, 500u);
}

// The live page's modules, from the lowest up: each may import those before it.
const std::vector<std::string> pageModules = {
    "worker", "stream", "browser",    "clock", "title",   "address",  "format",   "history",
    "rules",  "slot",   "csv",        "theme", "dialogs", "tooltips", "settings", "past",
    "trace",  "plot",   "parameters", "row",   "rows",    "filter",   "sorting",  "table",
    "status", "log",    "link",       "links", "main"};

TEST(Style, ThePagesModulesImportDownwardOnly) {
  const std::string folder = "tools/host/page/";
  std::size_t imports = 0;
  for (const std::string& file : filesIn(folder, {".js"})) {
    const auto own = std::find(pageModules.begin(), pageModules.end(), fs::path(file).stem());
    ASSERT_NE(own, pageModules.end()) << file << " has no place: add one above";
    const std::string text = textOf(root / file);
    for (auto other = pageModules.begin(); other != pageModules.end(); ++other) {
      if (text.find("from \"./" + *other + ".js\";") == text.npos) continue;
      EXPECT_LT(other, own) << file << " imports " << *other;
      ++imports;
    }
  }
  EXPECT_GT(imports, 20u);
}

// The payloads are the lowest rooms that use gRPC.
TEST(Style, NothingBelowThePayloadsUsesGrpc) {
  for (const char* name : {"ConfigManager", "GatewaySlots", "HostAccess", "MeterListCopy",
                           "EngineListCopy", "TextBlock", "ValueType"}) {
    for (const char* ending : {".h", ".cpp"}) {
      const std::string file = module + name + ending;
      if (!fs::exists(root / file)) continue;
      for (const std::string& include : includesOf(file)) {
        EXPECT_FALSE(include.starts_with("grpc")) << file << " includes " << include;
      }
    }
  }
}

TEST(Style, EverySourceIsBuilt) {
  for (const char* folder : {"src", "tools", "tests", "bench"}) {
    std::string lists;
    for (const std::string& list : filesIn(folder, {".txt"})) lists += textOf(root / list);
    lists += textOf(root / "cmake/Inih.cmake");
    for (const std::string& file : filesIn(folder, {".cpp", ".c"})) {
      EXPECT_NE(lists.find(fs::path(file).filename().string()), lists.npos)
          << file << " is named in no CMakeLists.txt of " << folder;
    }
  }
}

TEST(Style, EveryHeaderIsIncluded) {
  std::set<std::string> included;
  std::vector<std::string> headers;
  for (const char* folder : {"src", "tools", "tests", "bench"}) {
    for (const std::string& file : filesIn(folder, {})) {
      for (const std::string& include : includesOf(file)) {
        included.insert(fs::path(include).filename());
      }
    }
    for (const std::string& header : filesIn(folder, {".h"})) headers.push_back(header);
  }
  for (const std::string& header : headers) {
    EXPECT_TRUE(included.contains(fs::path(header).filename())) << header;
  }
}

TEST(Style, HeadersBeginWithTheirRoleAndNeverUseANamespace) {
  for (const char* folder : {"src", "tools", "tests", "bench"}) {
    for (const std::string& header : filesIn(folder, {".h"})) {
      const std::string text = textOf(root / header);
      EXPECT_TRUE(text.starts_with("//") || text.starts_with("/*")) << header;
      EXPECT_EQ(text.find("using namespace"), text.npos) << header;
    }
  }
}

// Concatenated, so that the test does not find the marks in this file.
TEST(Style, NoMarkOfUnfinishedWorkRemains) {
  const std::vector<std::string> marks = {std::string("TO") + "DO", std::string("FIX") + "ME",
                                          std::string("DISA") + "BLED_",
                                          std::string("GTEST_") + "SKIP"};
  for (const char* folder :
       {"src", "tools", "tests", "bench", "proto", "scripts", "cmake", "examples"}) {
    for (const std::string& file : filesIn(folder, {})) {
      const std::string text = textOf(root / file);
      for (const std::string& mark : marks) {
        EXPECT_EQ(text.find(mark), text.npos) << file << " holds " << mark;
      }
    }
  }
}

TEST(Style, LinesHaveAtMost100ColumnsAndNoTrailingBlanks) {
  for (const char* folder :
       {"src", "tools", "tests", "bench", "proto", "scripts", "cmake", "examples"}) {
    for (const std::string& file : filesIn(folder, {})) {
      std::istringstream text(textOf(root / file));
      int number = 0;
      for (std::string line; std::getline(text, line);) {
        ++number;
        const bool holdsFaults = file.starts_with("tests/mutants/rules/");  // in one line each
        EXPECT_TRUE(line.size() <= 100 || holdsFaults) << file << ":" << number;
        EXPECT_FALSE(line.ends_with(' ') || line.ends_with('\t')) << file << ":" << number;
      }
    }
  }
}

}  // namespace
