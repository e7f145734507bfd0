// What the fuzz targets share.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <string>

namespace zpdf::fuzz {

// Stops the run when a promise does not hold.
inline void Check(bool condition) {
    if (!condition) std::abort();
}

// A new folder for the run's files, removed at exit; TMPDIR points at it, so that the
// component's private copies land there too.
inline std::filesystem::path RunFolder() {
    static std::filesystem::path folder;
    std::string base = (std::filesystem::temp_directory_path() / "zpdf-fuzz-XXXXXX").string();
    Check(::mkdtemp(base.data()) != nullptr);
    folder = base;
    ::setenv("TMPDIR", base.c_str(), 1);
    std::atexit([] {
        std::error_code ec;
        std::filesystem::remove_all(folder, ec);
    });
    return folder;
}

}  // namespace zpdf::fuzz
