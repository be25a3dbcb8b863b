// Tells whether the INI reader it is linked to reads every conformance case as required. The
// configuration step runs it against the installed inih.
//
// Exit codes: 0 all cases agree; 1 one does not, which is told on standard output; 2 the cases
// could not be tried, which is told on standard error.

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
