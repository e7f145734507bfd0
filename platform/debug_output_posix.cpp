#include <cstdio>

#include "platform/debug_output.h"

namespace zpdf {

void WriteDebuggerText(const char* text) {
    std::fputs(text, stderr);
    std::fflush(stderr);
}

}  // namespace zpdf
