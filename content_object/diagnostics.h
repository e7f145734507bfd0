// The component's log categories: "PDF" and its children. Each is looked up once.
#pragma once

#include <string>

#include "log/log_manager.h"
#include "log/logger.h"

namespace zpdf::diagnostics {

Logger& Pdf();
Logger& Load();    // PDF.Load
Logger& Save();    // PDF.Save
Logger& Place();   // PDF.Place
Logger& Engine();  // PDF.Engine: the engine's own warnings and errors

// Routes the engine's warnings and errors to PDF.Engine (once per process).
void RouteEngineMessages();

// The load messages on standard error ("Linearized path...", "Load pdf docs unsuccessful:
// ..."). Shown by default, as the component's hosts expect them; a host that wants a quiet
// standard error turns them off for the whole process.
void ShowLoadMessages(bool shown);
bool LoadMessagesShown();
// Writes one load message and its line end to standard error when they are shown.
void WriteLoadMessage(const std::string& text);

}  // namespace zpdf::diagnostics
