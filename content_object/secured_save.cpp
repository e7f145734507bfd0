// The secured saves: the side-file road of Save with a secured writer as its serialiser.
#include <optional>
#include <string>
#include <vector>

#include "content_object/content_object.h"
#include "content_object/side_file_save.h"
#include "engine/engine.h"
#include "engine/security/secured_save.h"

namespace zpdf {

HResult CZPdfContentObject::SaveWithSecurity(const OptionalText& UserPassword,
                                             const OptionalText& OwnerPassword) {
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    return SaveWithSecurityTo(ToPath(*pdf_file_), UserPassword, OwnerPassword);
}

HResult CZPdfContentObject::SaveWithSecurityTo(const std::filesystem::path& target,
                                               const OptionalText& UserPassword,
                                               const OptionalText& OwnerPassword) {
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    if (!IsDocumentOpen()) return hr::kOk;  // never opened, so nothing to re-secure

    std::optional<std::string> user;
    std::optional<std::string> owner;
    if (OwnerPassword) owner = ToAnsi(*OwnerPassword);
    if (UserPassword) user = ToAnsi(*UserPassword);
    const SideFileSaveResult saved = SaveThroughSideFile(
        *this, target,
        [&](engine::ByteSink& sink) { engine::SaveWithPasswords(*document_, sink, user, owner); },
        VersionReadFrom(target));
    return Saved(saved);
}

HResult CZPdfContentObject::SaveWithPubKeySecurity(const std::vector<OptionalText>* recipients) {
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    return SaveWithPubKeySecurityTo(ToPath(*pdf_file_), recipients);
}

HResult CZPdfContentObject::SaveWithPubKeySecurityTo(const std::filesystem::path& target,
                                                     const std::vector<OptionalText>* recipients) {
    if (!HasPath()) return Fail(hr::kUnexpected, "No document is set");
    if (const HResult opened = EnsurePdfDocument(); hr::Failed(opened)) return opened;
    if (recipients == nullptr) return Fail(hr::kInvalidArg, "No recipient list was given");
    if (recipients->empty()) return Fail(hr::kInvalidArg, "The recipient list is empty");

    std::vector<std::string> certificates;
    certificates.reserve(recipients->size());
    for (const OptionalText& recipient : *recipients) {
        certificates.push_back(recipient ? ToAnsi(*recipient) : std::string());
    }
    const SideFileSaveResult saved = SaveThroughSideFile(
        *this, target,
        [&](engine::ByteSink& sink) { engine::SaveWithRecipients(*document_, sink, certificates); },
        VersionReadFrom(target));
    return Saved(saved);
}

}  // namespace zpdf
