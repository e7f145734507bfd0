#include "log/log_manager.h"

#include <optional>
#include <utility>

#include "log/ini_file.h"
#include "platform/env.h"
#include "platform/host_info.h"
#include "platform/module_path.h"

namespace zpdf {
namespace {

// Expanded output names are limited to what fits a 260-byte buffer with its NUL.
constexpr std::size_t kMaxExpandedOutputName = 259;

constexpr const char* kConfigFileName = "log.ini";
constexpr const char* kConfigPathVariable = "ZPDF_LOG_INI";

// Which file the process-wide manager reads. Lives in a function so that it is ready whenever
// the first Instance() call happens, even from another static's constructor.
struct ProcessConfigChoice {
    std::mutex mutex;
    bool manager_created = false;
    std::optional<std::string> explicit_path;
};

ProcessConfigChoice& ConfigChoice() {
    static ProcessConfigChoice choice;
    return choice;
}

std::string ResolveConfigPath(const std::optional<std::string>& explicit_path) {
    if (explicit_path) return *explicit_path;
    if (auto from_environment = GetEnvironmentText(kConfigPathVariable);
        from_environment && !from_environment->empty()) {
        return *from_environment;
    }
    const std::filesystem::path module = ModuleFilePath();
    if (module.empty() || !module.has_parent_path()) return {};
    return NarrowPath(module.parent_path() / kConfigFileName);
}

std::unique_ptr<LogOutput> MakeOutput(const std::string& name) {
    if (name == "DebugView") return std::make_unique<LogOutputDebugView>();
    if (name == "Null") return std::make_unique<LogOutputNull>();
    if (name == "Console") return std::make_unique<LogOutputFile>(nullptr);
    return std::make_unique<LogOutputFile>(name.c_str());
}

}  // namespace

LogManager& LogManager::Instance() {
    static LogManager manager{ReadConfiguration{}};
    return manager;
}

bool LogManager::SetConfigPath(const std::string& path) {
    ProcessConfigChoice& choice = ConfigChoice();
    const std::lock_guard<std::mutex> lock(choice.mutex);
    if (choice.manager_created) return false;
    choice.explicit_path = path;
    return true;
}

std::string LogManager::ConfigPath() {
    ProcessConfigChoice& choice = ConfigChoice();
    std::optional<std::string> explicit_path;
    {
        const std::lock_guard<std::mutex> lock(choice.mutex);
        explicit_path = choice.explicit_path;
    }
    return ResolveConfigPath(explicit_path);
}

LogManager::LogManager() = default;

LogManager::LogManager(ReadConfiguration) {
    {
        ProcessConfigChoice& choice = ConfigChoice();
        const std::lock_guard<std::mutex> lock(choice.mutex);
        choice.manager_created = true;
    }
    const std::string path = ConfigPath();
    if (!path.empty()) LoadConfig(path);
}

LogManager::~LogManager() = default;

bool LogManager::LoadConfig(const std::string& path) {
    CIniFileIndirect ini;
    if (!ini.Load(path)) return false;
    ApplyConfig(ini);
    return true;
}

void LogManager::ApplyConfig(const CIniFileIndirect& ini) {
    for (const IniEntry& entry : ini.GetSection("categories")) {
        if (entry.key.empty() || entry.key.front() == '#') continue;  // "#" comments a line out
        const std::size_t comma = entry.value.find(',');
        if (comma == std::string::npos) continue;  // also skips empty values
        const LogLevel level =
            LogLevelFromConfigWord(std::string_view(entry.value).substr(0, comma));
        std::string output = ExpandEnvironmentReferences(entry.value.substr(comma + 1));
        // An output name too long for a path cannot name a usable file; the category gets a
        // sink that drops its lines, as for any file that cannot be opened.
        if (output.size() > kMaxExpandedOutputName) output = "Null";
        Configure(entry.key, level, output);
    }

    // Every field the file does not switch on with exactly "1" is off, so a file without an
    // [output] section gives lines that carry the message alone.
    static constexpr std::pair<const char*, LogField> kFieldKeys[] = {
        {"date", LogFieldDate}, {"time", LogFieldTime},         {"level", LogFieldLevel},
        {"user", LogFieldUser}, {"category", LogFieldCategory},
    };
    for (const auto& [key, field] : kFieldKeys) {
        SetFieldEnabled(field, ini.GetValue(key, "output") == "1");
    }
}

LogOutput* LogManager::OutputLocked(const std::string& outputName) {
    auto found = outputs_.find(outputName);
    if (found == outputs_.end()) {
        found = outputs_.emplace(outputName, MakeOutput(outputName)).first;
    }
    return found->second.get();
}

Logger& LogManager::ConfigureLocked(const std::string& category, LogLevel level,
                                    const std::string& outputName) {
    LogOutput* output = OutputLocked(outputName);
    auto found = loggers_.find(category);
    if (found != loggers_.end()) {
        found->second->SetLevel(level);
        found->second->SetOutput(output);
        return *found->second;
    }
    auto logger = std::make_unique<Logger>(*this, category, level, output);
    return *loggers_.emplace(category, std::move(logger)).first->second;
}

Logger& LogManager::Configure(const std::string& category, LogLevel level,
                              const std::string& outputName) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return ConfigureLocked(category, level, outputName);
}

Logger& LogManager::GetLoggerLocked(const std::string& category) {
    if (auto found = loggers_.find(category); found != loggers_.end()) return *found->second;
    Logger& logger = ConfigureLocked(category, LogNone, "Null");
    const std::size_t dot = category.rfind('.');
    if (dot != std::string::npos) {
        // Copied once: the child keeps these values when the parent changes later.
        const Logger& parent = GetLoggerLocked(category.substr(0, dot));
        logger.SetLevel(parent.GetLevel());
        logger.SetOutput(parent.GetOutput());
    }
    return logger;
}

Logger& LogManager::GetLogger(const std::string& category) {
    const std::lock_guard<std::mutex> lock(mutex_);
    return GetLoggerLocked(category);
}

bool LogManager::IsFieldEnabled(int field) const {
    if (field < 0 || field >= kLogFieldCount) return false;
    return (GetFields() & (1u << field)) != 0;
}

void LogManager::SetFieldEnabled(int field, bool on) {
    if (field < 0 || field >= kLogFieldCount) return;
    const unsigned bit = 1u << field;
    if (on) {
        fields_.fetch_or(bit, std::memory_order_relaxed);
    } else {
        fields_.fetch_and(~bit, std::memory_order_relaxed);
    }
}

const std::string& LogManager::UserAndComputer() {
    std::call_once(user_once_, [this] { user_ = UserAtComputer(); });
    return user_;
}

Logger* LogManager::FindLogger(const std::string& category) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = loggers_.find(category);
    return found == loggers_.end() ? nullptr : found->second.get();
}

LogOutput* LogManager::FindOutput(const std::string& outputName) const {
    const std::lock_guard<std::mutex> lock(mutex_);
    const auto found = outputs_.find(outputName);
    return found == outputs_.end() ? nullptr : found->second.get();
}

std::size_t LogManager::OutputCount() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return outputs_.size();
}

Logger& PdfLog() {
    static Logger& logger = LogManager::Instance().GetLogger("PDF");
    return logger;
}

}  // namespace zpdf
