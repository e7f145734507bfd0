#include "cli/open_options.h"

#include <cstdio>
#include <fstream>
#include <sstream>

#include "content_object/side_file_save.h"
#include "engine/security/pubkey_open.h"
#include "platform/files.h"

namespace zpdf::cli {
namespace {

// The whole text of a small file; nothing when it cannot be read.
std::optional<std::string> ReadSmallFile(const std::string& name) {
    std::ifstream in(ToPath(FromAnsi(name)), std::ios::binary);
    if (!in.is_open()) return std::nullopt;
    std::ostringstream text;
    text << in.rdbuf();
    if (in.bad()) return std::nullopt;
    return text.str();
}

// Closes a C stream when it goes.
class ClosingFile {
  public:
    explicit ClosingFile(std::FILE* file) : file_(file) {}
    ClosingFile(const ClosingFile&) = delete;
    ClosingFile& operator=(const ClosingFile&) = delete;
    ~ClosingFile() { Close(); }
    std::FILE* get() const { return file_; }
    void Close() {
        if (file_ != nullptr) std::fclose(file_);
        file_ = nullptr;
    }

  private:
    std::FILE* file_;
};

}  // namespace

std::set<std::string> WithOpenOptions(std::set<std::string> valued, const std::string& prefix) {
    valued.insert({prefix + "password", prefix + "key", prefix + "cert"});
    return valued;
}

std::optional<std::string> ReadOpenOptions(const Arguments& parsed, OpenOptions* options,
                                           const std::string& prefix) {
    options->password = parsed.Value(prefix + "password");
    options->key = parsed.Value(prefix + "key");
    options->cert = parsed.Value(prefix + "cert");
    if (options->key.has_value() != options->cert.has_value()) {
        return prefix + "key and " + prefix + "cert go together";
    }
    if (options->key && options->password) {
        return prefix + "password and " + prefix + "key open different kinds of files; give one";
    }
    return std::nullopt;
}

std::optional<std::string> RefuseRecipientInPlace(const OpenOptions& options,
                                                  const std::optional<std::string>& output,
                                                  const std::string& key_option) {
    if (!options.ForRecipient() || output) return std::nullopt;
    return key_option +
           " needs -o OUT: FILE is read as a plain copy, and writing the result over FILE would "
           "drop its certificate security";
}

int WriteRecipientPlainCopy(const Command& command, const std::string& file,
                            const OpenOptions& options, const std::filesystem::path& target) {
    const std::optional<std::string> key = ReadSmallFile(*options.key);
    if (!key) return Failure(command, *options.key, "cannot read the key file", hr::kInvalidArg);
    const std::optional<std::string> cert = ReadSmallFile(*options.cert);
    if (!cert) {
        return Failure(command, *options.cert, "cannot read the certificate file", hr::kInvalidArg);
    }
    ClosingFile source(fs::OpenFile(ToPath(FromAnsi(file)), "rb"));
    if (source.get() == nullptr) {
        return Failure(command, file, "cannot open the file",
                       hr::FromWin32(fs::kErrorFileNotFound));
    }
    fs::FileReplacement output(target);
    if (const int error = output.Open()) {
        return Failure(command, target.string(), "cannot create the file", hr::FromWin32(error));
    }
    FileReplacementSink sink(output);
    try {
        engine::SaveDecryptedForRecipient(source.get(), *key, *cert, sink);
    } catch (const engine::RecipientKeyError& error) {
        using Subject = engine::RecipientKeyError::Subject;
        const std::string& blamed = error.Blamed() == Subject::Key           ? *options.key
                                    : error.Blamed() == Subject::Certificate ? *options.cert
                                                                             : file;
        return Failure(command, blamed, error.what(), hr::kFail);
    } catch (const std::exception& error) {
        if (sink.Error() != 0) {
            return Failure(command, target.string(), "cannot write the file",
                           hr::FromWin32(sink.Error()));
        }
        return Failure(command, file, error.what(), hr::kFail);
    }
    source.Close();
    if (const int error = output.Commit()) {
        return Failure(command, target.string(), "cannot write the file", hr::FromWin32(error));
    }
    return kExitOk;
}

ReadableFile::~ReadableFile() {
    if (!plain_copy_.empty()) fs::RemoveQuietly(plain_copy_);
}

int ReadableFile::Make(const std::string& file, const OpenOptions& options) {
    path_ = FromAnsi(file);
    password_ = std::u16string();
    if (options.password) password_ = FromAnsi(*options.password);
    if (!options.ForRecipient()) return kExitOk;
    fs::OutputFile created;  // replaced as a whole by the plain copy below
    if (const int error = fs::CreateTempFile(&plain_copy_, &created)) {
        plain_copy_.clear();
        return Failure(command_, file, "cannot create a temporary file", hr::FromWin32(error));
    }
    created.Close();
    if (const int rc = WriteRecipientPlainCopy(command_, file, options, plain_copy_)) return rc;
    path_ = FromPath(plain_copy_);
    password_ = std::u16string();
    return kExitOk;
}

OpenedDocument::~OpenedDocument() {
    object_.ResetDocument();
}

int OpenedDocument::Open(const std::string& file, const OpenOptions& options) {
    if (const int rc = readable_.Make(file, options)) return rc;
    HResult result = object_.SetPdfDocument(readable_.Path(), 0, readable_.Password());
    if (hr::Succeeded(result)) result = object_.EnsurePdfDocument();
    if (hr::Failed(result)) {
        std::string why = object_.LastErrorText();
        // The engine names the certificate handler it does not read; the user needs the way in.
        if (!options.ForRecipient() && why.find("Adobe.PubSec") != std::string::npos) {
            why += "; a file secured for certificate holders opens with --key and --cert";
        }
        return Failure(command_, file, why, result);
    }
    return kExitOk;
}

}  // namespace zpdf::cli
