#include "tools/host/ModuleOptions.h"

#include <filesystem>
#include <string>

namespace host {
namespace {

// The module beside this program, where a build puts it, or else where modules are installed.
std::string defaultModulePath() {
  constexpr const char* file = "grpc-gateway.so";
  const auto folder = std::filesystem::read_symlink("/proc/self/exe").parent_path();
  const auto installed = (folder / GATEWAY_MODULE_DIR / file).lexically_normal();
  return (std::filesystem::exists(folder / file) ? folder / file : installed).string();
}

// Adds the folder, since the loader would look for a bare name among the system's libraries.
std::string absolutePath(const std::string& path) {
  return std::filesystem::absolute(path);
}

}  // namespace

void addModuleOptions(CLI::App& command, Setup& setup) {
  setup.module = defaultModulePath();
  setup.name = "gateway";
  command.add_option("CONFIG", setup.config, "The configuration file.")
      ->required()
      ->type_name("FILE");
  command
      .add_option("--module", setup.module,
                  "The module to load. Default: grpc-gateway.so beside gatewayctl, or else the "
                  "installed one.")
      ->type_name("FILE")
      ->transform(absolutePath, "");
  command.add_option("--name", setup.name, "The name of the module instance.")
      ->type_name("NAME")
      ->capture_default_str()
      ->check([](const std::string& name) {
        return name.size() <= 31 ? "" : "the name has more than 31 bytes";
      });
}

CLI::Option* addReloadOption(CLI::App& command, bool& reloads) {
  return command.add_flag(
      "--reload", reloads,
      "Restart the module when the configuration file, or a dedicated file that it names, has "
      "changed. If the module would refuse the new one, it keeps running as before.");
}

}  // namespace host
