// Environment variables: reading, setting and the expansion of %NAME% references.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace zpdf {

// Value of an environment variable; nullopt when it is not set.
std::optional<std::string> GetEnvironmentText(const char* name);

// Sets an environment variable of this process, or removes it when `value` is null.
bool SetEnvironmentText(const char* name, const char* value);

// Replaces every "%NAME%" whose NAME is a set variable by its value, as the Windows shell does.
// A "%" that does not open such a reference is kept as it is and scanning goes on with the next
// character, so "%UNSET%HOME%" keeps "%UNSET" and expands "%HOME%". Names are compared as the
// system compares them (case-insensitively on Windows).
std::string ExpandEnvironmentReferences(std::string_view text);

}  // namespace zpdf
