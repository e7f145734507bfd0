// zpdf: drives a content object from the command line, exactly as the print engine would.
#include <cstdio>
#include <string>
#include <vector>

#include "cli/command.h"
#include "cli/signals.h"
#include "engine/page_info.h"
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
        "Options (before COMMAND; -q and -v also after it):\n"
        "  --log-ini FILE  read the log configuration from FILE instead of the log.ini\n"
        "                  beside zpdf (the variable ZPDF_LOG_INI does the same)\n"
        "  -q, --quiet     no progress lines and no confirmation of a changed file;\n"
        "                  results and failures are still printed\n"
        "  -v, --verbose   also print the component's load messages on standard error\n"
        "                  (\"Non-linearized path...\"), which are hidden otherwise\n"
        "  --version       print the versions of zpdf and of its PDF engine, and the build\n"
        "\n"
        "A FILE of '-' reads standard input (info and render; the changing commands\n"
        "with -o only), and '-o -' (render: OUT.png '-') writes to standard output.\n"
        "\n"
        "'zpdf COMMAND --help' explains a command. A failure prints one line with its\n"
        "reason and result code on standard error; under 'info --json' it is a JSON\n"
        "object on standard output: {\"error\": ..., \"code\": \"0x...\", \"exit\": N}.\n"
        "\n"
        "Exit status:\n"
        "  0  success\n"
        "  1  the command failed (file missing or unreadable, wrong password, ...)\n"
        "  2  usage error: unknown command or option, missing or malformed argument\n",
        out);
}

void PrintVersion() {
    std::printf("zpdf %s\nPDF engine: MuPDF %s\nbuilt: %s %s, %s\n", ZPDF_VERSION_TEXT,
                zpdf::engine::EngineVersion().c_str(), __DATE__, __TIME__, ZPDF_BUILD_TYPE);
}

}  // namespace

int main(int argc, char** argv) {
    zpdf::cli::RemoveFilesWhenInterrupted();
    using zpdf::cli::Verbosity;
    // The load messages are for the component's other hosts; zpdf shows them with -v only.
    zpdf::cli::SetVerbosity(Verbosity::kNormal);
    // Options of zpdf itself come before the command.
    while (argc >= 2) {
        const std::string option = argv[1];
        if (option == "--log-ini" && argc >= 3) {
            zpdf::LogManager::SetConfigPath(argv[2]);
            argv += 2;
            argc -= 2;
            continue;
        }
        if (option == "-q" || option == "--quiet") {
            zpdf::cli::SetVerbosity(Verbosity::kQuiet);
        } else if (option == "-v" || option == "--verbose") {
            zpdf::cli::SetVerbosity(Verbosity::kVerbose);
        } else if (option == "--version") {
            PrintVersion();
            return zpdf::cli::kExitOk;
        } else {
            break;
        }
        ++argv;
        --argc;
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
