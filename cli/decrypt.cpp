// zpdf decrypt: a plain copy of an encrypted PDF, opened with its password or, for a file
// secured for certificate holders, with a holder's private key.
#include <cstdio>

#include "cli/command.h"
#include "cli/open_options.h"
#include "content_object/side_file_save.h"
#include "engine/security/protection.h"

namespace zpdf::cli {
namespace {

int RunDecrypt(const std::vector<std::string>& args) {
    Arguments parsed(WithOpenOptions({"-o"}), {});
    if (!parsed.Parse(args)) return UsageError(kDecryptCommand, parsed.Error());
    if (parsed.Positional().size() != 1) return UsageError(kDecryptCommand, "expected one FILE");
    const std::string& file = parsed.Positional()[0];
    OpenOptions open;
    if (auto error = ReadOpenOptions(parsed, &open)) return UsageError(kDecryptCommand, *error);
    const std::string shown = parsed.Value("-o").value_or(file);
    const std::filesystem::path target = ToPath(FromAnsi(shown));

    if (open.ForRecipient()) {
        if (const int rc = WriteRecipientPlainCopy(kDecryptCommand, file, open, target)) return rc;
    } else {
        OpenedDocument opened(kDecryptCommand);
        if (const int rc = opened.Open(file, open)) return rc;
        CZPdfContentObject& object = opened.Object();
        const SideFileSaveResult saved = SaveThroughSideFile(
            object, target,
            [&](engine::ByteSink& sink) { engine::SaveDecrypted(object.EngineDocument(), sink); },
            object.VersionReadFrom(target));
        if (hr::Failed(saved.result)) {
            return Failure(kDecryptCommand, shown, saved.why, saved.result);
        }
    }
    Say("%s: written\n", shown.c_str());
    return kExitOk;
}

}  // namespace

const Command kDecryptCommand{
    "decrypt", "write a plain copy of an encrypted PDF",
    "Usage: zpdf decrypt FILE [--password PW | --key KEY.pem --cert CERT.pem] [-o OUT]\n"
    "\n"
    "Writes FILE without encryption. A password-secured FILE is opened with\n"
    "--password (the user or the owner password); a FILE secured for certificate\n"
    "holders with --key and --cert, the private key and the certificate of one of\n"
    "its recipients. A plain FILE is written as it is.\n"
    "\n"
    "Options:\n"
    "  --password PW  the password that opens FILE\n"
    "  --key KEY.pem  the recipient's private key (PEM, unencrypted)\n"
    "  --cert CERT.pem\n"
    "                 the recipient's certificate (PEM)\n"
    "  -o OUT         write the result to OUT and leave FILE as it is; without it\n"
    "                 FILE is replaced, only once the new file is complete\n",
    RunDecrypt};

}  // namespace zpdf::cli
