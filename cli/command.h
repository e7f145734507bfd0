// The pieces every zpdf subcommand shares: argument parsing, messages and exit codes.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "platform/hresult.h"

namespace zpdf::cli {

enum ExitCode { kExitOk = 0, kExitFailed = 1, kExitUsage = 2 };

// How much zpdf says besides its results and failures: -q drops progress lines and the
// confirmation of a changing command; -v adds the component's load messages on standard error.
enum class Verbosity { kQuiet, kNormal, kVerbose };
void SetVerbosity(Verbosity verbosity);
Verbosity CurrentVerbosity();
// Under --json, failures and usage errors are one JSON object on standard output instead of a
// line on standard error: {"error": "...", "code": "0x...", "exit": N}.
void SetJsonErrors(bool json);
// printf to standard output unless zpdf is quiet.
void Say(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;

struct Command {
    const char* name;
    const char* summary;  // one line for the command list
    const char* help;     // the whole text of `zpdf NAME --help`
    int (*run)(const std::vector<std::string>& args);
};

// Options of one command: those in `valued` take the next argument as their value; those in
// `flags` stand alone. Short ones ("-o") are listed like long ones. Anything else starting
// with "--" is an error.
class Arguments {
  public:
    Arguments(std::set<std::string> valued, std::set<std::string> flags)
        : valued_(std::move(valued)), flags_(std::move(flags)) {}
    // False (and an error text) when the arguments do not parse.
    bool Parse(const std::vector<std::string>& args);
    const std::string& Error() const { return error_; }
    const std::vector<std::string>& Positional() const { return positional_; }
    bool Has(const std::string& name) const { return values_.count(name) != 0; }
    std::optional<std::string> Value(const std::string& name) const;

  private:
    std::set<std::string> valued_;
    std::set<std::string> flags_;
    std::map<std::string, std::string> values_;
    std::vector<std::string> positional_;
    std::string error_;
};

// "zpdf NAME: message" on standard error (JSON on standard output under --json); returns
// kExitUsage.
int UsageError(const Command& command, const std::string& message);
// "zpdf NAME: what: reason (0x...)" on standard error (JSON on standard output under --json);
// returns kExitFailed.
int Failure(const Command& command, const std::string& what, const std::string& reason,
            HResult result);

// Parses a whole number in [low, high].
std::optional<long> ParseNumber(const std::string& text, long low, long high);

// Formats points with at most two decimals ("595", "841.89").
std::string FormatPoints(double value);
std::string JsonString(const std::string& text);

extern const Command kInfoCommand;
extern const Command kRenderCommand;
extern const Command kDemoCommand;
extern const Command kStampCommand;
extern const Command kAppendCommand;
extern const Command kReplaceCommand;
extern const Command kProtectCommand;
extern const Command kProtectPubKeyCommand;
extern const Command kSplitCommand;
extern const Command kDecryptCommand;

}  // namespace zpdf::cli
