// How a zpdf command opens a document it reads: with a password, or as the holder of a
// certificate the document was secured for, with its private key. Commands add the options
// with WithOpenOptions, read them with ReadOpenOptions and open with OpenedDocument.
#pragma once

#include <filesystem>
#include <optional>
#include <set>
#include <string>

#include "cli/command.h"
#include "content_object/content_object.h"

namespace zpdf::cli {

struct OpenOptions {
    std::optional<std::string> password;
    std::optional<std::string> key;   // the private key's PEM file
    std::optional<std::string> cert;  // the certificate's PEM file
    bool ForRecipient() const { return key.has_value(); }
};

// `valued` with --password, --key and --cert added; with a `prefix` such as "--source-", the
// options of another file the command reads: --source-password, --source-key, --source-cert.
std::set<std::string> WithOpenOptions(std::set<std::string> valued,
                                      const std::string& prefix = "--");

// Reads the options named with `prefix`; the text of a usage error when they do not go
// together (a key without a certificate or the other way round, or either with a password).
std::optional<std::string> ReadOpenOptions(const Arguments& parsed, OpenOptions* options,
                                           const std::string& prefix = "--");

// The text of a usage error when `options` hold a key and a certificate but the command would
// write its result over FILE itself (no -o): that result would no longer be secured.
std::optional<std::string> RefuseRecipientInPlace(const OpenOptions& options,
                                                  const std::optional<std::string>& output,
                                                  const std::string& key_option = "--key");

// The file a command reads FILE from: FILE itself, or for a certificate holder a plain copy of
// it in a private temporary file, removed when this goes (close what reads it first).
class ReadableFile {
  public:
    explicit ReadableFile(const Command& command) : command_(command) {}
    ReadableFile(const ReadableFile&) = delete;
    ReadableFile& operator=(const ReadableFile&) = delete;
    ~ReadableFile();

    // Returns 0, or the exit code after printing why the plain copy cannot be made.
    int Make(const std::string& file, const OpenOptions& options);
    const std::u16string& Path() const { return path_; }
    // The password that opens Path(): none for a plain copy.
    OptionalText Password() const { return password_; }

  private:
    const Command& command_;
    std::u16string path_;
    OptionalText password_ = std::u16string();
    std::filesystem::path plain_copy_;
};

// A document opened for reading. For a certificate holder the document is decrypted into a
// private temporary file, which the content object opens and which is removed when this goes.
class OpenedDocument {
  public:
    explicit OpenedDocument(const Command& command) : command_(command) {}
    OpenedDocument(const OpenedDocument&) = delete;
    OpenedDocument& operator=(const OpenedDocument&) = delete;
    ~OpenedDocument();

    // Returns 0, or the exit code after printing why FILE cannot be opened.
    int Open(const std::string& file, const OpenOptions& options);
    CZPdfContentObject& Object() { return object_; }

  private:
    const Command& command_;
    ReadableFile readable_{command_};
    CZPdfContentObject object_;
};

// Writes a plain copy of the certificate-secured FILE to `target` (which may be FILE itself)
// through the target's side file, for the holder of options.key and options.cert. Returns 0,
// or the exit code after printing why: a message about the key or the certificate names that
// file.
int WriteRecipientPlainCopy(const Command& command, const std::string& file,
                            const OpenOptions& options, const std::filesystem::path& target);

}  // namespace zpdf::cli
