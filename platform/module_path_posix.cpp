#include <dlfcn.h>

#include <system_error>

#include "platform/module_path.h"

namespace zpdf {
namespace {

// Any address inside this file's module does; a data object avoids casting code pointers.
const char kModuleAnchor = 0;

}  // namespace

std::filesystem::path ModuleFilePath() {
    std::error_code ec;
    Dl_info info{};
    if (::dladdr(&kModuleAnchor, &info) != 0 && info.dli_fname != nullptr) {
        const std::filesystem::path found(info.dli_fname);
        // The main program is often reported by a bare name or not at all; a name with a
        // directory part is the shared object itself.
        if (found.has_parent_path()) {
            std::filesystem::path absolute = std::filesystem::absolute(found, ec);
            if (!ec) return absolute;
        }
    }
    std::filesystem::path exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    if (ec) return {};
    return exe;
}

std::string NarrowPath(const std::filesystem::path& path) {
    return path.string();
}

}  // namespace zpdf
