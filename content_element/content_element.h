// CZPdfContentElement: where one page of a content object is placed in the host's layout. It
// keeps the rectangle, the aspect-ratio flag, the page number and the bound content object,
// persists all but the object in a 30-byte record, and draws its page through the object.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "content_object/content_object.h"
#include "platform/byte_stream.h"
#include "platform/device_context.h"
#include "platform/hresult.h"

namespace zpdf {

// The element's counted reference to its content object, of which it only draws pages.
// Natively an ordinary shared pointer to a CZPdfContentObject; a host with its own reference
// counting hands over a shared pointer to its own PageDrawing, which holds the host's reference.
using ContentObjectRef = std::shared_ptr<PageDrawing>;

// One of the host's object collections: the host registers the objects of a job under
// identifiers, which is how an element finds its content object again after loading.
class ObjectCollections {
  public:
    virtual ~ObjectCollections() = default;
    // The object registered under `id`, or null when there is none (or it is not a content
    // object of this component).
    virtual HResult Lookup(std::int32_t id, ContentObjectRef* found) = 0;
    // Registers `object` and writes its new identifier to `*id`.
    virtual HResult Add(const ContentObjectRef& object, std::int32_t* id) = 0;
};

// The element's rectangle in the host's logical units: left/top inclusive, right/bottom
// exclusive.
struct ElementRect {
    std::int32_t left = 0;
    std::int32_t top = 0;
    std::int32_t right = 0;
    std::int32_t bottom = 0;
};

class CZPdfContentElement {
  public:
    CZPdfContentElement() = default;
    CZPdfContentElement(const CZPdfContentElement&) = delete;
    CZPdfContentElement& operator=(const CZPdfContentElement&) = delete;

    // Placement. A negative width or height flips the rectangle instead of failing.
    HResult SetPosition(std::int32_t Left, std::int32_t Top, std::int32_t Width,
                        std::int32_t Height);
    HResult GetPosition(std::int32_t* Left, std::int32_t* Top, std::int32_t* Width,
                        std::int32_t* Height) const;
    HResult get_MaintainAspectRatio(VariantBool* pVal) const;
    HResult put_MaintainAspectRatio(VariantBool newVal);
    // S_FALSE with a null result when no object is bound.
    HResult get_PdfObject(ContentObjectRef* pVal) const;
    // Binds `newVal` (null unbinds) and forgets the object's identifier, even for the same
    // object, so that the next ResolveObjectLink registers it.
    HResult put_PdfObject(ContentObjectRef newVal);
    HResult get_Page(std::int32_t* pVal) const;
    // The page is not checked, and putting it does not make the element dirty.
    HResult put_Page(std::int32_t newVal);

    // The host's element services.
    // Binds the object registered under ObjectId (negative identifiers live in the secondary
    // collection), or registers the bound object when it has no identifier yet. Either
    // collection may be null; their failures are not reported.
    HResult ResolveObjectLink(ObjectCollections* primary, ObjectCollections* secondary);
    HResult GetBounds(std::int32_t* left, std::int32_t* top, std::int32_t* right,
                      std::int32_t* bottom) const;
    // Draws the bound object's page into the rectangle, mapped to device units. S_FALSE when
    // no object is bound.
    HResult DrawToDC(DeviceContext& dc, std::int32_t options);

    // Persistence in the host's job files.
    HResult IsDirty() const;  // S_OK when dirty, S_FALSE when not
    HResult Load(ByteStream& stream);
    HResult Save(ByteStream& stream, bool fClearDirty);
    HResult GetSizeMax(std::uint64_t* pcbSize) const;  // 4, although a record is 30 bytes
    HResult InitNew();
    static constexpr std::size_t kRecordSize = 30;

    std::int32_t ObjectId() const { return object_id_; }
    const ElementRect& Position() const { return position_; }

  private:
    ElementRect position_;
    VariantBool maintain_aspect_ratio_ = -1;
    ContentObjectRef pdf_object_;
    std::int32_t page_ = 1;
    std::int32_t object_id_ = 0;
    std::int32_t dirty_ = 1;
};

}  // namespace zpdf
