// A document opened for editing from the command line: changed in memory, then saved over its
// file, or with an output name to that file, through the side file that replaces the target
// only when complete. The user's input file is never left half-written.
#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "cli/command.h"
#include "cli/open_options.h"
#include "cli/streams.h"
#include "content_object/content_object.h"

namespace zpdf::cli {

class EditSession {
  public:
    explicit EditSession(const Command& command) : command_(command) {}
    EditSession(const EditSession&) = delete;
    EditSession& operator=(const EditSession&) = delete;
    ~EditSession() { object_.ResetDocument(); }

    // Returns 0, or the exit code after printing why the document cannot be edited. A FILE of
    // "-" is standard input (an output is needed then); an output of "-" is standard output.
    // With a key and a certificate FILE is read as a plain copy, so an output is needed too.
    int Begin(const std::string& file, const std::optional<std::string>& output,
              const OpenOptions& options);
    CZPdfContentObject& Object() { return object_; }
    // Saves the document and puts it in place. Returns 0 or the exit code after the message.
    int Commit();
    // Where the result goes, as the user named it.
    std::string DestinationName() const;
    // The file the result is written to.
    const std::filesystem::path& Destination() const { return destination_; }

  private:
    const Command& command_;
    ReadableFile readable_{command_};
    CZPdfContentObject object_;
    std::filesystem::path destination_;
    std::string input_name_;  // FILE as the user named it
    bool to_output_ = false;
    StreamFile input_;
    StreamFile output_;
};

// Progress may be shown: standard error is a terminal and zpdf is not quiet.
bool ProgressWanted();

// A progress line on standard error, shown only when it is wanted and the job is long.
class Progress {
  public:
    Progress(const char* what, long total);
    ~Progress();
    void Step(long done);

  private:
    const char* what_;
    long total_;
    bool shown_;
};

}  // namespace zpdf::cli
