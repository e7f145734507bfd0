#include "platform/hresult.h"

#include <cstdio>

namespace zpdf {

std::string FormatHResult(HResult h) {
    char text[16];
    std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(h));
    return text;
}

const char* DescribeHResult(HResult h) {
    switch (h) {
        case hr::kOk:
            return "Success";
        case hr::kFalse:
            return "Nothing to do";
        case hr::kNotImpl:
            return "Not implemented";
        case hr::kPointer:
            return "Invalid pointer";
        case hr::kFail:
            return "Unspecified error";
        case hr::kUnexpected:
            return "Catastrophic failure";
        case hr::kAccessDenied:
            return "Access is denied";
        case hr::kOutOfMemory:
            return "Not enough memory";
        case hr::kInvalidArg:
            return "The parameter is incorrect";
        case hr::kFileNotFound:
            return "The system cannot find the file specified";
        default:
            return "Error";
    }
}

}  // namespace zpdf
