// Pages taken out of a document leave their objects behind: content streams, annotations,
// resources no other page uses. Written out, they would carry the removed pages' text into the
// new file, where any reader that lists a file's objects finds it. Before a document whose pages
// were removed is written, the objects nothing reaches any more are freed, and so are the
// removed pages themselves where a structure element or an annotation of another page still
// names one: that reference then names nothing, as a reference to a missing page does.
#include <climits>
#include <vector>

#include "engine/internal.h"

namespace zpdf::engine {
namespace {

// The walk from the trailer: `reached` marks the objects found so far, `todo` those still to
// read, `barred` the removed pages, which are not followed.
struct Reach {
    std::vector<bool> reached;
    std::vector<bool> barred;
    std::vector<int> todo;

    explicit Reach(int length)
        : reached(static_cast<std::size_t>(length)), barred(static_cast<std::size_t>(length)) {}
    void Add(int num) {
        if (num <= 0 || num >= std::ssize(reached) || reached[num] || barred[num]) return;
        reached[num] = true;
        todo.push_back(num);
    }
    // Adds the objects `obj` refers to, in its arrays and dictionaries at any depth.
    void AddReferences(fz_context* ctx, pdf_obj* obj) {
        std::vector<pdf_obj*> direct{obj};
        while (!direct.empty()) {
            pdf_obj* value = direct.back();
            direct.pop_back();
            if (pdf_is_indirect(ctx, value)) {
                Add(pdf_to_num(ctx, value));
            } else if (pdf_is_array(ctx, value)) {
                for (int i = 0, n = pdf_array_len(ctx, value); i < n; ++i)
                    direct.push_back(pdf_array_get(ctx, value, i));
            } else if (pdf_is_dict(ctx, value)) {
                for (int i = 0, n = pdf_dict_len(ctx, value); i < n; ++i)
                    direct.push_back(pdf_dict_get_val(ctx, value, i));
            }
        }
    }
};

// A page the page tree still lists is not removed, whatever else named it removed.
void ReleaseListedPage(fz_context* ctx, pdf_obj* kid, int, void* state) {
    auto& barred = static_cast<Reach*>(state)->barred;
    const int num = pdf_to_num(ctx, kid);
    if (num > 0 && num < std::ssize(barred)) barred[num] = false;
}

}  // namespace

void FreeObjectsOfRemovedPages(Document::Impl& impl) {
    if (impl.removed_pages.empty() || impl.doc == nullptr) return;
    fz_context* ctx = impl.ctx;
    pdf_document* doc = impl.doc;
    Reach reach(pdf_xref_len(ctx, doc));
    for (const int page : impl.removed_pages) {
        if (page > 0 && page < std::ssize(reach.barred)) reach.barred[page] = true;
    }
    // A tree that cannot be walked bars nothing: only what nothing reaches goes.
    if (VisitPages(ctx, doc, INT_MAX, ReleaseListedPage, &reach) < 0)
        reach.barred.assign(reach.barred.size(), false);
    // The forms made of imported pages wait for their placements, which may come after a save.
    reach.AddReferences(ctx, pdf_trailer(ctx, doc));
    for (const int form : impl.made_forms) reach.Add(form);
    for (const PendingPlacement& placement : impl.pending.placements)
        reach.Add(static_cast<int>(placement.form));
    // What was read is let go as the walk goes on: a long document is not kept parsed in full.
    for (int walked = 1; !reach.todo.empty(); ++walked) {
        const int num = reach.todo.back();
        reach.todo.pop_back();
        if (pdf_obj* obj = LoadReadableObject(ctx, doc, num)) {
            reach.AddReferences(ctx, obj);
            pdf_drop_obj(ctx, obj);
        }
        if (walked % kObjectsBetweenReleases == 0) ReleaseUnchangedObjects(ctx, doc);
    }
    fz_try(ctx) {
        for (int num = 1; num < std::ssize(reach.reached); ++num) {
            if (reach.reached[num]) continue;
            pdf_obj* obj = LoadReadableObject(ctx, doc, num);
            if (obj == nullptr) continue;
            const bool keep = IsSourceStructure(ctx, obj);
            pdf_drop_obj(ctx, obj);
            if (!keep) pdf_delete_object(ctx, doc, num);
        }
    }
    fz_catch(ctx) {
        ThrowCaught(ctx, ErrorCategory::Other, "cannot free what the removed pages left");
    }
    ReleaseUnchangedObjects(ctx, doc);
    impl.removed_pages.clear();
}

}  // namespace zpdf::engine
