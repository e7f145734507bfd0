#include "component/content_element_com.h"

#include "component/gdi_device_context.h"

namespace zpdf::com {
namespace {

// A content object reached through its interface. The element draws through a GDI device
// context, whose handle travels to the object: when the object lives on another thread its
// apartment draws into the same device context while this one waits for the call.
class InterfacePages final : public PageDrawing {
  public:
    explicit InterfacePages(IZPdfContentObject* object) : object_(object) { object_->AddRef(); }
    InterfacePages(const InterfacePages&) = delete;
    InterfacePages& operator=(const InterfacePages&) = delete;
    ~InterfacePages() override { object_->Release(); }

    IZPdfContentObject* Interface() const { return object_; }

    HResult DrawPageToDC(DeviceContext& dc, std::int32_t PageNumber, std::int32_t PageRectLeft,
                         std::int32_t PageRectTop, std::int32_t PageRectWidth,
                         std::int32_t PageRectHeight, std::int32_t DrawRectLeft,
                         std::int32_t DrawRectTop, std::int32_t DrawRectWidth,
                         std::int32_t DrawRectHeight, std::int32_t Options) override {
        const auto* gdi = dynamic_cast<GdiDeviceContext*>(&dc);
        if (gdi == nullptr) return E_INVALIDARG;
        // The handle is widened to 64 bits with its sign, as handles are.
        const hyper handle = static_cast<hyper>(reinterpret_cast<INT_PTR>(gdi->Handle()));
        return object_->DrawPageToDC(handle, PageNumber, PageRectLeft, PageRectTop, PageRectWidth,
                                     PageRectHeight, DrawRectLeft, DrawRectTop, DrawRectWidth,
                                     DrawRectHeight, Options);
    }

  private:
    IZPdfContentObject* object_;
};

// One of the host's collections seen through the core's seam.
class HostCollection final : public ObjectCollections {
  public:
    explicit HostCollection(IZObjectCollection* collection) : collection_(collection) {}
    HResult Lookup(std::int32_t id, ContentObjectRef* found) override {
        found->reset();
        IUnknown* object = nullptr;
        const HRESULT hr = collection_->Lookup(id, &object);
        if (FAILED(hr) || object == nullptr) return FAILED(hr) ? hr : S_OK;
        IZPdfContentObject* content = nullptr;
        if (SUCCEEDED(object->QueryInterface(__uuidof(IZPdfContentObject),
                                             reinterpret_cast<void**>(&content)))) {
            *found = RefFromInterface(content);
            content->Release();
        }
        object->Release();
        return S_OK;
    }
    HResult Add(const ContentObjectRef& object, std::int32_t* id) override {
        IZPdfContentObject* content = InterfaceFromRef(object);
        if (content == nullptr) return E_POINTER;
        IUnknown* unknown = nullptr;
        if (FAILED(content->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&unknown))))
            return E_NOINTERFACE;
        VARIANT value;
        VariantInit(&value);
        V_VT(&value) = VT_UNKNOWN;
        V_UNKNOWN(&value) = unknown;  // the variant owns this reference
        LONG new_id = 0;
        const HRESULT hr = collection_->Add(value, &new_id);
        VariantClear(&value);
        if (SUCCEEDED(hr)) *id = new_id;
        return hr;
    }

  private:
    IZObjectCollection* collection_;
};

}  // namespace

ContentObjectRef RefFromInterface(IZPdfContentObject* object) {
    if (object == nullptr) return nullptr;
    return std::make_shared<InterfacePages>(object);
}

IZPdfContentObject* InterfaceFromRef(const ContentObjectRef& ref) {
    const auto* pages = dynamic_cast<const InterfacePages*>(ref.get());
    return pages != nullptr ? pages->Interface() : nullptr;
}

STDMETHODIMP ContentElementCom::SetPosition(LONG Left, LONG Top, LONG Width, LONG Height) {
    return Call([&] { return core_.SetPosition(Left, Top, Width, Height); });
}

STDMETHODIMP ContentElementCom::GetPosition(LONG* Left, LONG* Top, LONG* Width, LONG* Height) {
    return Call(
        [&] { return core_.GetPosition(Int32(Left), Int32(Top), Int32(Width), Int32(Height)); });
}

STDMETHODIMP ContentElementCom::get_MaintainAspectRatio(VARIANT_BOOL* pVal) {
    return Call([&] { return core_.get_MaintainAspectRatio(pVal); });
}

STDMETHODIMP ContentElementCom::put_MaintainAspectRatio(VARIANT_BOOL newVal) {
    return Call([&] { return core_.put_MaintainAspectRatio(newVal); });
}

STDMETHODIMP ContentElementCom::get_PdfObject(IZPdfContentObject** pVal) {
    return Call([&]() -> Outcome {
        if (pVal == nullptr) return {E_POINTER, kNoPlace};
        ContentObjectRef bound;
        const HRESULT hr = core_.get_PdfObject(&bound);
        *pVal = InterfaceFromRef(bound);
        if (*pVal != nullptr) (*pVal)->AddRef();
        return hr;
    });
}

STDMETHODIMP ContentElementCom::put_PdfObject(IZPdfContentObject* newVal) {
    return Call([&] { return core_.put_PdfObject(RefFromInterface(newVal)); });
}

STDMETHODIMP ContentElementCom::get_Page(LONG* pVal) {
    return Call([&] { return core_.get_Page(Int32(pVal)); });
}

STDMETHODIMP ContentElementCom::put_Page(LONG newVal) {
    return Call([&] { return core_.put_Page(newVal); });
}

STDMETHODIMP ContentElementCom::GetKind(LONG* kind) {
    return Call<IZElement>([&] { return GetKindCode(kind); });
}

STDMETHODIMP ContentElementCom::ResolveObjectLink(IUnknown*, IZObjectCollection* primary,
                                                  IZObjectCollection* secondary) {
    return Call<IZElement>([&] {
        HostCollection first(primary);
        HostCollection second(secondary);
        return core_.ResolveObjectLink(primary != nullptr ? &first : nullptr,
                                       secondary != nullptr ? &second : nullptr);
    });
}

STDMETHODIMP ContentElementCom::GetBounds(LONG* left, LONG* top, LONG* right, LONG* bottom) {
    return Call<IZElement>(
        [&] { return core_.GetBounds(Int32(left), Int32(top), Int32(right), Int32(bottom)); });
}

STDMETHODIMP ContentElementCom::DrawToDC(LONG hdc, LONG, LONG, LONG, LONG, LONG options, LONG) {
    return Call<IZElement>([&] {
        // The handle arrives as a 32-bit value; widened with its sign, as handles are.
        GdiDeviceContext dc(reinterpret_cast<HDC>(static_cast<INT_PTR>(hdc)));
        return core_.DrawToDC(dc, options);
    });
}

}  // namespace zpdf::com
