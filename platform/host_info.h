// Who and where the process runs, as the log lines show it.
#pragma once

#include <string>

namespace zpdf {

// Name of the user the process runs as; empty when it cannot be read.
std::string CurrentUserName();

// Name of this computer; empty when it cannot be read.
std::string ComputerName();

// "user@computer"; a part that cannot be read stays empty, the "@" is always there.
std::string UserAtComputer();

}  // namespace zpdf
