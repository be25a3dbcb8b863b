// Any bytes as a file for the INI reader. It must produce the same pairs and the same result as a
// second, naive reader.
#include "tests/fuzz/Target.h"
#include "tests/ini/naive_reader.h"
#include "tests/tools/check/RewrittenFile.h"

fuzz::Result fuzz::tryInput(std::string_view input) {
  using namespace ini::conformance;
  static RewrittenFile file;
  const Reading reading = readPath(ini_parse, file.write(std::string(input)));
  require(reading.result >= 0, "a file that exists is read");
  const Reading expected = NaiveIniReader::read(input);
  if (reading != expected) require(false, firstDifference(expected, reading));
  return reading.result == 0 ? Result::Accepted : Result::Refused;
}
