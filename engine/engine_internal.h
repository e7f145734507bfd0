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

// The engine rebuilds a damaged cross-reference table on its own when an object is not where the
// table says; when that rebuild fails halfway, the document is left without any object. Throws
// (an engine error, so call it inside fz_try) for a document without a catalog: nothing of it
// may be counted, drawn, copied or written as if it were the document.
void RequireCatalog(fz_context* ctx, pdf_document* doc);
// The page count of a document that has its catalog; throws an engine error otherwise.
int CountDocumentPages(fz_context* ctx, pdf_document* doc);

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
