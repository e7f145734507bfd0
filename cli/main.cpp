// zpdf: drives a content object from the command line, exactly as the print engine would.
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/signals.h"
#include "log/log_manager.h"

namespace {

using zpdf::cli::Command;

const Command* const kCommands[] = {
    &zpdf::cli::kInfoCommand,    &zpdf::cli::kRenderCommand,        &zpdf::cli::kStampCommand,
    &zpdf::cli::kAppendCommand,  &zpdf::cli::kReplaceCommand,       &zpdf::cli::kSplitCommand,
    &zpdf::cli::kProtectCommand, &zpdf::cli::kProtectPubKeyCommand, &zpdf::cli::kDecryptCommand,
    &zpdf::cli::kDemoCommand,
};

void PrintUsage(std::FILE* out) {
    std::fputs(
        "Usage: zpdf COMMAND [ARGS...]\n"
        "\n"
        "Works on PDF files with the ZPdfCntObj content component.\n"
        "\n"
        "Commands:\n",
        out);
    for (const Command* command : kCommands) {
        std::fprintf(out, "  %-15s %s\n", command->name, command->summary);
    }
    std::fputs(
        "\n"
        "Options before COMMAND:\n"
        "  --log-ini FILE  read the log configuration from FILE instead of the log.ini\n"
        "                  beside zpdf (the variable ZPDF_LOG_INI does the same)\n"
        "\n"
        "'zpdf COMMAND --help' explains a command. A failure prints one line with its\n"
        "reason and result code, and the exit status is 1 (2 for a usage error).\n",
        out);
}

}  // namespace

int main(int argc, char** argv) {
    zpdf::cli::RemoveFilesWhenInterrupted();
    // Options of zpdf itself come before the command.
    while (argc >= 3 && std::strcmp(argv[1], "--log-ini") == 0) {
        zpdf::LogManager::SetConfigPath(argv[2]);
        argv += 2;
        argc -= 2;
    }
    if (argc < 2) {
        PrintUsage(stderr);
        return zpdf::cli::kExitUsage;
    }
    const std::string name = argv[1];
    if (name == "--help" || name == "-h" || name == "help") {
        PrintUsage(stdout);
        return zpdf::cli::kExitOk;
    }
    for (const Command* command : kCommands) {
        if (name != command->name) continue;
        std::vector<std::string> args(argv + 2, argv + argc);
        for (const std::string& arg : args) {
            if (arg == "--help" || arg == "-h") {
                std::fputs(command->help, stdout);
                return zpdf::cli::kExitOk;
            }
        }
        return command->run(args);
    }
    std::fprintf(stderr, "zpdf: unknown command '%s'\n\n", name.c_str());
    PrintUsage(stderr);
    return zpdf::cli::kExitUsage;
}
