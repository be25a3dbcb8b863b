// The table of checks, and its copies in documents.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <set>

#include "tests/support/FileText.h"
#include "tools/probe/Checks.h"

namespace probe {
namespace {

TEST(Checks, HaveUniqueNamesAndLevels) {
  std::set<std::string_view> names;
  std::set<int> levels;
  for (const Check& check : allChecks()) {
    EXPECT_TRUE(names.insert(check.name).second) << check.name;
    EXPECT_EQ(check.ofEngine, check.name.starts_with("engine-")) << check.name;
    levels.insert(check.level);
  }
  EXPECT_EQ(levels, (std::set<int>{1, 2, 3, 4, highestLevel}));
}

// KEEP_EXPECTATIONS=1 writes the table into the document.
TEST(Checks, AreListedInTheGuideForServers) {
  const std::string path = SOURCE_FOLDER "/docs/servers.md";
  std::string text = ::textOf(path);
  const std::string table = markdownOfChecks();
  const auto begin = text.find(table.substr(0, table.find('\n')));
  ASSERT_NE(begin, text.npos) << "docs/servers.md has no table of checks";
  const auto end = text.find("\n\n", begin) + 1;
  if (std::getenv("KEEP_EXPECTATIONS") != nullptr) {
    std::ofstream(path) << text.replace(begin, end - begin, table);
  } else {
    EXPECT_EQ(text.substr(begin, end - begin), table);
  }
}

}  // namespace
}  // namespace probe
