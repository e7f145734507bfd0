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

}  // namespace zpdf::engine
