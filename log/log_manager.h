// The process's log categories, their sinks and the prefix fields of every line.
//
// The process-wide manager (Instance) is built on first use and then reads its configuration
// file once: the file given to SetConfigPath before that first use, else the file named by the
// environment variable ZPDF_LOG_INI, else "log.ini" beside the module file (the DLL on Windows,
// the shared library or executable elsewhere). Without a file every category is silent.
#pragma once

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "log/log_level.h"
#include "log/log_line.h"
#include "log/log_output.h"
#include "log/logger.h"

namespace zpdf {

class CIniFileIndirect;

class LogManager {
  public:
    // The process-wide manager, created and configured on the first call from any thread.
    static LogManager& Instance();

    // Chooses the configuration file of the process-wide manager. Takes effect only before the
    // first Instance() call; returns false (and changes nothing) afterwards.
    static bool SetConfigPath(const std::string& path);
    // The configuration file the process-wide manager reads (or read); empty when none.
    static std::string ConfigPath();

    // A manager with no categories and the default fields, not configured from any file. The
    // process uses Instance(); separate managers serve embedding and tests.
    LogManager();
    ~LogManager();
    LogManager(const LogManager&) = delete;
    LogManager& operator=(const LogManager&) = delete;

    // Reads an INI file and applies its [categories] and [output] sections. Returns false, and
    // changes nothing, when the file cannot be read.
    bool LoadConfig(const std::string& path);
    // Applies an INI file that has already been read.
    void ApplyConfig(const CIniFileIndirect& ini);

    // Creates or updates a category. `outputName` is "DebugView", "Null", "Console" or a file
    // path, compared byte for byte; categories naming the same output share one sink.
    Logger& Configure(const std::string& category, LogLevel level, const std::string& outputName);

    // The category, created when it is new: a dotted name ("PDF.Save") then takes a copy of its
    // parent's level and sink ("PDF", created on the way as well). Later changes of the parent
    // do not reach the child.
    Logger& GetLogger(const std::string& category);

    // Switches of the prefix fields, by LogField bit number. Numbers outside 0-4 read as off and
    // change nothing.
    bool IsFieldEnabled(int field) const;
    void SetFieldEnabled(int field, bool on);
    unsigned GetFields() const { return fields_.load(std::memory_order_relaxed); }

    // "user@computer", read from the system once.
    const std::string& UserAndComputer();

    // Lookups that create nothing.
    Logger* FindLogger(const std::string& category) const;
    LogOutput* FindOutput(const std::string& outputName) const;
    std::size_t OutputCount() const;

  private:
    struct ReadConfiguration {};
    explicit LogManager(ReadConfiguration);

    LogOutput* OutputLocked(const std::string& outputName);
    Logger& ConfigureLocked(const std::string& category, LogLevel level,
                            const std::string& outputName);
    Logger& GetLoggerLocked(const std::string& category);

    // Guards both maps; categories may be requested and configured from any thread.
    mutable std::mutex mutex_;
    std::map<std::string, std::unique_ptr<LogOutput>> outputs_;
    std::map<std::string, std::unique_ptr<Logger>> loggers_;  // destroyed before the sinks
    std::atomic<unsigned> fields_{kLogFieldsDefault};
    std::once_flag user_once_;
    std::string user_;
};

// The category "PDF" of the process-wide manager, looked up once.
Logger& PdfLog();

}  // namespace zpdf
