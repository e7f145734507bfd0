// Engine internals shared by engine/ and content_object/pdf_additions/. Includes the engine's
// headers, so nothing else may include it.
#pragma once

extern "C" {
#include <mupdf/fitz.h>
#include <mupdf/pdf.h>
}

#include <cstdio>

#include "engine/engine.h"

namespace zpdf::engine {

// The process context that per-document contexts are cloned from.
fz_context* ProcessContext();

// A context of its own for one user, cloned from the process context.
fz_context* NewClonedContext();

// Reads the message of the error just caught and throws it as an EngineError. Call only from
// an fz_catch block.
[[noreturn]] void ThrowCaught(fz_context* ctx, ErrorCategory category, const char* doing);

// Engine stream over a C stdio file the caller owns; remembers read failures.
struct FileStreamState;
fz_stream* OpenFileStream(fz_context* ctx, std::FILE* file);
bool FileStreamFailed(fz_stream* stream);

// Rebuilds the cross-reference table of a document whose page tree cannot be reached, as the
// engine rebuilds a damaged one. Never throws.
void RebuildIfPageTreeUnreachable(fz_context* ctx, pdf_document* doc);

// Runs the engine's writer over `sink` with the given options. Throws EngineError.
void WriteDocument(fz_context* ctx, pdf_document* doc, ByteSink& sink,
                   const pdf_write_options& options);

struct Document::Impl {
    fz_context* ctx = nullptr;
    pdf_document* doc = nullptr;
    fz_stream* stream = nullptr;
};

}  // namespace zpdf::engine
