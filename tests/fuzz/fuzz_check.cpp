// Any bytes as a configuration file for the checker: it comes to an end, calls errors what the
// module refuses, and can tell all of it. A file is not followed into others.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "standin/Host.h"
#include "tests/tools/check/RewrittenFile.h"
#include "tools/check/Checker.h"
#include "tools/check/Report.h"

namespace {

using check::Checked;
using check::Severity;
using check::Verdict;

// Counts that show at the end whether the inputs were of both kinds.
struct Outcomes {
  std::uint64_t accepted = 0;
  std::uint64_t refused = 0;
  ~Outcomes() {
    std::fprintf(stderr, "accepted %llu, refused %llu\n", static_cast<unsigned long long>(accepted),
                 static_cast<unsigned long long>(refused));
    if (accepted + refused > 1000 && (accepted == 0 || refused == 0)) {
      std::fprintf(stderr, "all inputs ended the same way: mend the corpus\n");
      std::_Exit(1);
    }
  }
};

void require(bool promise) {
  if (!promise) std::abort();
}

// Places lie within the source lines, so that a caret can stand there.
void requirePlaces(const Checked& checked) {
  for (const auto& each : checked.diagnostics) {
    require(!each.text.empty() && !each.remedy.empty());
    if (each.line == 0) continue;
    require(each.column >= each.sourceColumn);
    require(each.column - each.sourceColumn <= each.source.size());
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  static standin::Host host({.keepRecords = false});
  static RewrittenFile file;
  static Outcomes outcomes;
  const std::string text(reinterpret_cast<const char*>(data), size);
  // Otherwise an input could name any file of the machine.
  if (text.find("ParseIfExist:") != text.npos) return -1;
  const Checked checked =
      check::check({.path = file.write(text), .name = "input", .withSlots = true});
  require(checked.moduleWasAsked);
  require((checked.verdict == Verdict::Refused) == (checked.count(Severity::Error) > 0));
  requirePlaces(checked);
  require(!check::textOf(checked, true).empty() && !check::tableOf(checked.slots).empty());
  require(!check::jsonOf(checked)
               .dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
               .empty());
  ++(checked.verdict == Verdict::Accepted ? outcomes.accepted : outcomes.refused);
  return 0;
}
