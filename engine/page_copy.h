// Copying pages from one document into another with everything that makes them work: every key
// of the page but its /Parent, the objects they use (each copied once per operation), their
// annotations pointing at the new pages, links and form fields that still work in the result.
//
// The objects are copied through a map by the source's object number that is seeded with the
// pages copied in the operation before any is copied, so that anything pointing at one of them
// (an annotation's /P, a link's destination, a page action) points at its copy. The source's
// structure is never copied: its catalog, page tree nodes, structure tree and outline, and pages
// that are not copied in the operation, are left out (a dictionary entry pointing at one is
// removed, an array entry becomes null), so that no reference drags the rest of the source in.
//
// Engine-level code: plain data only, errors thrown as engine errors.
#pragma once

#include "engine/internal.h"

namespace zpdf::engine {

struct PageCopy;

// A copy from `src` into `dst` (which may be the same document: then only the pages and their
// annotations are copied, and everything else they use is shared). Throws an engine error.
PageCopy* NewPageCopy(fz_context* ctx, pdf_document* src, pdf_document* dst);
void DropPageCopy(fz_context* ctx, PageCopy* copy);

// Makes an empty object of the destination for the source page numbered `source` (0 for a page
// that is no object of its own), so that references to the page point at it; returns its number.
// Every page of the operation is reserved before any is filled.
int ReservePageCopy(fz_context* ctx, PageCopy* copy, int source);
// Fills the reserved object `num` with the copy of `page`: every key but /Parent and
// /StructParents, inherited attributes resolved onto it, the objects it uses copied, its
// annotations' /P pointing at it.
void FillPageCopy(fz_context* ctx, PageCopy* copy, pdf_obj* page, int num);
// Once every page is filled: links whose destination the result does not hold lose it, named
// destinations the links use are carried into the destination's /Names tree, the fields of
// the copied widgets join the destination's /AcroForm, and the optional content groups the
// pages use join its /OCProperties, hidden or shown as the source had them.
void FinishPageCopy(fz_context* ctx, PageCopy* copy);

// The copy of the source's object `obj` in the destination (a reference of the caller's; null
// where it is left out), with everything it uses.
pdf_obj* CopySourceObject(fz_context* ctx, PageCopy* copy, pdf_obj* obj);
// The source's destination `dest` (explicit, or a name the source defines) as an explicit
// destination of the result (a reference of the caller's), or null when its page was not copied.
pdf_obj* CopySourceDestination(fz_context* ctx, PageCopy* copy, pdf_obj* dest);

// True for the objects that describe a document's structure rather than a page's content: the
// catalog, page tree nodes and pages, the structure tree and its elements, the outline root.
bool IsDocumentStructure(fz_context* ctx, pdf_obj* obj);

}  // namespace zpdf::engine
