// The commands for a running module on standard input, one on each line.
//
// Threads: that of the module.
#pragma once

#include <string>
#include <vector>

#include "tools/host/Reporter.h"
#include "tools/host/RunningModule.h"

namespace host {

class Console {
 public:
  // The commands, as entries of the manual.
  static std::string manual();

  // Both are borrowed for its life.
  Console(RunningModule& module, const Reporter& reporter) : module_(module), reporter_(reporter) {}

  // Carries out one line; an empty one does nothing. Reports a line that is wrong, and then changes
  // nothing. False for the command that ends the session.
  bool obey(const std::string& line);

 private:
  // A row of the table of commands, which the parser and the manual share.
  struct Command;

  using Arguments = std::vector<std::string>;

  void slots(const Arguments& arguments);
  void get(const Arguments& arguments);
  void set(const Arguments& arguments);
  void help(const Arguments& arguments);
  void quit(const Arguments& arguments);

  RunningModule& module_;
  const Reporter& reporter_;
  bool quit_ = false;
};

}  // namespace host
