// The component's log categories: "PDF" and its children. Each is looked up once.
#pragma once

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

}  // namespace zpdf::diagnostics
