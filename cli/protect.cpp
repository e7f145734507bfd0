// zpdf protect and zpdf protect-pubkey: the two secured saves.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "cli/command.h"
#include "cli/outputs.h"
#include "content_object/content_object.h"
#include "platform/files.h"

namespace zpdf::cli {
namespace {

// Opens FILE as the engine would (with --password when given). On failure prints the reason
// and returns the exit code; 0 when the document is open.
int OpenSource(const Command& command, CZPdfContentObject& object, const std::string& file,
               const Arguments& parsed) {
    OptionalText password = std::u16string();
    if (auto pw = parsed.Value("--password")) password = FromAnsi(*pw);
    HResult result = object.SetPdfDocument(FromAnsi(file), 0, password);
    if (hr::Failed(result)) return Failure(command, file, object.LastErrorText(), result);
    result = object.EnsurePdfDocument();
    if (hr::Failed(result)) return Failure(command, file, object.LastErrorText(), result);
    return kExitOk;
}

// Runs a secured save over FILE itself, or into OUT (FILE is then left as it is).
template <typename SaveInPlace, typename SaveTo>
int Secure(const Command& command, CZPdfContentObject& object, const std::string& file,
           const Arguments& parsed, SaveInPlace save_in_place, SaveTo save_to) {
    const std::optional<std::string> out = parsed.Value("-o");
    const HResult result = out ? save_to(ToPath(FromAnsi(*out))) : save_in_place();
    if (hr::Failed(result)) {
        return Failure(command, out ? *out : file, object.LastErrorText(), result);
    }
    std::printf("%s: written\n", (out ? *out : file).c_str());
    return kExitOk;
}

int RunProtect(const std::vector<std::string>& args);
int RunProtectPubKey(const std::vector<std::string>& args);

}  // namespace

const Command kProtectCommand{
    "protect", "re-secure an encrypted PDF with new passwords (AES-256)",
    "Usage: zpdf protect FILE [--user PW] [--owner PW] [--password PW] [-o OUT]\n"
    "\n"
    "Writes FILE encrypted with AES-256 (standard security, revision 6) under new\n"
    "passwords, keeping its permissions. FILE must already be encrypted: an\n"
    "unencrypted file is refused and left as it is.\n"
    "\n"
    "Options:\n"
    "  --user PW      the new user (open) password; empty when not given\n"
    "  --owner PW     the new owner (permissions) password; empty when not given\n"
    "  --password PW  the password that opens FILE now\n"
    "  -o OUT         write the result to OUT and leave FILE as it is; without it\n"
    "                 FILE is replaced, only once the new file is complete\n",
    RunProtect};

const Command kProtectPubKeyCommand{
    "protect-pubkey", "re-secure an encrypted PDF for certificate holders",
    "Usage: zpdf protect-pubkey FILE CERT.pem... [--password PW] [-o OUT]\n"
    "\n"
    "Writes FILE encrypted with AES-256 for the holders of the certificates\n"
    "(public-key security): each of them opens it with the private key of their\n"
    "certificate. Each CERT.pem holds one PEM certificate (\"CERTIFICATE\" or\n"
    "\"TRUSTED CERTIFICATE\"). FILE must already be encrypted: an unencrypted file is\n"
    "refused and left as it is.\n"
    "\n"
    "Options:\n"
    "  --password PW  the password that opens FILE now\n"
    "  -o OUT         write the result to OUT and leave FILE as it is; without it\n"
    "                 FILE is replaced, only once the new file is complete\n",
    RunProtectPubKey};

namespace {

int RunProtect(const std::vector<std::string>& args) {
    Arguments parsed({"--user", "--owner", "--password", "-o"}, {});
    if (!parsed.Parse(args)) return UsageError(kProtectCommand, parsed.Error());
    if (parsed.Positional().size() != 1) return UsageError(kProtectCommand, "expected one FILE");
    const std::string& file = parsed.Positional()[0];

    CZPdfContentObject object;
    if (const int rc = OpenSource(kProtectCommand, object, file, parsed)) return rc;
    OptionalText user;
    OptionalText owner;
    if (auto pw = parsed.Value("--user")) user = FromAnsi(*pw);
    if (auto pw = parsed.Value("--owner")) owner = FromAnsi(*pw);
    return Secure(
        kProtectCommand, object, file, parsed, [&] { return object.SaveWithSecurity(user, owner); },
        [&](const std::filesystem::path& out) {
            return object.SaveWithSecurityTo(out, user, owner);
        });
}

int RunProtectPubKey(const std::vector<std::string>& args) {
    Arguments parsed({"--password", "-o"}, {});
    if (!parsed.Parse(args)) return UsageError(kProtectPubKeyCommand, parsed.Error());
    if (parsed.Positional().size() < 2) {
        return UsageError(kProtectPubKeyCommand, "expected FILE and at least one CERT.pem");
    }
    const std::string& file = parsed.Positional()[0];

    std::vector<OptionalText> recipients;
    for (std::size_t i = 1; i < parsed.Positional().size(); ++i) {
        const std::string& name = parsed.Positional()[i];
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
        recipients.push_back(FromAnsi(text.str()));
    }

    const std::optional<std::string> output = parsed.Value("-o");
    const std::vector<std::string> certificates(parsed.Positional().begin() + 1,
                                                parsed.Positional().end());
    if (const int rc = RefuseOutputOverInputs(
            kProtectPubKeyCommand, ToPath(FromAnsi(output ? *output : file)), certificates))
        return rc;
    CZPdfContentObject object;
    if (const int rc = OpenSource(kProtectPubKeyCommand, object, file, parsed)) return rc;
    return Secure(
        kProtectPubKeyCommand, object, file, parsed,
        [&] { return object.SaveWithPubKeySecurity(&recipients); },
        [&](const std::filesystem::path& out) {
            return object.SaveWithPubKeySecurityTo(out, &recipients);
        });
}

}  // namespace
}  // namespace zpdf::cli
