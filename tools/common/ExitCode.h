// The exit codes of gatewayctl, and what its manuals say about those that every sub-command has.
#pragma once

#include <array>
#include <string_view>

namespace tools {

enum ExitCode : int {
  Done = 0,
  Failed = 1,
  WrongUse = 2,
  AcceptedWithWarnings = 3,  // of check alone, with --strict
  Interrupted = 130,         // as a shell reports a program that SIGINT has ended
};

struct ExitCodeText {
  ExitCode code;
  std::string_view meaning;
};

inline constexpr std::array<ExitCodeText, 4> sharedExitCodes{{
    {Done, "Success."},
    {Failed, "Failure. A message on standard error gives the reason."},
    {WrongUse, "Wrong use: an option or an argument is unknown, missing or invalid."},
    {Interrupted, "Interrupted by SIGINT or SIGTERM."},
}};

}  // namespace tools
