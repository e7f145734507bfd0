#include <windows.h>

#include "platform/debug_output.h"

namespace zpdf {

void WriteDebuggerText(const char* text) {
    OutputDebugStringA(text);
}

}  // namespace zpdf
