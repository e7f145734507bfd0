#include <pwd.h>
#include <unistd.h>

#include <cstdlib>
#include <vector>

#include "platform/host_info.h"

namespace zpdf {
namespace {

constexpr std::size_t kNameBufferSize = 1024;

}  // namespace

std::string CurrentUserName() {
    // The account of the effective user id, like the token of the calling thread on Windows.
    std::vector<char> buffer(16384);
    passwd entry{};
    passwd* found = nullptr;
    if (::getpwuid_r(::geteuid(), &entry, buffer.data(), buffer.size(), &found) == 0 &&
        found != nullptr && found->pw_name != nullptr) {
        return found->pw_name;
    }
    // Containers often run under ids without a passwd entry; the login variables are the
    // best remaining answer there.
    for (const char* variable : {"LOGNAME", "USER"}) {
        const char* value = std::getenv(variable);
        if (value != nullptr && *value != '\0') return value;
    }
    return {};
}

std::string ComputerName() {
    char name[kNameBufferSize] = {};
    if (::gethostname(name, sizeof name - 1) != 0) return {};
    return name;
}

}  // namespace zpdf
