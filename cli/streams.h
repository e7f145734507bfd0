// Standard input and output in place of files: "-" as an input names a temporary copy of
// standard input, which the command opens like any file; "-" as an output names a temporary
// file whose bytes go to standard output once the command has written it. PDF needs random
// access, so a stream is always read whole before the document is opened.
#pragma once

#include <filesystem>
#include <string>

namespace zpdf::cli {

inline bool IsStandardStream(const std::string& name) {
    return name == "-";
}

class StreamFile {
  public:
    StreamFile() = default;
    StreamFile(const StreamFile&) = delete;
    StreamFile& operator=(const StreamFile&) = delete;
    // Removes the temporary file.
    ~StreamFile();

    // Copies standard input into a new temporary file. 0, or the error number of the failure.
    int ReadStandardInput();
    // Makes the temporary file that a command writes in place of standard output, and sends
    // zpdf's own messages to standard error from now on. 0 or the error number.
    int ForStandardOutput();
    // Makes a temporary file for the command's own use. 0 or the error number.
    int MakeTemporary();
    // Copies the temporary file to standard output. 0 or the error number.
    int WriteStandardOutput() const;

    const std::filesystem::path& Path() const { return path_; }
    std::string Name() const { return path_.string(); }

  private:
    std::filesystem::path path_;
};

// Whether a command's data goes to standard output, so that its messages must not.
bool StandardOutputTaken();

}  // namespace zpdf::cli
