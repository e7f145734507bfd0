// Page boxes, rotation, version and encryption read straight from the document's objects.
#include "engine/page_info.h"

#include <openssl/objects.h>
#include <openssl/pkcs7.h>

#include <algorithm>
#include <cmath>

#include "engine/internal.h"

namespace zpdf::engine {
namespace {

// US Letter: what a page without a usable MediaBox measures.
constexpr Box kDefaultMediaBox{0, 0, 612, 792};

// The box `key` of `page`, inherited from the page tree where the page has none. Nothing when
// it is missing or not four numbers.
std::optional<Box> ReadBox(fz_context* ctx, pdf_obj* page, pdf_obj* key) {
    pdf_obj* array = pdf_dict_get_inheritable(ctx, page, key);
    if (!pdf_is_array(ctx, array) || pdf_array_len(ctx, array) < 4) return std::nullopt;
    double v[4];
    for (int i = 0; i < 4; ++i) {
        pdf_obj* item = pdf_array_get(ctx, array, i);
        if (!pdf_is_number(ctx, item)) return std::nullopt;
        v[i] = pdf_to_real(ctx, item);
        if (!std::isfinite(v[i])) return std::nullopt;
    }
    return Box{std::min(v[0], v[2]), std::min(v[1], v[3]), std::max(v[0], v[2]),
               std::max(v[1], v[3])};
}

Box Intersect(const Box& a, const Box& b) {
    Box r{std::max(a.x0, b.x0), std::max(a.y0, b.y0), std::min(a.x1, b.x1), std::min(a.y1, b.y1)};
    if (r.x1 < r.x0 || r.y1 < r.y0) return Box{r.x0, r.y0, r.x0, r.y0};
    return r;
}

bool IsEmpty(const Box& box) {
    return box.x1 <= box.x0 || box.y1 <= box.y0;
}

// Fills `g` from the page dictionary. Writes through the pointer only, so that nothing of it
// lives in a register across the engine's error jumps.
void ReadGeometry(fz_context* ctx, pdf_obj* page, PageGeometry* g) {
    g->media = ReadBox(ctx, page, PDF_NAME(MediaBox)).value_or(kDefaultMediaBox);
    if (IsEmpty(g->media)) g->media = kDefaultMediaBox;
    const std::optional<Box> crop = ReadBox(ctx, page, PDF_NAME(CropBox));
    g->crop = crop.value_or(g->media);
    g->visible = crop ? Intersect(*crop, g->media) : g->media;
    // A crop box outside the media box shows nothing; viewers show the media box then.
    if (IsEmpty(g->visible)) g->visible = g->media;
    g->bleed = ReadBox(ctx, page, PDF_NAME(BleedBox)).value_or(g->crop);
    g->trim = ReadBox(ctx, page, PDF_NAME(TrimBox)).value_or(g->crop);
    g->art = ReadBox(ctx, page, PDF_NAME(ArtBox)).value_or(g->crop);
    // Rotations that are not a multiple of 90 are rounded down to one, as viewers do.
    g->rotation = pdf_to_int(ctx, pdf_dict_get_inheritable(ctx, page, PDF_NAME(Rotate)));
    g->rotation = ((g->rotation % 360 + 360) % 360) / 90 * 90;
    g->user_unit = pdf_dict_get_real(ctx, page, PDF_NAME(UserUnit));
    if (!(g->user_unit > 0 && std::isfinite(g->user_unit))) g->user_unit = 1.0;
}

std::string MethodName(fz_context* ctx, pdf_obj* encrypt, int version) {
    if (version >= 1 && version <= 3) {
        const int bits = version == 1 ? 40 : pdf_dict_get_int(ctx, encrypt, PDF_NAME(Length));
        return "RC4-" + std::to_string(bits > 0 ? bits : 40);
    }
    if (version == 4 || version == 5) {
        pdf_obj* name = pdf_dict_get(ctx, encrypt, PDF_NAME(StmF));
        pdf_obj* filter = pdf_dict_get(ctx, pdf_dict_get(ctx, encrypt, PDF_NAME(CF)), name);
        // Certificate security may keep its one filter under the default name only.
        if (filter == nullptr) {
            filter =
                pdf_dict_gets(ctx, pdf_dict_get(ctx, encrypt, PDF_NAME(CF)), "DefaultCryptFilter");
        }
        pdf_obj* cfm = pdf_dict_get(ctx, filter, PDF_NAME(CFM));
        if (pdf_name_eq(ctx, cfm, PDF_NAME(AESV3))) return "AES-256";
        if (pdf_name_eq(ctx, cfm, PDF_NAME(AESV2))) return "AES-128";
        if (pdf_name_eq(ctx, cfm, PDF_NAME(V2))) {
            const int bits = pdf_dict_get_int(ctx, filter, PDF_NAME(Length));
            // The length is in bits, or in bytes as some writers give it.
            return "RC4-" + std::to_string(bits <= 0 ? 128 : bits < 40 ? bits * 8 : bits);
        }
        if (pdf_name_eq(ctx, name, PDF_NAME(Identity))) return "none";
    }
    return "unknown";
}

// The recipients of one PKCS#7 enveloped-data object, or -1 when it does not parse as one.
int EnvelopeRecipients(const char* data, std::size_t size) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(data);
    PKCS7* p7 = d2i_PKCS7(nullptr, &bytes, static_cast<long>(size));
    if (p7 == nullptr) return -1;
    int count = -1;
    if (PKCS7_type_is_enveloped(p7) && p7->d.enveloped != nullptr) {
        count = sk_PKCS7_RECIP_INFO_num(p7->d.enveloped->recipientinfo);
    }
    PKCS7_free(p7);
    return count;
}

// Every recipient of every envelope: the envelopes are listed in the dictionary itself or in
// its crypt filters.
int CountRecipients(fz_context* ctx, pdf_obj* encrypt) {
    pdf_obj* lists[8];
    int list_count = 0;
    if (pdf_obj* own = pdf_dict_gets(ctx, encrypt, "Recipients")) lists[list_count++] = own;
    pdf_obj* filters = pdf_dict_get(ctx, encrypt, PDF_NAME(CF));
    for (int i = 0; i < pdf_dict_len(ctx, filters) && list_count < 8; ++i) {
        if (pdf_obj* list = pdf_dict_gets(ctx, pdf_dict_get_val(ctx, filters, i), "Recipients"))
            lists[list_count++] = list;
    }
    int total = 0;
    for (int l = 0; l < list_count; ++l) {
        pdf_obj* list = lists[l];
        // One envelope may stand alone instead of in an array.
        const int n = pdf_is_array(ctx, list) ? pdf_array_len(ctx, list) : 1;
        for (int i = 0; i < n; ++i) {
            pdf_obj* item = pdf_is_array(ctx, list) ? pdf_array_get(ctx, list, i) : list;
            if (!pdf_is_string(ctx, item)) return -1;
            const int count =
                EnvelopeRecipients(pdf_to_str_buf(ctx, item), pdf_to_str_len(ctx, item));
            if (count < 0) return -1;
            total += count;
        }
    }
    return total;
}

}  // namespace

double PageGeometry::Width() const {
    const double w = rotation % 180 == 0 ? visible.Width() : visible.Height();
    return w * user_unit;
}

double PageGeometry::Height() const {
    const double h = rotation % 180 == 0 ? visible.Height() : visible.Width();
    return h * user_unit;
}

PageGeometry ReadPageGeometry(Document& document, int index) {
    Document::Impl& impl = document.Internals();
    if (!impl.pending.appends.empty()) {
        // A page still to be appended is read from its own document.
        int first = document.PageCount();
        for (auto it = impl.pending.appends.rbegin(); it != impl.pending.appends.rend(); ++it) {
            first -= it->pages;
            if (index >= first && index < first + it->pages)
                return ReadPageGeometry(it->source->Pages(), index - first);
        }
    }
    // Pages read one after another: the objects parsed for earlier ones are let go now and then.
    NoteWork(impl);
    fz_context* ctx = impl.ctx;
    PageGeometry geometry;
    PageGeometry* const out = &geometry;
    fz_try(ctx) {
        ReadGeometry(ctx, LookupPage(impl, index), out);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot read the page's boxes");
    }
    return geometry;
}

namespace {

// The page tree nodes above the page being read, kept so that a release does not drop them:
// a node with thousands of kids costs more to parse again than all its pages.
struct HeldAncestors {
    pdf_obj* nodes[kMaxPageTreeDepth + 1] = {};
    int count = 0;
    int parent = 0;  // object number of the nearest one
};

void DropAncestors(fz_context* ctx, HeldAncestors* held) {
    for (int i = 0; i < held->count; ++i) pdf_drop_obj(ctx, held->nodes[i]);
    held->count = 0;
    held->parent = 0;
}

// Holds the nodes above `page` unless they are held already. Throws an engine error.
void HoldAncestors(fz_context* ctx, pdf_obj* page, HeldAncestors* held) {
    pdf_obj* parent = pdf_dict_get(ctx, page, PDF_NAME(Parent));
    const int number = pdf_to_num(ctx, parent);
    if (number == 0 || number == held->parent) return;
    DropAncestors(ctx, held);
    for (pdf_obj* node = parent; pdf_is_dict(ctx, node) && held->count <= kMaxPageTreeDepth;
         node = pdf_dict_get(ctx, node, PDF_NAME(Parent))) {
        held->nodes[held->count++] = pdf_keep_obj(ctx, pdf_resolve_indirect(ctx, node));
    }
    held->parent = number;
}

void NoteGeometry(fz_context* ctx, pdf_obj* kid, int index, void* state) {
    ReadGeometry(ctx, pdf_resolve_indirect(ctx, kid), &static_cast<PageGeometry*>(state)[index]);
}

// Every page of the document in one walk of the page tree, so that each page object is parsed
// once; false (and `results` to be ignored) when the walk does not find the pages the document
// counts, where lookups page by page are the way.
bool ReadAllGeometries(Document::Impl& impl, int count, PageGeometry* results) {
    return VisitPages(impl.ctx, impl.doc, count, NoteGeometry, results) == count;
}

}  // namespace

void ReadPageGeometries(Document& document, const std::vector<int>& indexes,
                        std::vector<PageGeometry>* out) {
    Document::Impl& impl = document.Internals();
    out->assign(indexes.size(), PageGeometry{});
    if (!impl.pending.appends.empty()) {
        // Pages still to be appended are read from their own documents, one at a time.
        for (std::size_t i = 0; i < indexes.size(); ++i)
            (*out)[i] = ReadPageGeometry(document, indexes[i]);
        return;
    }
    fz_context* ctx = impl.ctx;
    pdf_document* doc = impl.doc;
    const int* const wanted = indexes.data();
    PageGeometry* const results = out->data();
    const std::size_t total = indexes.size();
    // The whole document in page order, the usual request, takes one walk of the tree.
    bool all = total > 0;
    for (std::size_t i = 0; all && i < total; ++i) all = wanted[i] == static_cast<int>(i);
    if (all && static_cast<int>(total) == document.PageCount() &&
        ReadAllGeometries(impl, static_cast<int>(total), results))
        return;
    HeldAncestors held;
    HeldAncestors* const ancestors = &held;
    fz_try(ctx) {
        for (std::size_t i = 0; i < total; ++i) {
            pdf_obj* page = LookupPage(impl, wanted[i]);
            HoldAncestors(ctx, page, ancestors);
            ReadGeometry(ctx, page, &results[i]);
            if ((i + 1) % kObjectsBetweenReleases == 0) ReleaseUnchangedObjects(ctx, doc);
        }
    }
    fz_always(ctx) {
        DropAncestors(ctx, ancestors);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Page, "cannot read the page's boxes");
    }
}

std::string PdfVersion(Document& document) {
    Document::Impl& impl = document.Internals();
    fz_context* ctx = impl.ctx;
    volatile int version = 0;
    fz_try(ctx) {
        version = pdf_version(ctx, impl.doc);
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Other, "cannot read the version");
    }
    return std::to_string(version / 10) + "." + std::to_string(version % 10);
}

EncryptionFacts EncryptionFactsOf(fz_context* ctx, pdf_obj* encrypt) {
    EncryptionFacts facts;
    if (!pdf_is_dict(ctx, encrypt)) return facts;
    facts.encrypted = true;
    facts.filter = pdf_to_name(ctx, pdf_dict_get(ctx, encrypt, PDF_NAME(Filter)));
    facts.version = pdf_dict_get_int(ctx, encrypt, PDF_NAME(V));
    facts.revision = pdf_dict_get_int(ctx, encrypt, PDF_NAME(R));
    facts.method = MethodName(ctx, encrypt, facts.version);
    if (facts.filter != "Standard") facts.recipients = CountRecipients(ctx, encrypt);
    return facts;
}

EncryptionFacts ReadEncryption(Document& document) {
    Document::Impl& impl = document.Internals();
    fz_context* ctx = impl.ctx;
    EncryptionFacts facts;
    fz_try(ctx) {
        facts = EncryptionFactsOf(ctx,
                                  pdf_dict_get(ctx, pdf_trailer(ctx, impl.doc), PDF_NAME(Encrypt)));
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Other, "cannot read the encryption dictionary");
    }
    return facts;
}

std::string EngineVersion() {
    return FZ_VERSION;
}

}  // namespace zpdf::engine
