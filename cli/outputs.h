// Outputs are never inputs: a command that writes a file refuses a name that leads to one of
// the files it reads, whatever the name (links, hard links, another spelling).
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "cli/command.h"

namespace zpdf::cli {

// Returns 0, or the exit code after the message, when `output` is the same file as one of
// `inputs` (names as given on the command line).
int RefuseOutputOverInputs(const Command& command, const std::filesystem::path& output,
                           const std::vector<std::string>& inputs);

}  // namespace zpdf::cli
