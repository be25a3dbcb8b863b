#include "tools/manual/manual.h"

#include <fmt/format.h>

#include <memory>
#include <string_view>

#include "texts.h"
#include "tools/common/ExitCode.h"
#include "tools/common/ManualText.h"
#include "tools/common/Output.h"
#include "tools/manual/CommandLine.h"
#include "tools/manual/Completion.h"
#include "tools/manual/Help.h"
#include "tools/manual/ManPage.h"
#include "tools/manual/WrongUse.h"

namespace manual {
namespace {

std::string failureMessage(const CLI::App* program, const CLI::Error& error) {
  const auto chosen = program->get_subcommands();
  const CLI::App& app = chosen.empty() ? *program : *chosen.front();
  return fmt::format("{0}: {1}\nRun \"{0} --help\" for its manual.\n", commandOf(app).fullName(" "),
                     describeWrongUse(app, error));
}

std::string checkShell(const std::string& name) {
  if (name == "bash" || name == "fish" || name == "zsh") return {};
  return fmt::format("\"{}\" is not one of bash, fish and zsh", name);
}

std::string completionOf(const Command& program, const std::string& shell) {
  if (shell == "bash") return bashCompletion(program);
  return shell == "fish" ? fishCompletion(program) : zshCompletion(program);
}

void addCompletion(CLI::App& app, int& exitCode) {
  CLI::App* const command =
      app.add_subcommand("completion", "Print the script that completes commands in a shell");
  command->footer(tools::manualOf(completion_txt));
  const auto shell = std::make_shared<std::string>();
  command->add_option("SHELL", *shell, "The shell: bash, fish or zsh.")
      ->required()
      ->check(checkShell, "{bash,fish,zsh}");
  command->callback([=, &app, &exitCode] {
    tools::writeOut(completionOf(commandOf(app), *shell));
    exitCode = tools::ExitCode::Done;
  });
}

// For the build alone.
void addManPages(CLI::App& app, int& exitCode) {
  CLI::App* const command = app.add_subcommand("manual", "Print the scdoc source of a man page");
  command->group("");
  command->footer(
      "Prints the source of gatewayctl(1), or of the page of SUBCOMMAND.\n\n{options}\n");
  const auto name = std::make_shared<std::string>();
  command->add_option("SUBCOMMAND", *name, "The sub-command.");
  command->callback([=, &app, &exitCode] {
    const CLI::App& described = name->empty() ? app : *app.get_subcommand(*name);
    tools::writeOut(manPageOf(commandOf(described), GATEWAY_VERSION));
    exitCode = tools::ExitCode::Done;
  });
}

}  // namespace

void addHelp(CLI::App& app) {
  app.formatter(std::make_shared<HelpFormatter>());
  app.failure_message(failureMessage);
  app.set_help_flag("-h,--help", "Print this manual.");
  app.set_version_flag("--version", "gatewayctl " GATEWAY_VERSION, "Print the version.");
  app.footer(tools::manualOf(gatewayctl_txt));
}

void addManual(CLI::App& app, int& exitCode) {
  addCompletion(app, exitCode);
  addManPages(app, exitCode);
}

std::string subcommandOf(const CLI::App& app) {
  const auto chosen = app.get_subcommands();
  return chosen.empty() ? "" : chosen.front()->get_name();
}

}  // namespace manual
