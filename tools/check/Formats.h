// The formats in which `gatewayctl check` reports to people and to programs. Any thread.
#pragma once

#include <string>
#include <vector>

#include "tools/check/Checker.h"

namespace check {

enum class Format { Text, Json, Sarif, Github, Checkstyle };

// As in --format.
std::vector<std::string> formatNames();
Format formatNamed(std::string_view name);

// One document about all files; empty for Format::Text, which is printed file by file. `exitCode`
// is that of the program.
std::string documentOf(Format format, const std::vector<Checked>& files, int exitCode);

}  // namespace check
