#include "engine/security/source_security.h"

#include "engine/security/secured_save.h"

namespace zpdf::engine {

const char* const kNotEncryptedText =
    "The document's file is not encrypted: a secured save re-secures only a file that already "
    "carries encryption";

SourceSecurity ReadSourceSecurity(fz_context* ctx, pdf_document* doc) {
    SourceSecurity source;
    fz_var(source);
    fz_try(ctx) {
        engine::RequireCatalog(ctx, doc);
        pdf_obj* reference = pdf_dict_get(ctx, pdf_trailer(ctx, doc), PDF_NAME(Encrypt));
        pdf_obj* encrypt = pdf_resolve_indirect(ctx, reference);
        if (pdf_is_dict(ctx, encrypt)) {
            source.encrypted = true;
            pdf_obj* permissions = pdf_dict_get(ctx, encrypt, PDF_NAME(P));
            source.permissions = pdf_is_number(ctx, permissions)
                                     ? static_cast<int>(pdf_to_int64(ctx, permissions))
                                     : -1;
            source.object_number = pdf_is_indirect(ctx, reference) ? pdf_to_num(ctx, reference) : 0;
        }
    }
    fz_catch(ctx) {
        engine::ThrowCaught(ctx, engine::ErrorCategory::Other,
                            "cannot read the document's security");
    }
    return source;
}

}  // namespace zpdf::engine
