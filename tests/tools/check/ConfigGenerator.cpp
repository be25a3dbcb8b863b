#include "tests/tools/check/ConfigGenerator.h"

std::string ConfigGenerator::soup() {
  const std::vector<std::string> pieces = {
      "a",   "name", "=",    ":",    ";",   " ;",           "#",
      "[",   "]",    "[s]",  " ",    "\t",  "\n",           "\n",
      "\n ", "\v",   "\r\n", "\f",   "x=y", "\n[Meters]",   "\"",
      "\\",  "=b",   "n:",   "\xFF", "\n=", "\xEF\xBB\xBF", "\nk=v ;c"};
  std::string text;
  for (std::size_t n = below(60); n > 0; --n) text += pick(pieces);
  if (oneIn(8)) text.insert(below(text.size() + 1), 1, '\0');
  if (oneIn(4)) {
    const std::size_t size = 900 + below(300) + (oneIn(3) ? 1024 : 0);
    text.insert(below(text.size() + 1), std::string(size, "a ;=\t"[below(5)]));
  }
  if (oneIn(10)) text.insert(0, "\xEF\xBB\xBF");
  return text;
}

std::string ConfigGenerator::configuration(unsigned badness,
                                           const std::vector<std::string>& files) {
  std::string text;
  if (!oneIn(12)) text += settings(badness);
  for (std::size_t n = below(5); n > 0; --n) text += entries(badness);
  if (!files.empty() && oneIn(2)) {
    const std::string& file = pick(files);
    text += "[ParseIfExist:" + (oneIn(5) ? "/no/such" : oneIn(6) ? pick(files) : file) + "]\n";
    text += oneIn(8) ? spoilt("File=" + file + "\n") : "File=" + file + "\n";
    if (oneIn(4)) text += entries(badness);
  }
  if (oneIn(15)) text += settings(badness);
  return text;
}

std::string ConfigGenerator::mistyped(std::string text) {
  struct Mistake {
    std::string right, wrong;
  };
  const std::vector<Mistake> mistakes = {{"Type=slow", "Type=Slow"},
                                         {"Key=k", "key=k"},
                                         {"Key=k", "Key= k"},
                                         {"Meter=", "Meter: "},
                                         {"Meter=Key", "Key"},
                                         {"DefaultValue=1", "DefaultValue=1, dB"},
                                         {"[Meters]", "[Meters"},
                                         {"[Meters", "[ Meters"},
                                         {"]\n", "]]\n"},
                                         {"=false", "=off"},
                                         {"Meter=", "// Meter="},
                                         {"[MetersFloat]", "[MetersFlaot]"},
                                         {"Target=", "Target=http://"},
                                         {"CustomKey=", "Custom="},
                                         {"=true", "=yes"}};
  for (std::size_t n = below(4); n > 0; --n) {
    const Mistake& mistake = mistakes[below(mistakes.size())];
    const std::size_t at = text.find(mistake.right, below(text.size() + 1));
    if (at != text.npos) text.replace(at, mistake.right.size(), mistake.wrong);
  }
  return text;
}

std::string ConfigGenerator::settings(unsigned badness) {
  const std::vector<std::string> switches = {"true", "TRUE", "false",   "true",
                                             "yes",  "",     "true # x"};
  const std::vector<std::string> lines = {"EnableFastMeters=" + pick(switches),
                                          "EnableSlowMeters=" + pick(switches),
                                          "Target=localhost:50005",
                                          "Target:localhost:50005",
                                          " Target=indented",
                                          "; comment",
                                          "Target=a ; b",
                                          ""};
  std::string text = oneIn(6) ? "[METERS] ignored\n" : "[Meters]\n";
  if (!oneIn(10)) text += "Target=localhost:50005\n";
  for (std::size_t n = below(4); n > 0; --n) {
    const std::string& line = pick(lines);
    text += (below(100) < badness ? spoilt(line) : line) + "\n";
  }
  if (oneIn(20)) text += "EnableFastMeters=false\nEnableSlowMeters=0\n";
  text += "[engine]\n";
  if (!oneIn(15)) text += "Target=localhost:50006\n";
  if (oneIn(20)) text += "Target=\n";
  return text;
}

std::string ConfigGenerator::entries(unsigned badness) {
  const bool isMeter = !oneIn(3);
  const std::vector<std::string> types = {"String", "Int", "Uint", "Float"};
  std::string header = (isMeter ? "[Meters" : "[Engine") + pick(types) + "]";
  if (below(100) < badness) header = spoilt(header);
  std::string text = header + "\n";
  for (std::size_t n = below(5); n > 0; --n) {
    std::string line = (isMeter ? "Meter=" : "Param=") + entry(isMeter, badness);
    if (oneIn(10)) line = "  " + entry(isMeter, badness);
    if (below(100) < badness) line = spoilt(line);
    text += line + (oneIn(6) ? " ; comment\n" : "\n");
    if (oneIn(8)) text += oneIn(2) ? "\n" : "# comment\n";
  }
  return text;
}

std::string ConfigGenerator::entry(bool isMeter, unsigned badness) {
  const std::vector<std::string> keys = {"a",     "\"a b\"", "b",        "c#d",   "A",    "'q r'",
                                         "e\\ f", "g=h",     "\xFF\xFE", "x.y.z", "\"\"", "h;i"};
  const std::vector<std::string> extras = {
      "CustomKey=name", "CustomKey=gateway_int_0", "word", "CustomKey=", "Key=z", "\"\"",
      "#comment",       "CustomKey=\"out level\""};
  const std::vector<std::string> meterExtras = {
      "Type=slow",         "Type=fast",       "DefaultValue=1",          "DefaultValue=-1",
      "DefaultValue=1.5x", "DefaultValue=+7", "DefaultValue=4294967296", "DefaultValue=\" 3\"",
      "DefaultValue=0x10"};
  const std::vector<std::string> bad = {"Type=Fast",
                                        "key=a",
                                        "Bogus=1",
                                        "\"open",
                                        "=x",
                                        "DefaultValue=abc",
                                        "DefaultValue=1e999",
                                        "DefaultValue=99999999999999999999999",
                                        "Meter=Key=a"};
  // Mostly numbered: with only a few keys, nearly every file would repeat one.
  std::string text = oneIn(30) ? "Key=" + pick(keys) : "Key=k" + std::to_string(below(100000));
  if (oneIn(80)) text = oneIn(2) ? "" : "CustomKey=only";
  if (oneIn(2)) text += " " + pick(extras);
  if (isMeter && oneIn(2)) text += " " + pick(meterExtras);
  if (oneIn(60)) text += " CustomKey=" + std::string(95 + below(10), 'n');
  if (below(100) < badness) text += " " + pick(bad);
  return text;
}

// The line with one change, which usually makes it wrong.
std::string ConfigGenerator::spoilt(const std::string& line) {
  std::string text = line;
  const std::size_t at = below(text.size() + 1);
  switch (below(7)) {
    case 0:
      return text.erase(0, at);
    case 1:
      return text.erase(at);
    case 2:
      return text.insert(at, 1, " =:;#[]\"'\\\n\t"[below(12)]);
    case 3:
      return " " + text;
    case 4:
      return text + text;
    case 5:
      return text.insert(at, " ;");
    default:
      return text.insert(at, std::string(oneIn(2) ? 60 : 1100, "x "[below(2)]));
  }
}
