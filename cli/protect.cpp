// zpdf protect and zpdf protect-pubkey: a document, plain or encrypted, written encrypted with
// passwords and permissions, or for certificate holders.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/command.h"
#include "cli/open_options.h"
#include "cli/outputs.h"
#include "content_object/content_object.h"
#include "content_object/side_file_save.h"
#include "engine/security/protection.h"
#include "engine/security/recipient_check.h"
#include "platform/files.h"

namespace zpdf::cli {
namespace {

struct PermissionName {
    const char* name;
    std::uint32_t bits;
};

// The names --allow and --deny take.
constexpr PermissionName kPermissionNames[] = {
    {"print", engine::kPermitPrint | engine::kPermitPrintHighQuality},
    {"modify", engine::kPermitModify},
    {"extract", engine::kPermitExtract},
    {"annotate", engine::kPermitAnnotate},
    {"form", engine::kPermitForm},
    {"assemble", engine::kPermitAssemble},
    {"accessibility", engine::kPermitAccessibility},
    {"all", engine::kAllPermissions},
};

// The permission bits a comma-separated list names; nothing when a name is unknown or the list
// is empty.
std::optional<std::uint32_t> ParsePermissionList(const std::string& list) {
    std::uint32_t bits = 0;
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = list.find(',', start);
        const std::string name =
            list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
        bool known = false;
        for (const PermissionName& permission : kPermissionNames) {
            if (name == permission.name) {
                bits |= permission.bits;
                known = true;
            }
        }
        if (!known) return std::nullopt;
        if (comma == std::string::npos) return bits;
        start = comma + 1;
    }
}

// One password of `protect`, from whichever of its sources was given. Returns the usage error
// or the failure, or nothing and the password.
struct PasswordSource {
    const char* role;  // "user" or "owner"
    std::string value_option;
    std::string file_option;
    std::string env_option;
    std::string empty_option;
};

// 0 and the password in `password`, or the exit code after the message.
int ReadPassword(const Command& command, const Arguments& parsed, const PasswordSource& source,
                 std::string* password) {
    int given = 0;
    for (const std::string* option :
         {&source.value_option, &source.file_option, &source.env_option, &source.empty_option}) {
        given += parsed.Has(*option) ? 1 : 0;
    }
    if (given > 1) {
        return UsageError(command,
                          std::string("give the ") + source.role + " password one way only");
    }
    password->clear();
    if (auto value = parsed.Value(source.value_option)) {
        *password = *value;
    } else if (auto name = parsed.Value(source.file_option)) {
        std::ifstream in(ToPath(FromAnsi(*name)), std::ios::binary);
        if (!in.is_open()) {
            return Failure(command, *name, "cannot read the password file", hr::kInvalidArg);
        }
        std::getline(in, *password);  // the first line; its line end is not part of it
        if (!password->empty() && password->back() == '\r') password->pop_back();
    } else if (auto variable = parsed.Value(source.env_option)) {
        const char* setting = std::getenv(variable->c_str());
        if (setting == nullptr) {
            return UsageError(command, "the variable " + *variable + " is not set");
        }
        *password = setting;
    }
    if (password->empty() && !parsed.Has(source.empty_option)) {
        return UsageError(command, std::string("the ") + source.role +
                                       " password is empty: give one, or " + source.empty_option +
                                       " to mean it");
    }
    return kExitOk;
}

// Where the result goes: OUT, or FILE itself.
std::filesystem::path Target(const Arguments& parsed, const std::string& file) {
    return ToPath(FromAnsi(parsed.Value("-o").value_or(file)));
}

// Writes the opened document to the target through its side file.
int WriteSecured(const Command& command, OpenedDocument& opened, const std::string& file,
                 const Arguments& parsed, const DocumentSerialiser& serialise) {
    const std::filesystem::path target = Target(parsed, file);
    const SideFileSaveResult saved = SaveThroughSideFile(opened.Object(), target, serialise,
                                                         opened.Object().VersionReadFrom(target));
    const std::string shown = parsed.Value("-o").value_or(file);
    if (hr::Failed(saved.result)) return Failure(command, shown, saved.why, saved.result);
    Say("%s: written\n", shown.c_str());
    return kExitOk;
}

int RunProtect(const std::vector<std::string>& args);
int RunProtectPubKey(const std::vector<std::string>& args);

}  // namespace

const Command kProtectCommand{
    "protect", "encrypt a PDF with passwords and permissions (AES-256)",
    "Usage: zpdf protect FILE (--user PW | --user-file F | --user-env VAR | --empty-user)\n"
    "                         (--owner PW | --owner-file F | --owner-env VAR | --empty-owner)\n"
    "                         [--allow LIST] [--deny LIST] [-o OUT]\n"
    "                         [--password PW | --key KEY.pem --cert CERT.pem]\n"
    "\n"
    "Writes FILE, plain or encrypted, encrypted with AES-256 (standard security,\n"
    "revision 6) under a user (open) password and an owner (permissions) password.\n"
    "Each password is given once: on the command line, as the first line of a file,\n"
    "or in an environment variable. An empty password must be asked for with\n"
    "--empty-user or --empty-owner.\n"
    "\n"
    "Permissions are those of FILE when it is encrypted, all of them when it is not.\n"
    "--allow grants only the listed ones, --deny takes the listed ones away (after\n"
    "--allow). A LIST is comma-separated: print, modify, extract, annotate, form,\n"
    "assemble, accessibility, all. Readers enforce them for users without the owner\n"
    "password.\n"
    "\n"
    "Options:\n"
    "  --user PW, --owner PW          the password itself\n"
    "  --user-file F, --owner-file F  the first line of file F\n"
    "  --user-env V, --owner-env V    the value of environment variable V\n"
    "  --empty-user, --empty-owner    an empty password, on purpose\n"
    "  --allow LIST   grant only these permissions\n"
    "  --deny LIST    take these permissions away\n"
    "  -o OUT         write the result to OUT and leave FILE as it is; without it\n"
    "                 FILE is replaced, only once the new file is complete\n"
    "How FILE is opened:\n"
    "  --password PW  the password that opens FILE now\n"
    "  --key KEY.pem --cert CERT.pem\n"
    "                 open a FILE secured for certificate holders as the holder of\n"
    "                 CERT.pem, with its private key KEY.pem\n",
    RunProtect};

const Command kProtectPubKeyCommand{
    "protect-pubkey", "encrypt a PDF for certificate holders",
    "Usage: zpdf protect-pubkey FILE CERT.pem... [-o OUT]\n"
    "                           [--password PW | --key KEY.pem --cert CERT.pem]\n"
    "\n"
    "Writes FILE, plain or encrypted, encrypted with AES-256 for the holders of the\n"
    "certificates (public-key security): each of them opens it with the private key\n"
    "of their certificate (zpdf decrypt --key KEY.pem --cert CERT.pem). Every\n"
    "certificate of each PEM file (\"CERTIFICATE\" or \"TRUSTED CERTIFICATE\" blocks)\n"
    "is a recipient, so a bundle gives as many recipients as it holds. Only\n"
    "certificates with RSA keys can be recipients; one with another key (EC, say)\n"
    "is refused.\n"
    "\n"
    "Options:\n"
    "  -o OUT         write the result to OUT and leave FILE as it is; without it\n"
    "                 FILE is replaced, only once the new file is complete\n"
    "How FILE is opened:\n"
    "  --password PW  the password that opens FILE now\n"
    "  --key KEY.pem --cert CERT.pem\n"
    "                 open a FILE secured for certificate holders as the holder of\n"
    "                 CERT.pem, with its private key KEY.pem\n",
    RunProtectPubKey};

namespace {

int RunProtect(const std::vector<std::string>& args) {
    Arguments parsed(WithOpenOptions({"--user", "--owner", "--user-file", "--owner-file",
                                      "--user-env", "--owner-env", "--allow", "--deny", "-o"}),
                     {"--empty-user", "--empty-owner"});
    if (!parsed.Parse(args)) return UsageError(kProtectCommand, parsed.Error());
    if (parsed.Positional().size() != 1) return UsageError(kProtectCommand, "expected one FILE");
    const std::string& file = parsed.Positional()[0];
    OpenOptions open;
    if (auto error = ReadOpenOptions(parsed, &open)) return UsageError(kProtectCommand, *error);

    std::optional<std::uint32_t> allowed;
    std::uint32_t denied = 0;
    if (auto list = parsed.Value("--allow")) {
        allowed = ParsePermissionList(*list);
        if (!allowed) return UsageError(kProtectCommand, "--allow: unknown permission in " + *list);
    }
    if (auto list = parsed.Value("--deny")) {
        const auto bits = ParsePermissionList(*list);
        if (!bits) return UsageError(kProtectCommand, "--deny: unknown permission in " + *list);
        denied = *bits;
    }
    std::string user;
    std::string owner;
    if (const int rc =
            ReadPassword(kProtectCommand, parsed,
                         {"user", "--user", "--user-file", "--user-env", "--empty-user"}, &user)) {
        return rc;
    }
    if (const int rc = ReadPassword(
            kProtectCommand, parsed,
            {"owner", "--owner", "--owner-file", "--owner-env", "--empty-owner"}, &owner)) {
        return rc;
    }

    OpenedDocument opened(kProtectCommand);
    if (const int rc = opened.Open(file, open)) return rc;
    std::optional<std::int32_t> source_permissions;
    try {
        source_permissions = engine::SourcePermissions(opened.Object().EngineDocument());
    } catch (const std::exception& error) {
        return Failure(kProtectCommand, file, error.what(), hr::kFail);
    }
    std::uint32_t granted = engine::kAllPermissions;
    if (source_permissions) granted = static_cast<std::uint32_t>(*source_permissions);
    if (allowed) granted = *allowed;
    const std::int32_t permissions = engine::PermissionsValue(granted & ~denied);
    return WriteSecured(kProtectCommand, opened, file, parsed, [&](engine::ByteSink& sink) {
        engine::SaveProtected(opened.Object().EngineDocument(), sink, user, owner, permissions);
    });
}

int RunProtectPubKey(const std::vector<std::string>& args) {
    Arguments parsed(WithOpenOptions({"-o"}), {});
    if (!parsed.Parse(args)) return UsageError(kProtectPubKeyCommand, parsed.Error());
    if (parsed.Positional().size() < 2) {
        return UsageError(kProtectPubKeyCommand, "expected FILE and at least one CERT.pem");
    }
    const std::string& file = parsed.Positional()[0];
    OpenOptions open;
    if (auto error = ReadOpenOptions(parsed, &open)) {
        return UsageError(kProtectPubKeyCommand, *error);
    }

    std::vector<std::string> recipients;
    const std::vector<std::string> names(parsed.Positional().begin() + 1,
                                         parsed.Positional().end());
    const std::optional<std::string> output = parsed.Value("-o");
    if (const int rc = RefuseOutputOverInputs(kProtectPubKeyCommand,
                                              ToPath(FromAnsi(output ? *output : file)), names))
        return rc;
    for (const std::string& name : names) {
        std::ifstream in(ToPath(FromAnsi(name)), std::ios::binary);
        std::ostringstream text;
        if (in.is_open()) text << in.rdbuf();
        if (!in.is_open() || in.bad()) {
            return Failure(kProtectPubKeyCommand, name,
                           fs::FileExists(ToPath(FromAnsi(name)))
                               ? "cannot read the certificate file"
                               : "cannot read the certificate file: it does not exist",
                           hr::kInvalidArg);
        }
        recipients.push_back(text.str());
    }
    try {
        engine::CheckRecipientCertificates(recipients);
    } catch (const engine::RecipientCertificateError& error) {
        return Failure(kProtectPubKeyCommand, names[error.Text()], error.Reason(), hr::kFail);
    }

    OpenedDocument opened(kProtectPubKeyCommand);
    if (const int rc = opened.Open(file, open)) return rc;
    return WriteSecured(kProtectPubKeyCommand, opened, file, parsed, [&](engine::ByteSink& sink) {
        engine::SaveForRecipients(opened.Object().EngineDocument(), sink, recipients);
    });
}

}  // namespace
}  // namespace zpdf::cli
