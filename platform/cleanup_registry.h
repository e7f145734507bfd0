// The files a process must not leave behind when it is interrupted: side files being written
// and private "zpf" copies. A signal handler removes them with RemoveRegisteredFiles, which only
// reads a fixed table and calls unlink, so it is safe to call from a signal handler.
#pragma once

#include <filesystem>

namespace zpdf::fs {

// Puts `path` on the list; false when the list is full or the name too long (the file is then
// only removed by its owner, as before).
bool RegisterForCleanup(const std::filesystem::path& path);
// Takes `path` off the list (the file was moved into place or removed).
void UnregisterCleanup(const std::filesystem::path& path);
// Removes every file on the list. Async-signal-safe.
void RemoveRegisteredFiles() noexcept;
// How many files are on the list.
int RegisteredFileCount();

// Keeps the signals that end zpdf from arriving while a file is created and registered, so no
// file exists that the handler does not know about. Nested use is fine.
class CleanupSignalBlock {
  public:
    CleanupSignalBlock();
    ~CleanupSignalBlock();
    CleanupSignalBlock(const CleanupSignalBlock&) = delete;
    CleanupSignalBlock& operator=(const CleanupSignalBlock&) = delete;

  private:
    unsigned char saved_[256];
    bool blocked_ = false;
};

}  // namespace zpdf::fs
