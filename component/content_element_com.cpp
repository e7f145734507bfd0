#include "component/content_element_com.h"

#include <new>

#include "component/content_object_com.h"
#include "component/gdi_device_context.h"
#include "component/istream_byte_stream.h"

namespace zpdf::com {
namespace {

constexpr LONG kKindCode = 305;

struct ReleaseInterface {
    IZPdfContentObject* object;
    void operator()(CZPdfContentObject*) const { object->Release(); }
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
        if (SUCCEEDED(object->QueryInterface(__uuidof(IZPdfContentObject), reinterpret_cast<void**>(&content)))) {
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
        if (FAILED(content->QueryInterface(IID_IUnknown, reinterpret_cast<void**>(&unknown)))) return E_NOINTERFACE;
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
    ContentObjectCom* implementation = ContentObjectCom::From(object);
    if (implementation == nullptr) return nullptr;
    object->AddRef();
    return ContentObjectRef(&implementation->Core(), ReleaseInterface{object});
}

IZPdfContentObject* InterfaceFromRef(const ContentObjectRef& ref) {
    const auto* releaser = std::get_deleter<ReleaseInterface>(ref);
    return releaser != nullptr ? releaser->object : nullptr;
}

ContentElementCom::ContentElementCom() { ++g_objects; }
ContentElementCom::~ContentElementCom() { --g_objects; }

HRESULT ContentElementCom::Create(REFIID iid, void** object) {
    auto* created = new (std::nothrow) ContentElementCom();
    if (created == nullptr) return E_OUTOFMEMORY;
    const HRESULT hr = created->QueryInterface(iid, object);
    created->Release();
    return hr;
}

STDMETHODIMP ContentElementCom::QueryInterface(REFIID iid, void** object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (iid == IID_IUnknown || iid == IID_IDispatch || iid == __uuidof(IZPdfContentElement)) {
        *object = static_cast<IZPdfContentElement*>(this);
    } else if (iid == __uuidof(IZElement)) {
        *object = static_cast<IZElement*>(this);
    } else if (iid == IID_IPersistStreamInit || iid == IID_IPersistStream || iid == IID_IPersist) {
        *object = static_cast<IPersistStreamInit*>(this);
    } else if (iid == IID_ISupportErrorInfo) {
        *object = static_cast<ISupportErrorInfo*>(this);
    } else {
        return E_NOINTERFACE;
    }
    AddRef();
    return S_OK;
}

STDMETHODIMP_(ULONG) ContentElementCom::AddRef() { return ++refs_; }

STDMETHODIMP_(ULONG) ContentElementCom::Release() {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
}

STDMETHODIMP ContentElementCom::GetTypeInfoCount(UINT* count) { return TypeInfoCount(count); }
STDMETHODIMP ContentElementCom::GetTypeInfo(UINT index, LCID, ITypeInfo** info) { return TypeInfo(index, info); }
STDMETHODIMP ContentElementCom::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
    return IdsOfNames(names, count, ids);
}
STDMETHODIMP ContentElementCom::Invoke(DISPID member, REFIID, LCID, WORD flags, DISPPARAMS* params,
                                       VARIANT* result, EXCEPINFO* exception, UINT* arg_error) {
    return InvokeMember(static_cast<IZPdfContentElement*>(this), member, flags, params, result, exception,
                        arg_error);
}

HRESULT ContentElementCom::Done(HRESULT result) { return Report(__uuidof(IZPdfContentElement), result, ""); }

STDMETHODIMP ContentElementCom::SetPosition(LONG Left, LONG Top, LONG Width, LONG Height) {
    return Done(core_.SetPosition(Left, Top, Width, Height));
}

STDMETHODIMP ContentElementCom::GetPosition(LONG* Left, LONG* Top, LONG* Width, LONG* Height) {
    static_assert(sizeof(LONG) == sizeof(std::int32_t));
    return Done(core_.GetPosition(reinterpret_cast<std::int32_t*>(Left), reinterpret_cast<std::int32_t*>(Top),
                                  reinterpret_cast<std::int32_t*>(Width), reinterpret_cast<std::int32_t*>(Height)));
}

STDMETHODIMP ContentElementCom::get_MaintainAspectRatio(VARIANT_BOOL* pVal) {
    return Done(core_.get_MaintainAspectRatio(pVal));
}

STDMETHODIMP ContentElementCom::put_MaintainAspectRatio(VARIANT_BOOL newVal) {
    return Done(core_.put_MaintainAspectRatio(newVal));
}

STDMETHODIMP ContentElementCom::get_PdfObject(IZPdfContentObject** pVal) {
    if (pVal == nullptr) return Done(E_POINTER);
    *pVal = nullptr;
    ContentObjectRef bound;
    const HRESULT hr = core_.get_PdfObject(&bound);
    if (IZPdfContentObject* object = InterfaceFromRef(bound)) {
        object->AddRef();
        *pVal = object;
    }
    return Done(hr);
}

STDMETHODIMP ContentElementCom::put_PdfObject(IZPdfContentObject* newVal) {
    if (newVal != nullptr && ContentObjectCom::From(newVal) == nullptr) {
        return Report(__uuidof(IZPdfContentElement), E_INVALIDARG,
                      "The object is not a content object of this component");
    }
    return Done(core_.put_PdfObject(RefFromInterface(newVal)));
}

STDMETHODIMP ContentElementCom::get_Page(LONG* pVal) {
    return Done(core_.get_Page(reinterpret_cast<std::int32_t*>(pVal)));
}

STDMETHODIMP ContentElementCom::put_Page(LONG newVal) { return Done(core_.put_Page(newVal)); }

STDMETHODIMP ContentElementCom::GetKind(LONG* kind) {
    if (kind == nullptr) return E_POINTER;
    *kind = kKindCode;
    return S_OK;
}

STDMETHODIMP ContentElementCom::ResolveObjectLink(IUnknown*, IZObjectCollection* primary,
                                                  IZObjectCollection* secondary) {
    HostCollection first(primary);
    HostCollection second(secondary);
    return core_.ResolveObjectLink(primary != nullptr ? &first : nullptr, secondary != nullptr ? &second : nullptr);
}

STDMETHODIMP ContentElementCom::GetBounds(LONG* left, LONG* top, LONG* right, LONG* bottom) {
    return core_.GetBounds(reinterpret_cast<std::int32_t*>(left), reinterpret_cast<std::int32_t*>(top),
                           reinterpret_cast<std::int32_t*>(right), reinterpret_cast<std::int32_t*>(bottom));
}

STDMETHODIMP ContentElementCom::DrawToDC(LONG hdc, LONG, LONG, LONG, LONG, LONG options, LONG) {
    // The handle arrives as a 32-bit value; widened with its sign, as handles are.
    GdiDeviceContext dc(reinterpret_cast<HDC>(static_cast<INT_PTR>(hdc)));
    return core_.DrawToDC(dc, options);
}

STDMETHODIMP ContentElementCom::GetClassID(CLSID* clsid) {
    if (clsid == nullptr) return E_POINTER;
    *clsid = __uuidof(ZPdfContentElement);
    return S_OK;
}

STDMETHODIMP ContentElementCom::IsDirty() { return core_.IsDirty(); }

STDMETHODIMP ContentElementCom::Load(IStream* stream) {
    if (stream == nullptr) return E_POINTER;
    IStreamByteStream bytes(stream);
    return core_.Load(bytes);
}

STDMETHODIMP ContentElementCom::Save(IStream* stream, BOOL clear_dirty) {
    if (stream == nullptr) return E_POINTER;
    IStreamByteStream bytes(stream);
    return core_.Save(bytes, clear_dirty != FALSE);
}

STDMETHODIMP ContentElementCom::GetSizeMax(ULARGE_INTEGER* size) {
    if (size == nullptr) return E_POINTER;
    std::uint64_t max = 0;
    const HRESULT hr = core_.GetSizeMax(&max);
    size->QuadPart = max;
    return hr;
}

STDMETHODIMP ContentElementCom::InitNew() { return core_.InitNew(); }

STDMETHODIMP ContentElementCom::InterfaceSupportsErrorInfo(REFIID iid) {
    return iid == __uuidof(IZPdfContentElement) ? S_OK : S_FALSE;
}

}  // namespace zpdf::com
