#include "cli/command.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cli/streams.h"
#include "content_object/diagnostics.h"

namespace zpdf::cli {
namespace {

Verbosity verbosity = Verbosity::kNormal;
bool json_errors = false;

void PrintJsonError(const std::string& message, const std::string& code, int exit_code) {
    std::printf("{\"error\": %s, \"code\": %s, \"exit\": %d}\n", JsonString(message).c_str(),
                JsonString(code).c_str(), exit_code);
    std::fflush(stdout);
}

}  // namespace

void SetVerbosity(Verbosity value) {
    verbosity = value;
    diagnostics::ShowLoadMessages(value == Verbosity::kVerbose);
}

Verbosity CurrentVerbosity() {
    return verbosity;
}

void SetJsonErrors(bool json) {
    json_errors = json;
}

void Say(const char* format, ...) {
    if (verbosity == Verbosity::kQuiet) return;
    va_list args;
    va_start(args, format);
    // Where standard output carries a document, the messages go to standard error.
    std::vfprintf(StandardOutputTaken() ? stderr : stdout, format, args);
    va_end(args);
}

bool Arguments::Parse(const std::vector<std::string>& args) {
    for (std::size_t i = 0; i < args.size(); ++i) {
        const std::string& arg = args[i];
        // The verbosity options are understood by every command, wherever they stand.
        if (arg == "-q" || arg == "--quiet" || arg == "-v" || arg == "--verbose") {
            SetVerbosity(arg == "-q" || arg == "--quiet" ? Verbosity::kQuiet : Verbosity::kVerbose);
            continue;
        }
        const bool short_option = valued_.count(arg) != 0 || flags_.count(arg) != 0;
        if (short_option || (arg.size() > 2 && arg.compare(0, 2, "--") == 0)) {
            std::string name = arg;
            std::optional<std::string> inline_value;
            if (const auto eq = arg.find('='); eq != std::string::npos) {
                name = arg.substr(0, eq);
                inline_value = arg.substr(eq + 1);
            }
            if (valued_.count(name) != 0) {
                if (inline_value) {
                    values_[name] = *inline_value;
                } else if (i + 1 < args.size()) {
                    values_[name] = args[++i];
                } else {
                    error_ = name + " needs a value";
                    return false;
                }
            } else if (flags_.count(name) != 0 && !inline_value) {
                values_[name] = "";
            } else {
                error_ = "unknown option " + arg;
                return false;
            }
        } else {
            positional_.push_back(arg);
        }
    }
    return true;
}

std::optional<std::string> Arguments::Value(const std::string& name) const {
    const auto it = values_.find(name);
    if (it == values_.end()) return std::nullopt;
    return it->second;
}

int UsageError(const Command& command, const std::string& message) {
    if (json_errors) {
        PrintJsonError(message, FormatHResult(hr::kInvalidArg), kExitUsage);
        return kExitUsage;
    }
    std::fprintf(stderr, "zpdf %s: %s\nTry 'zpdf %s --help'.\n", command.name, message.c_str(),
                 command.name);
    return kExitUsage;
}

int Failure(const Command& command, const std::string& what, const std::string& reason,
            HResult result) {
    if (json_errors) {
        PrintJsonError(what + ": " + reason, FormatHResult(result), kExitFailed);
        return kExitFailed;
    }
    std::fprintf(stderr, "zpdf %s: %s: %s (%s)\n", command.name, what.c_str(), reason.c_str(),
                 FormatHResult(result).c_str());
    return kExitFailed;
}

std::optional<long> ParseNumber(const std::string& text, long low, long high) {
    if (text.empty()) return std::nullopt;
    char* end = nullptr;
    errno = 0;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (errno != 0 || end == nullptr || *end != '\0' || value < low || value > high) {
        return std::nullopt;
    }
    return value;
}

std::string FormatPoints(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.2f", value);
    std::string s(text);
    while (!s.empty() && s.back() == '0') s.pop_back();
    if (!s.empty() && s.back() == '.') s.pop_back();
    return s;
}

std::string JsonString(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (u < 0x20) {
            char escaped[8];
            std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
            out += escaped;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

}  // namespace zpdf::cli
