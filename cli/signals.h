// zpdf's answer to being interrupted: the side files and private copies it is writing are
// removed before it ends with the status the signal gives.
#pragma once

namespace zpdf::cli {

// Installs the handlers for SIGINT, SIGTERM and SIGHUP (Ctrl-C and Ctrl-Break on Windows).
void RemoveFilesWhenInterrupted();

}  // namespace zpdf::cli
