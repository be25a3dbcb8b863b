// The table of log calls names the calls of the sources, those that no run reaches included.
#include "tests/module/grpc-gateway/ModuleLog.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>
#include <string>

#include "tests/support/FileText.h"

namespace {

namespace fs = std::filesystem;

// "source: format" of each call.
using Calls = std::set<std::string>;

void addCalls(const fs::path& source, Calls& calls) {
  static const std::regex call(R"re(GATEWAY_LOG\(\s*\w+,\s*"([^"]*)")re");
  const std::string text = textOf(source);
  for (std::sregex_iterator each(text.begin(), text.end(), call), end; each != end; ++each) {
    calls.insert(source.stem().string() + ": " + (*each)[1].str());
  }
}

TEST(ModuleLog, TheTableNamesTheCallsOfTheSources) {
  Calls called;
  for (const auto& file : fs::directory_iterator(MODULE_SOURCES)) {
    if (file.path().extension() == ".cpp") addCalls(file, called);
  }
  Calls named;
  for (const ModuleLogCall& call : moduleLogCalls) {
    named.insert(std::string(call.source).append(": ").append(call.format));
  }
  EXPECT_EQ(called, named);
}

}  // namespace
