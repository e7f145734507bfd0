// What the document's own file says about its security: the secured writers re-secure only a
// document whose file carries an Encrypt dictionary.
#pragma once

#include "engine/internal.h"

namespace zpdf::engine {

struct SourceSecurity {
    bool encrypted = false;  // the trailer holds an Encrypt dictionary
    int permissions = -1;    // its P
    int object_number = 0;   // the dictionary's own object, 0 when it is direct
};

// Throws engine::EngineError.
SourceSecurity ReadSourceSecurity(fz_context* ctx, pdf_document* doc);

// Gives the standard encryption dictionary of a document that keeps its security the /O, /U,
// /OE, /UE its key was derived from and a /Perms that key opens, where parsing it after a
// repair left them decrypted. Throws an engine error.
void RestoreEncryptionStrings(fz_context* ctx, pdf_document* doc);

}  // namespace zpdf::engine
