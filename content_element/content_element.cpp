#include "content_element/content_element.h"

#include <utility>

#include "content_object/stream_record.h"

namespace zpdf {
namespace {

constexpr std::uint32_t kRecordVersion = 1;

// Coordinates wrap around as 32-bit values do on the host instead of overflowing.
std::int32_t WrappingAdd(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) + static_cast<std::uint32_t>(b));
}
std::int32_t WrappingSub(std::int32_t a, std::int32_t b) {
    return static_cast<std::int32_t>(static_cast<std::uint32_t>(a) - static_cast<std::uint32_t>(b));
}

}  // namespace

HResult CZPdfContentElement::SetPosition(std::int32_t Left, std::int32_t Top, std::int32_t Width,
                                         std::int32_t Height) {
    position_ = {Left, Top, WrappingAdd(Left, Width), WrappingAdd(Top, Height)};
    if (position_.left > position_.right) std::swap(position_.left, position_.right);
    if (position_.top > position_.bottom) std::swap(position_.top, position_.bottom);
    dirty_ = 1;
    return hr::kOk;
}

HResult CZPdfContentElement::GetPosition(std::int32_t* Left, std::int32_t* Top, std::int32_t* Width,
                                         std::int32_t* Height) const {
    if (Left == nullptr || Top == nullptr || Width == nullptr || Height == nullptr) {
        return hr::kPointer;
    }
    *Left = position_.left;
    *Top = position_.top;
    *Width = WrappingSub(position_.right, position_.left);
    *Height = WrappingSub(position_.bottom, position_.top);
    return hr::kOk;
}

HResult CZPdfContentElement::get_MaintainAspectRatio(VariantBool* pVal) const {
    if (pVal == nullptr) return hr::kPointer;
    *pVal = maintain_aspect_ratio_;
    return hr::kOk;
}

HResult CZPdfContentElement::put_MaintainAspectRatio(VariantBool newVal) {
    // The exact value is kept (1 is not -1), so only an identical value changes nothing.
    if (newVal == maintain_aspect_ratio_) return hr::kOk;
    maintain_aspect_ratio_ = newVal;
    dirty_ = 1;
    return hr::kOk;
}

HResult CZPdfContentElement::get_PdfObject(ContentObjectRef* pVal) const {
    if (pVal == nullptr) return hr::kPointer;
    *pVal = pdf_object_;
    return pdf_object_ ? hr::kOk : hr::kFalse;
}

HResult CZPdfContentElement::put_PdfObject(ContentObjectRef newVal) {
    if (newVal.get() != pdf_object_.get()) pdf_object_ = std::move(newVal);
    object_id_ = 0;
    dirty_ = 1;
    return hr::kOk;
}

HResult CZPdfContentElement::get_Page(std::int32_t* pVal) const {
    if (pVal == nullptr) return hr::kPointer;
    *pVal = page_;
    return hr::kOk;
}

HResult CZPdfContentElement::put_Page(std::int32_t newVal) {
    page_ = newVal;
    return hr::kOk;
}

HResult CZPdfContentElement::ResolveObjectLink(ObjectCollections* primary,
                                               ObjectCollections* secondary) {
    if (object_id_ != 0) {
        ObjectCollections* source = object_id_ < 0 && secondary != nullptr ? secondary : primary;
        if (source != nullptr) {
            // What the collection answers is what the element shows: an identifier that finds
            // nothing unbinds the element.
            ContentObjectRef found;
            source->Lookup(object_id_, &found);
            if (found.get() != pdf_object_.get()) pdf_object_ = std::move(found);
        }
    }
    if (object_id_ == 0 && pdf_object_) {
        if (secondary != nullptr) secondary->Add(pdf_object_, &object_id_);
        if (object_id_ == 0 && primary != nullptr) primary->Add(pdf_object_, &object_id_);
    }
    return hr::kOk;
}

HResult CZPdfContentElement::GetBounds(std::int32_t* left, std::int32_t* top, std::int32_t* right,
                                       std::int32_t* bottom) const {
    if (left == nullptr || top == nullptr || right == nullptr || bottom == nullptr) {
        return hr::kPointer;
    }
    *left = position_.left;
    *top = position_.top;
    *right = position_.right;
    *bottom = position_.bottom;
    return hr::kOk;
}

HResult CZPdfContentElement::DrawToDC(DeviceContext& dc, std::int32_t options) {
    if (!pdf_object_) return hr::kFalse;
    DevicePoint points[3] = {
        {0, 0}, {position_.left, position_.top}, {position_.right, position_.bottom}};
    dc.LogicalToDevice(points, 3);
    const DevicePoint& origin = points[0];
    const DevicePoint& top_left = points[1];
    const DevicePoint& bottom_right = points[2];

    // The object draws in device pixels, so the page rectangle is given relative to the
    // device origin of the host's mapping, and the mapping is switched to text for the call.
    const int saved = dc.SaveState();
    dc.SetTextMapping();
    // The object reports its own failures to its callers; the host only asked for a drawing.
    pdf_object_->DrawPageToDC(dc, page_, WrappingSub(top_left.x, origin.x),
                              WrappingSub(top_left.y, origin.y),
                              WrappingSub(bottom_right.x, top_left.x),
                              WrappingSub(bottom_right.y, top_left.y), 0, 0, 0, 0, options);
    dc.RestoreState(saved);
    return hr::kOk;
}

HResult CZPdfContentElement::IsDirty() const {
    return dirty_ != 0 ? hr::kOk : hr::kFalse;
}

HResult CZPdfContentElement::InitNew() {
    dirty_ = 1;
    return hr::kOk;
}

HResult CZPdfContentElement::GetSizeMax(std::uint64_t* pcbSize) const {
    if (pcbSize == nullptr) return hr::kPointer;
    *pcbSize = 4;
    return hr::kOk;
}

HResult CZPdfContentElement::Save(ByteStream& stream, bool fClearDirty) {
    const std::int32_t fields[] = {object_id_,    page_,           position_.left,
                                   position_.top, position_.right, position_.bottom};
    if (const HResult result = record::WriteUInt32(stream, kRecordVersion); hr::Failed(result)) {
        return result;
    }
    for (const std::int32_t field : fields) {
        if (const HResult result = record::WriteInt32(stream, field); hr::Failed(result)) {
            return result;
        }
    }
    if (const HResult result = record::WriteInt16(stream, maintain_aspect_ratio_);
        hr::Failed(result)) {
        return result;
    }
    if (fClearDirty) dirty_ = 0;
    return hr::kOk;
}

HResult CZPdfContentElement::Load(ByteStream& stream) {
    // The fields take whatever bytes the stream delivers: a short record leaves the rest of
    // the fields as they were.
    std::int32_t version = 0;
    if (const HResult result = record::ReadInt32Over(stream, &version); hr::Failed(result)) {
        return result;
    }
    if (static_cast<std::uint32_t>(version) != kRecordVersion) return hr::kUnexpected;
    std::int32_t* const fields[] = {&object_id_,    &page_,           &position_.left,
                                    &position_.top, &position_.right, &position_.bottom};
    for (std::int32_t* field : fields) {
        if (const HResult result = record::ReadInt32Over(stream, field); hr::Failed(result)) {
            return result;
        }
    }
    if (const HResult result = record::ReadInt16Over(stream, &maintain_aspect_ratio_);
        hr::Failed(result)) {
        return result;
    }
    dirty_ = 0;
    return hr::kOk;
}

}  // namespace zpdf
