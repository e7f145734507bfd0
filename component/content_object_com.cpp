#include "component/content_object_com.h"

#include <algorithm>
#include <vector>

#include "component/gdi_device_context.h"
#include "content_object/diagnostics.h"

namespace zpdf::com {

const IID IID_ZPdfContentObjectImplementation = {
    0x5e0c2d8b, 0x3f41, 0x4b6a, {0x9e, 0x2c, 0x7a, 0x1d, 0x4f, 0x8b, 0x9c, 0x20}};

namespace {

// Whether `object` is a proxy: COM's proxies, and only they, answer IClientSecurity.
bool IsProxy(IUnknown* object) {
    IClientSecurity* security = nullptr;
    if (FAILED(object->QueryInterface(IID_IClientSecurity, reinterpret_cast<void**>(&security))))
        return false;
    security->Release();
    return true;
}

}  // namespace

ContentObjectCom* ContentObjectCom::From(IZPdfContentObject* object) {
    void* self = nullptr;
    if (object == nullptr ||
        FAILED(object->QueryInterface(IID_ZPdfContentObjectImplementation, &self))) {
        return nullptr;
    }
    auto* implementation = static_cast<ContentObjectCom*>(self);
    implementation->Release();
    return implementation;
}

Outcome ContentObjectCom::Source(IZPdfContentObject* source, CZPdfContentObject** core) {
    *core = nullptr;
    if (source == nullptr) return S_OK;
    if (ContentObjectCom* implementation = From(source); implementation != nullptr) {
        *core = &implementation->core_;
        return S_OK;
    }
    // The source's document is read directly, on this thread. An object of another apartment
    // works on its own thread only (apartment-threaded), so its document is not reached from
    // here, even when the proxy leads to this module's own object in this process.
    const char* why =
        IsProxy(source)
            ? "The source content object lives in another apartment; pass it on the thread "
              "that created it"
            : "The source is not a content object of this component";
    ZPDF_LOG_ERROR(diagnostics::Pdf(), "Source object refused: %s", why);
    return {E_INVALIDARG, why};
}

STDMETHODIMP ContentObjectCom::SetPdfDocument(BSTR PdfFile, VARIANT_BOOL Embed, BSTR Password) {
    return Call([&] { return core_.SetPdfDocument(FromBstr(PdfFile), Embed, FromBstr(Password)); });
}

STDMETHODIMP ContentObjectCom::GetPdfDocument(BSTR* PdfFile) {
    return Call([&] {
        OptionalText path;
        const HRESULT hr = core_.GetPdfDocument(PdfFile != nullptr ? &path : nullptr);
        if (SUCCEEDED(hr)) *PdfFile = ToBstr(path);
        return hr;
    });
}

STDMETHODIMP ContentObjectCom::get_PageCount(LONG* pVal) {
    return Call([&] { return core_.PageCount(Int32(pVal)); });
}

STDMETHODIMP ContentObjectCom::GetPageSize(LONG PageNumber, DOUBLE* ptWidth, DOUBLE* ptHeight) {
    return Call([&] { return core_.GetPageSize(PageNumber, ptWidth, ptHeight); });
}

STDMETHODIMP ContentObjectCom::DrawPageToDC(hyper hdc, LONG PageNumber, LONG PageRectLeft,
                                            LONG PageRectTop, LONG PageRectWidth,
                                            LONG PageRectHeight, LONG DrawRectLeft,
                                            LONG DrawRectTop, LONG DrawRectWidth,
                                            LONG DrawRectHeight, LONG Options) {
    return Call([&] {
        // The handle travels widened to 64 bits; its low half is the device context.
        GdiDeviceContext dc(
            reinterpret_cast<HDC>(static_cast<UINT_PTR>(static_cast<ULONG>(hdc & 0xFFFFFFFF))));
        return core_.DrawPageToDC(dc, PageNumber, PageRectLeft, PageRectTop, PageRectWidth,
                                  PageRectHeight, DrawRectLeft, DrawRectTop, DrawRectWidth,
                                  DrawRectHeight, Options);
    });
}

STDMETHODIMP ContentObjectCom::OverlayPrepare(BSTR SourcePdfFile) {
    return Call([&] { return core_.OverlayPrepare(FromBstr(SourcePdfFile)); });
}

STDMETHODIMP ContentObjectCom::OverlayPage(LONG SourcePage, LONG DestinationPage, LONG ptPosLeft,
                                           LONG ptPosTop, LONG ptPosRight, LONG ptPosBottom) {
    return Call([&] {
        return core_.OverlayPage(SourcePage, DestinationPage, ptPosLeft, ptPosTop, ptPosRight,
                                 ptPosBottom);
    });
}

STDMETHODIMP ContentObjectCom::OverlayFinish() {
    return Call([&] { return core_.OverlayFinish(); });
}

STDMETHODIMP ContentObjectCom::Save() {
    return Call([&] { return core_.Save(); });
}

STDMETHODIMP ContentObjectCom::SaveWithSecurity(BSTR UserPassword, BSTR OwnerPassword) {
    return Call(
        [&] { return core_.SaveWithSecurity(FromBstr(UserPassword), FromBstr(OwnerPassword)); });
}

STDMETHODIMP ContentObjectCom::OverlayPage2(LONG SourcePage, LONG DestinationPage, LONG ptPosLeft,
                                            LONG ptPosTop, LONG ptPosRight, LONG ptPosBottom,
                                            LONG nOptions) {
    return Call([&] {
        return core_.OverlayPage2(SourcePage, DestinationPage, ptPosLeft, ptPosTop, ptPosRight,
                                  ptPosBottom, nOptions);
    });
}

STDMETHODIMP ContentObjectCom::ImportContent(IZPdfContentObject* srcObject, SAFEARRAY** pages) {
    return Call([&]() -> Outcome {
        if (pages != nullptr) *pages = nullptr;
        CZPdfContentObject* source = nullptr;
        if (Outcome refused = Source(srcObject, &source); FAILED(refused.result)) return refused;
        std::vector<std::uint32_t> ids;
        const HRESULT hr = core_.ImportContent(source, pages != nullptr ? &ids : nullptr);
        if (FAILED(hr)) return hr;
        SAFEARRAY* array = SafeArrayCreateVector(VT_UI4, 0, static_cast<ULONG>(ids.size()));
        if (array == nullptr) throw std::bad_alloc();
        void* data = nullptr;
        if (const HRESULT locked = SafeArrayAccessData(array, &data); FAILED(locked)) {
            SafeArrayDestroy(array);
            return {locked, "Cannot fill the result"};
        }
        std::copy(ids.begin(), ids.end(), static_cast<ULONG*>(data));
        SafeArrayUnaccessData(array);
        *pages = array;
        return S_OK;
    });
}

STDMETHODIMP ContentObjectCom::PlaceContent(ULONG srcObjectId, LONG DestinationPage, FLOAT transX,
                                            FLOAT transY, FLOAT scaleX, FLOAT scaleY,
                                            VARIANT_BOOL background) {
    return Call([&] {
        return core_.PlaceContent(srcObjectId, DestinationPage, transX, transY, scaleX, scaleY,
                                  background);
    });
}

STDMETHODIMP ContentObjectCom::SaveWithPubKeySecurity(SAFEARRAY* recipients) {
    return Call([&]() -> Outcome {
        VARTYPE type = VT_EMPTY;
        if (recipients == nullptr || SafeArrayGetDim(recipients) != 1 ||
            FAILED(SafeArrayGetVartype(recipients, &type)) || type != VT_BSTR) {
            return {E_INVALIDARG, "The recipients must be an array of strings"};
        }
        LONG lower = 0;
        LONG upper = -1;
        SafeArrayGetLBound(recipients, 1, &lower);
        SafeArrayGetUBound(recipients, 1, &upper);
        std::vector<OptionalText> certificates;
        for (LONG i = lower; i <= upper; ++i) {
            BSTR text = nullptr;
            if (const HRESULT hr = SafeArrayGetElement(recipients, &i, &text); FAILED(hr)) {
                return {hr, "Cannot read the recipients"};
            }
            certificates.push_back(FromBstr(text));
            SysFreeString(text);
        }
        return core_.SaveWithPubKeySecurity(&certificates);
    });
}

STDMETHODIMP ContentObjectCom::AppendPages(IZPdfContentObject* srcObject) {
    return Call([&]() -> Outcome {
        CZPdfContentObject* source = nullptr;
        if (Outcome refused = Source(srcObject, &source); FAILED(refused.result)) return refused;
        return core_.AppendPages(source);
    });
}

STDMETHODIMP ContentObjectCom::ReplacePages(LONG destPage, IZPdfContentObject* srcObject,
                                            LONG srcStart, LONG srcEnd) {
    return Call([&]() -> Outcome {
        CZPdfContentObject* source = nullptr;
        if (Outcome refused = Source(srcObject, &source); FAILED(refused.result)) return refused;
        return core_.ReplacePages(destPage, source, srcStart, srcEnd);
    });
}

STDMETHODIMP ContentObjectCom::SplitPdf(BSTR PdfFile, BSTR DestPrefix, LONG* Splitted) {
    return Call(
        [&] { return core_.SplitPdf(FromBstr(PdfFile), FromBstr(DestPrefix), Int32(Splitted)); });
}

STDMETHODIMP ContentObjectCom::GetKind(LONG* kind) {
    return Call<IZObject>([&] { return GetKindCode(kind); });
}

STDMETHODIMP ContentObjectCom::Reserved(INT_PTR, INT_PTR, INT_PTR) {
    return Call<IZObject>([]() -> Outcome { return {E_NOTIMPL, DescribeHResult(E_NOTIMPL)}; });
}

}  // namespace zpdf::com
