// Checks that the INI reader it is linked to reads every conformance case as required. CMake runs
// it against the installed inih at configure time.
//
// Exit codes: 0 if all cases pass; 1 if one fails, which standard output describes; 2 if the cases
// could not run, for which standard error gives the reason.

#include <exception>
#include <iostream>
#include <string>

#include "conformance.h"

int main() {
  try {
    const std::string failure = ini::conformance::firstFailure(ini_parse);
    if (failure.empty()) return 0;
    std::cout << failure << '\n';
    return 1;
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    return 2;
  }
}
