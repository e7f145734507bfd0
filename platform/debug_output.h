// Text for a debugger's output window.
#pragma once

namespace zpdf {

// Sends NUL-terminated text to the debugger (OutputDebugStringA) on Windows. Other systems have
// no such channel: there the text goes to standard error, written and flushed in one call.
void WriteDebuggerText(const char* text);

}  // namespace zpdf
