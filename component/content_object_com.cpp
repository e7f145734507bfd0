#include "component/content_object_com.h"

#include <new>
#include <vector>

#include "component/gdi_device_context.h"
#include "component/istream_byte_stream.h"

namespace zpdf::com {

const IID IID_ZPdfContentObjectImplementation = {
    0x5e0c2d8b, 0x3f41, 0x4b6a, {0x9e, 0x2c, 0x7a, 0x1d, 0x4f, 0x8b, 0x9c, 0x20}};

namespace {
constexpr LONG kKindCode = 305;
}

ContentObjectCom::ContentObjectCom() { ++g_objects; }
ContentObjectCom::~ContentObjectCom() { --g_objects; }

HRESULT ContentObjectCom::Create(REFIID iid, void** object) {
    auto* created = new (std::nothrow) ContentObjectCom();
    if (created == nullptr) return E_OUTOFMEMORY;
    const HRESULT hr = created->QueryInterface(iid, object);
    created->Release();
    return hr;
}

ContentObjectCom* ContentObjectCom::From(IZPdfContentObject* object) {
    if (object == nullptr) return nullptr;
    ContentObjectCom* self = nullptr;
    // Not a real interface: the answer is the object itself, with no reference added.
    if (FAILED(object->QueryInterface(IID_ZPdfContentObjectImplementation, reinterpret_cast<void**>(&self)))) {
        return nullptr;
    }
    return self;
}

STDMETHODIMP ContentObjectCom::QueryInterface(REFIID iid, void** object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    if (iid == IID_ZPdfContentObjectImplementation) {
        *object = this;
        return S_OK;
    }
    if (iid == IID_IUnknown || iid == IID_IDispatch || iid == __uuidof(IZPdfContentObject)) {
        *object = static_cast<IZPdfContentObject*>(this);
    } else if (iid == __uuidof(IZObject)) {
        *object = static_cast<IZObject*>(this);
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

STDMETHODIMP_(ULONG) ContentObjectCom::AddRef() { return ++refs_; }

STDMETHODIMP_(ULONG) ContentObjectCom::Release() {
    const ULONG left = --refs_;
    if (left == 0) delete this;
    return left;
}

STDMETHODIMP ContentObjectCom::GetTypeInfoCount(UINT* count) { return TypeInfoCount(count); }
STDMETHODIMP ContentObjectCom::GetTypeInfo(UINT index, LCID, ITypeInfo** info) { return TypeInfo(index, info); }
STDMETHODIMP ContentObjectCom::GetIDsOfNames(REFIID, LPOLESTR* names, UINT count, LCID, DISPID* ids) {
    return IdsOfNames(names, count, ids);
}
STDMETHODIMP ContentObjectCom::Invoke(DISPID member, REFIID, LCID, WORD flags, DISPPARAMS* params,
                                      VARIANT* result, EXCEPINFO* exception, UINT* arg_error) {
    return InvokeMember(static_cast<IZPdfContentObject*>(this), member, flags, params, result, exception,
                        arg_error);
}

HRESULT ContentObjectCom::Done(HRESULT result) {
    return Report(__uuidof(IZPdfContentObject), result, FAILED(result) ? core_.LastErrorText() : std::string());
}

STDMETHODIMP ContentObjectCom::SetPdfDocument(BSTR PdfFile, VARIANT_BOOL Embed, BSTR Password) {
    return Done(core_.SetPdfDocument(FromBstr(PdfFile), Embed, FromBstr(Password)));
}

STDMETHODIMP ContentObjectCom::GetPdfDocument(BSTR* PdfFile) {
    if (PdfFile == nullptr) return Done(E_POINTER);
    OptionalText path;
    const HRESULT hr = core_.GetPdfDocument(&path);
    if (FAILED(hr)) return Done(hr);
    return Report(__uuidof(IZPdfContentObject), ToBstr(path, PdfFile), "Out of memory");
}

STDMETHODIMP ContentObjectCom::get_PageCount(LONG* pVal) {
    if (pVal == nullptr) return Done(E_POINTER);
    std::int32_t count = 0;
    const HRESULT hr = core_.PageCount(&count);
    *pVal = count;
    return Done(hr);
}

STDMETHODIMP ContentObjectCom::GetPageSize(LONG PageNumber, DOUBLE* ptWidth, DOUBLE* ptHeight) {
    return Done(core_.GetPageSize(PageNumber, ptWidth, ptHeight));
}

STDMETHODIMP ContentObjectCom::DrawPageToDC(hyper hdc, LONG PageNumber, LONG PageRectLeft, LONG PageRectTop,
                                            LONG PageRectWidth, LONG PageRectHeight, LONG DrawRectLeft,
                                            LONG DrawRectTop, LONG DrawRectWidth, LONG DrawRectHeight,
                                            LONG Options) {
    // The handle travels widened to 64 bits; its low half is the device context.
    GdiDeviceContext dc(reinterpret_cast<HDC>(static_cast<UINT_PTR>(static_cast<ULONG>(hdc & 0xFFFFFFFF))));
    return Done(core_.DrawPageToDC(dc, PageNumber, PageRectLeft, PageRectTop, PageRectWidth, PageRectHeight,
                                   DrawRectLeft, DrawRectTop, DrawRectWidth, DrawRectHeight, Options));
}

STDMETHODIMP ContentObjectCom::OverlayPrepare(BSTR SourcePdfFile) {
    return Done(core_.OverlayPrepare(FromBstr(SourcePdfFile)));
}

STDMETHODIMP ContentObjectCom::OverlayPage(LONG SourcePage, LONG DestinationPage, LONG ptPosLeft, LONG ptPosTop,
                                           LONG ptPosRight, LONG ptPosBottom) {
    // Through the interface, so that an override of the second form is reached.
    return static_cast<IZPdfContentObject*>(this)->OverlayPage2(SourcePage, DestinationPage, ptPosLeft, ptPosTop,
                                                                ptPosRight, ptPosBottom, 0);
}

STDMETHODIMP ContentObjectCom::OverlayFinish() { return Done(core_.OverlayFinish()); }

STDMETHODIMP ContentObjectCom::Save() { return Done(core_.Save()); }

STDMETHODIMP ContentObjectCom::SaveWithSecurity(BSTR UserPassword, BSTR OwnerPassword) {
    return Done(core_.SaveWithSecurity(FromBstr(UserPassword), FromBstr(OwnerPassword)));
}

STDMETHODIMP ContentObjectCom::OverlayPage2(LONG SourcePage, LONG DestinationPage, LONG ptPosLeft, LONG ptPosTop,
                                            LONG ptPosRight, LONG ptPosBottom, LONG nOptions) {
    return Done(core_.OverlayPage2(SourcePage, DestinationPage, ptPosLeft, ptPosTop, ptPosRight, ptPosBottom,
                                   nOptions));
}

STDMETHODIMP ContentObjectCom::ImportContent(IZPdfContentObject* srcObject, SAFEARRAY** pages) {
    if (pages == nullptr) return Done(E_POINTER);
    *pages = nullptr;
    ContentObjectCom* source = From(srcObject);
    if (srcObject != nullptr && source == nullptr) {
        return Report(__uuidof(IZPdfContentObject), E_INVALIDARG, "The source is not a content object of this component");
    }
    std::vector<std::uint32_t> ids;
    const HRESULT hr = core_.ImportContent(source != nullptr ? &source->Core() : nullptr, &ids);
    if (FAILED(hr)) return Done(hr);
    SAFEARRAY* array = SafeArrayCreateVector(VT_UI4, 0, static_cast<ULONG>(ids.size()));
    if (array == nullptr) return Report(__uuidof(IZPdfContentObject), E_OUTOFMEMORY, "Out of memory for the result");
    void* data = nullptr;
    if (const HRESULT locked = SafeArrayAccessData(array, &data); FAILED(locked)) {
        SafeArrayDestroy(array);
        return Report(__uuidof(IZPdfContentObject), locked, "Cannot fill the result");
    }
    std::copy(ids.begin(), ids.end(), static_cast<ULONG*>(data));
    SafeArrayUnaccessData(array);
    *pages = array;
    return Done(S_OK);
}

STDMETHODIMP ContentObjectCom::PlaceContent(ULONG srcObjectId, LONG DestinationPage, FLOAT transX, FLOAT transY,
                                            FLOAT scaleX, FLOAT scaleY, VARIANT_BOOL background) {
    return Done(core_.PlaceContent(srcObjectId, DestinationPage, transX, transY, scaleX, scaleY, background));
}

STDMETHODIMP ContentObjectCom::SaveWithPubKeySecurity(SAFEARRAY* recipients) {
    VARTYPE type = VT_EMPTY;
    if (recipients == nullptr || SafeArrayGetDim(recipients) != 1 || FAILED(SafeArrayGetVartype(recipients, &type)) ||
        type != VT_BSTR) {
        return Report(__uuidof(IZPdfContentObject), E_INVALIDARG, "The recipients must be an array of strings");
    }
    LONG lower = 0;
    LONG upper = -1;
    SafeArrayGetLBound(recipients, 1, &lower);
    SafeArrayGetUBound(recipients, 1, &upper);
    std::vector<OptionalText> certificates;
    for (LONG i = lower; i <= upper; ++i) {
        BSTR text = nullptr;
        if (const HRESULT hr = SafeArrayGetElement(recipients, &i, &text); FAILED(hr)) {
            return Report(__uuidof(IZPdfContentObject), hr, "Cannot read the recipients");
        }
        certificates.push_back(FromBstr(text));
        SysFreeString(text);
    }
    return Done(core_.SaveWithPubKeySecurity(&certificates));
}

STDMETHODIMP ContentObjectCom::AppendPages(IZPdfContentObject* srcObject) {
    ContentObjectCom* source = From(srcObject);
    if (srcObject != nullptr && source == nullptr) {
        return Report(__uuidof(IZPdfContentObject), E_INVALIDARG, "The source is not a content object of this component");
    }
    return Done(core_.AppendPages(source != nullptr ? &source->Core() : nullptr));
}

STDMETHODIMP ContentObjectCom::ReplacePages(LONG destPage, IZPdfContentObject* srcObject, LONG srcStart,
                                            LONG srcEnd) {
    ContentObjectCom* source = From(srcObject);
    if (srcObject != nullptr && source == nullptr) {
        return Report(__uuidof(IZPdfContentObject), E_INVALIDARG, "The source is not a content object of this component");
    }
    return Done(core_.ReplacePages(destPage, source != nullptr ? &source->Core() : nullptr, srcStart, srcEnd));
}

STDMETHODIMP ContentObjectCom::SplitPdf(BSTR PdfFile, BSTR DestPrefix, LONG* Splitted) {
    static_assert(sizeof(LONG) == sizeof(std::int32_t));
    return Done(core_.SplitPdf(FromBstr(PdfFile), FromBstr(DestPrefix), reinterpret_cast<std::int32_t*>(Splitted)));
}

STDMETHODIMP ContentObjectCom::GetKind(LONG* kind) {
    if (kind == nullptr) return E_POINTER;
    *kind = kKindCode;
    return S_OK;
}

STDMETHODIMP ContentObjectCom::Reserved(INT_PTR, INT_PTR, INT_PTR) { return E_NOTIMPL; }

STDMETHODIMP ContentObjectCom::GetClassID(CLSID* clsid) {
    if (clsid == nullptr) return E_POINTER;
    *clsid = __uuidof(ZPdfContentObject);
    return S_OK;
}

STDMETHODIMP ContentObjectCom::IsDirty() { return core_.IsDirty(); }

STDMETHODIMP ContentObjectCom::Load(IStream* stream) {
    if (stream == nullptr) return E_POINTER;
    IStreamByteStream bytes(stream);
    return Done(core_.Load(bytes));
}

STDMETHODIMP ContentObjectCom::Save(IStream* stream, BOOL clear_dirty) {
    if (stream == nullptr) return E_POINTER;
    IStreamByteStream bytes(stream);
    return Done(core_.Save(bytes, clear_dirty != FALSE));
}

STDMETHODIMP ContentObjectCom::GetSizeMax(ULARGE_INTEGER* size) {
    if (size == nullptr) return E_POINTER;
    std::uint64_t max = 0;
    const HRESULT hr = core_.GetSizeMax(&max);
    size->QuadPart = max;
    return hr;
}

STDMETHODIMP ContentObjectCom::InitNew() { return core_.InitNew(); }

STDMETHODIMP ContentObjectCom::InterfaceSupportsErrorInfo(REFIID iid) {
    return iid == __uuidof(IZPdfContentObject) ? S_OK : S_FALSE;
}

}  // namespace zpdf::com
