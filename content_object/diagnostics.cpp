#include "content_object/diagnostics.h"

#include <atomic>
#include <cstdio>
#include <mutex>

#include "engine/engine.h"

namespace zpdf::diagnostics {

Logger& Pdf() {
    return PdfLog();
}

Logger& Load() {
    static Logger& logger = LogManager::Instance().GetLogger("PDF.Load");
    return logger;
}

Logger& Save() {
    static Logger& logger = LogManager::Instance().GetLogger("PDF.Save");
    return logger;
}

Logger& Place() {
    static Logger& logger = LogManager::Instance().GetLogger("PDF.Place");
    return logger;
}

Logger& Engine() {
    static Logger& logger = LogManager::Instance().GetLogger("PDF.Engine");
    return logger;
}

namespace {

void ForwardEngineMessage(int level, const char* message) {
    // The engine warns about every repair it makes to a damaged file: useful when tracing a
    // document, noise otherwise.
    if (level <= 2) {
        ZPDF_LOG_WARN(Engine(), "%s", message);
    } else {
        ZPDF_LOG_DEBUG(Engine(), "%s", message);
    }
}

}  // namespace

void RouteEngineMessages() {
    static std::once_flag once;
    std::call_once(once, [] { engine::SetDiagnosticSink(ForwardEngineMessage); });
}

namespace {
std::atomic<bool> load_messages_shown{true};
}  // namespace

void ShowLoadMessages(bool shown) {
    load_messages_shown.store(shown, std::memory_order_relaxed);
}

bool LoadMessagesShown() {
    return load_messages_shown.load(std::memory_order_relaxed);
}

void WriteLoadMessage(const std::string& text) {
    if (!LoadMessagesShown()) return;
    std::fputs((text + "\n").c_str(), stderr);
}

}  // namespace zpdf::diagnostics
