#include <windows.h>

#include "platform/host_info.h"

namespace zpdf {
namespace {

constexpr DWORD kNameBufferSize = 1024;

}  // namespace

std::string CurrentUserName() {
    char name[kNameBufferSize] = {};
    DWORD size = kNameBufferSize;
    if (!GetUserNameA(name, &size)) return {};
    return name;
}

std::string ComputerName() {
    char name[kNameBufferSize] = {};
    DWORD size = kNameBufferSize;
    if (!GetComputerNameA(name, &size)) return {};
    return name;
}

}  // namespace zpdf
