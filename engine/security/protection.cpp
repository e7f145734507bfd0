#include "engine/security/protection.h"

#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>

#include "engine/internal.h"
#include "engine/security/secured_save.h"
#include "engine/security/source_security.h"
#include "engine/writer/document_writer.h"

namespace zpdf::engine {
namespace {

// The writer takes passwords of at most 127 bytes, which is also where revision 6 cuts them.
void CopyPassword(char (&field)[128], const std::string& password) {
    std::memset(field, 0, sizeof field);
    std::memcpy(field, password.data(), std::min(password.size(), sizeof field - 1));
}

// Wipes the passwords from the writer's options once they are no longer needed.
class WipeOptions {
  public:
    explicit WipeOptions(pdf_write_options& options) : options_(options) {}
    WipeOptions(const WipeOptions&) = delete;
    WipeOptions& operator=(const WipeOptions&) = delete;
    ~WipeOptions() {
        OPENSSL_cleanse(options_.upwd_utf8, sizeof options_.upwd_utf8);
        OPENSSL_cleanse(options_.opwd_utf8, sizeof options_.opwd_utf8);
    }

  private:
    pdf_write_options& options_;
};

// Bits 7, 8 and 13 to 32 of P are set whatever is granted.
constexpr std::uint32_t kRequiredPermissionBits = 0xFFFFF0C0u;

}  // namespace

std::int32_t PermissionsValue(std::uint32_t granted) {
    const std::uint32_t bits = kRequiredPermissionBits | (granted & kAllPermissions);
    std::int32_t value = 0;
    std::memcpy(&value, &bits, sizeof value);  // P is a signed 32-bit number
    return value;
}

void SaveProtected(Document& doc, ByteSink& sink, const std::string& user_password,
                   const std::string& owner_password, std::int32_t permissions) {
    Document::Impl& impl = doc.Internals();
    if (impl.doc == nullptr) throw SecuredSaveError("No document is open");
    PlaceObjectsBeforeChanges(impl);
    MakePendingChanges(impl, -1);

    pdf_write_options options = pdf_default_write_options;
    const WipeOptions wipe(options);
    options.do_incremental = 0;
    options.do_encrypt = PDF_ENCRYPT_AES_256;
    options.permissions = permissions;
    CopyPassword(options.upwd_utf8, user_password);
    CopyPassword(options.opwd_utf8, owner_password);
    RunEngineWriter(impl, sink, options);
}

void SaveDecrypted(Document& doc, ByteSink& sink) {
    Document::Impl& impl = doc.Internals();
    if (impl.doc == nullptr) throw EngineError(ErrorCategory::Other, "No document is open");
    PlaceObjectsBeforeChanges(impl);
    WritePlainDocument(impl, sink);
}

std::optional<std::int32_t> SourcePermissions(Document& doc) {
    Document::Impl& impl = doc.Internals();
    if (impl.doc == nullptr) return std::nullopt;
    const SourceSecurity source = ReadSourceSecurity(impl.ctx, impl.doc);
    if (!source.encrypted) return std::nullopt;
    return source.permissions;
}

}  // namespace zpdf::engine
