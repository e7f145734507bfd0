// Where this code was loaded from, for files installed beside it.
#pragma once

#include <filesystem>
#include <string>

namespace zpdf {

// Full path of the file that holds this code: the DLL on Windows (not the host process's
// executable); elsewhere the shared library or executable it is linked into. Empty when it
// cannot be found.
std::filesystem::path ModuleFilePath();

// A path as the narrow C file functions (fopen) take it: the ANSI code page on Windows, the
// bytes as they are elsewhere.
std::string NarrowPath(const std::filesystem::path& path);

}  // namespace zpdf
