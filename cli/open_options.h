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

// `valued` with --password, --key and --cert added.
std::set<std::string> WithOpenOptions(std::set<std::string> valued);

// Reads the options; the text of a usage error when they do not go together (--key without
// --cert or the other way round, or either with --password).
std::optional<std::string> ReadOpenOptions(const Arguments& parsed, OpenOptions* options);

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
    CZPdfContentObject object_;
    std::filesystem::path plain_copy_;
};

// Writes a plain copy of the certificate-secured FILE to `target` (which may be FILE itself)
// through the target's side file, for the holder of options.key and options.cert. Returns 0,
// or the exit code after printing why: a message about the key or the certificate names that
// file.
int WriteRecipientPlainCopy(const Command& command, const std::string& file,
                            const OpenOptions& options, const std::filesystem::path& target);

}  // namespace zpdf::cli
