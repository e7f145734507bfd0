// Securing and unsecuring a document on the command line's terms, beyond the component's
// secured saves: any document can be encrypted with passwords and permissions of the caller's
// choice, and an encrypted one that was opened can be written in clear. This header is free of
// engine and crypto headers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "engine/engine.h"

namespace zpdf::engine {

// Permission bits of the standard security handler's P entry, by their bit (1-based) in P.
enum PermissionBit : std::uint32_t {
    kPermitPrint = 1u << 2,
    kPermitModify = 1u << 3,
    kPermitExtract = 1u << 4,
    kPermitAnnotate = 1u << 5,
    kPermitForm = 1u << 8,
    kPermitAccessibility = 1u << 9,
    kPermitAssemble = 1u << 10,
    kPermitPrintHighQuality = 1u << 11,
};
inline constexpr std::uint32_t kAllPermissions =
    kPermitPrint | kPermitModify | kPermitExtract | kPermitAnnotate | kPermitForm |
    kPermitAccessibility | kPermitAssemble | kPermitPrintHighQuality;

// The P value for the granted permission bits: the bits that must be set (7, 8 and 13 to 32)
// set, the two lowest clear, and of the others those granted.
std::int32_t PermissionsValue(std::uint32_t granted);

// Writes `doc`, plain or encrypted, with the standard security handler at revision 6 (AES-256)
// under these passwords (bytes, at most 127 of them count) and these permissions (a P value).
// Throws SecuredSaveError or EngineError.
void SaveProtected(Document& doc, ByteSink& sink, const std::string& user_password,
                   const std::string& owner_password, std::int32_t permissions);

// Writes `doc` without any encryption: what its opener decrypted is written in clear. Throws
// EngineError.
void SaveDecrypted(Document& doc, ByteSink& sink);

// Writes `doc`, plain or encrypted, with public-key security for the holders of the
// certificates, as SaveWithRecipients does for an encrypted one. Throws SecuredSaveError or
// EngineError.
void SaveForRecipients(Document& doc, ByteSink& sink, const std::vector<std::string>& recipients);

// The P value of the document's own file, nothing when the file is not encrypted. Throws
// EngineError.
std::optional<std::int32_t> SourcePermissions(Document& doc);

}  // namespace zpdf::engine
