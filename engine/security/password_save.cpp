// The password save: the engine's own writer produces exactly the revision-6 standard security
// entries we need (V 5, R 6, Length 256, StdCF with AESV3 and Length 32, EncryptMetadata true,
// O/U/OE/UE/Perms from the passwords); what it does not do by itself is write the 1.7 header
// for an older source and keep the source's permissions, which are set here.
#include <openssl/crypto.h>

#include <algorithm>
#include <cstring>

#include "engine/internal.h"
#include "engine/security/secured_save.h"
#include "engine/security/source_security.h"

namespace zpdf::engine {
namespace {

// The writer takes passwords of at most 127 bytes, which is also where revision 6 cuts them.
void CopyPassword(char (&field)[128], const std::optional<std::string>& password) {
    std::memset(field, 0, sizeof field);
    if (!password) return;
    const std::size_t length = std::min(password->size(), sizeof field - 1);
    std::memcpy(field, password->data(), length);
}

// Puts the document's version back when the write is over, however it ended.
class VersionOverride {
  public:
    VersionOverride(pdf_document* doc, int version) : doc_(doc), saved_(doc->version) {
        doc_->version = version;
    }
    VersionOverride(const VersionOverride&) = delete;
    VersionOverride& operator=(const VersionOverride&) = delete;
    ~VersionOverride() { doc_->version = saved_; }

  private:
    pdf_document* doc_;
    int saved_;
};

// Wipes the passwords from the writer's options once they are no longer needed.
class OptionsWiper {
  public:
    explicit OptionsWiper(pdf_write_options& options) : options_(options) {}
    OptionsWiper(const OptionsWiper&) = delete;
    OptionsWiper& operator=(const OptionsWiper&) = delete;
    ~OptionsWiper() {
        OPENSSL_cleanse(options_.upwd_utf8, sizeof options_.upwd_utf8);
        OPENSSL_cleanse(options_.opwd_utf8, sizeof options_.opwd_utf8);
    }

  private:
    pdf_write_options& options_;
};

}  // namespace

void SaveWithPasswords(Document& doc, ByteSink& sink,
                       const std::optional<std::string>& user_password,
                       const std::optional<std::string>& owner_password) {
    Document::Impl& impl = doc.Internals();
    if (impl.doc == nullptr) throw SecuredSaveError("No document is open");
    PlaceObjectsBeforeChanges(impl);
    const SourceSecurity source = ReadSourceSecurity(impl.ctx, impl.doc);
    if (!source.encrypted) throw SecuredSaveError(kNotEncryptedText);
    MakePendingChanges(impl, -1);

    pdf_write_options options = pdf_default_write_options;
    OptionsWiper wiper(options);
    options.do_incremental = 0;
    options.do_encrypt = PDF_ENCRYPT_AES_256;
    options.permissions = source.permissions;
    CopyPassword(options.upwd_utf8, user_password);
    CopyPassword(options.opwd_utf8, owner_password);

    const VersionOverride header(impl.doc, 17);
    RunEngineWriter(impl, sink, options);
}

}  // namespace zpdf::engine
