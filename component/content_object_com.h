// ZPdfContentObject: the COM class over CZPdfContentObject. Each method converts its
// arguments, calls the core once and reports the result.
#pragma once

#include <windows.h>
#include <ocidl.h>

#include "component/com_support.h"
#include "content_object/content_object.h"

namespace zpdf::com {

// Identifies the component's own implementation behind an IZPdfContentObject pointer, so that
// a method taking another content object reaches its document directly.
// {5E0C2D8B-3F41-4B6A-9E2C-7A1D4F8B9C20}
extern const IID IID_ZPdfContentObjectImplementation;

class ContentObjectCom final : public IZPdfContentObject,
                               public IZObject,
                               public IPersistStreamInit,
                               public ISupportErrorInfo,
                               private DispatchFromTypeLibrary<IZPdfContentObject> {
public:
    static HRESULT Create(REFIID iid, void** object);
    // The implementation behind `object`, or null when it is not one of ours.
    static ContentObjectCom* From(IZPdfContentObject* object);
    CZPdfContentObject& Core() { return core_; }

    // IUnknown
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

    // IDispatch (both dual interfaces share it; it describes IZPdfContentObject)
    STDMETHODIMP GetTypeInfoCount(UINT* count) override;
    STDMETHODIMP GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) override;
    STDMETHODIMP GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID lcid, DISPID* ids) override;
    STDMETHODIMP Invoke(DISPID member, REFIID iid, LCID lcid, WORD flags, DISPPARAMS* params,
                        VARIANT* result, EXCEPINFO* exception, UINT* arg_error) override;

    // IZPdfContentObject
    STDMETHODIMP SetPdfDocument(BSTR PdfFile, VARIANT_BOOL Embed, BSTR Password) override;
    STDMETHODIMP GetPdfDocument(BSTR* PdfFile) override;
    STDMETHODIMP get_PageCount(LONG* pVal) override;
    STDMETHODIMP GetPageSize(LONG PageNumber, DOUBLE* ptWidth, DOUBLE* ptHeight) override;
    STDMETHODIMP DrawPageToDC(hyper hdc, LONG PageNumber, LONG PageRectLeft, LONG PageRectTop,
                              LONG PageRectWidth, LONG PageRectHeight, LONG DrawRectLeft, LONG DrawRectTop,
                              LONG DrawRectWidth, LONG DrawRectHeight, LONG Options) override;
    STDMETHODIMP OverlayPrepare(BSTR SourcePdfFile) override;
    STDMETHODIMP OverlayPage(LONG SourcePage, LONG DestinationPage, LONG ptPosLeft, LONG ptPosTop,
                             LONG ptPosRight, LONG ptPosBottom) override;
    STDMETHODIMP OverlayFinish() override;
    STDMETHODIMP Save() override;
    STDMETHODIMP SaveWithSecurity(BSTR UserPassword, BSTR OwnerPassword) override;
    STDMETHODIMP OverlayPage2(LONG SourcePage, LONG DestinationPage, LONG ptPosLeft, LONG ptPosTop,
                              LONG ptPosRight, LONG ptPosBottom, LONG nOptions) override;
    STDMETHODIMP ImportContent(IZPdfContentObject* srcObject, SAFEARRAY** pages) override;
    STDMETHODIMP PlaceContent(ULONG srcObjectId, LONG DestinationPage, FLOAT transX, FLOAT transY,
                              FLOAT scaleX, FLOAT scaleY, VARIANT_BOOL background) override;
    STDMETHODIMP SaveWithPubKeySecurity(SAFEARRAY* recipients) override;
    STDMETHODIMP AppendPages(IZPdfContentObject* srcObject) override;
    STDMETHODIMP ReplacePages(LONG destPage, IZPdfContentObject* srcObject, LONG srcStart, LONG srcEnd) override;
    STDMETHODIMP SplitPdf(BSTR PdfFile, BSTR DestPrefix, LONG* Splitted) override;

    // IZObject
    STDMETHODIMP GetKind(LONG* kind) override;
    STDMETHODIMP Reserved(INT_PTR first, INT_PTR second, INT_PTR third) override;

    // IPersistStreamInit
    STDMETHODIMP GetClassID(CLSID* clsid) override;
    STDMETHODIMP IsDirty() override;
    STDMETHODIMP Load(IStream* stream) override;
    STDMETHODIMP Save(IStream* stream, BOOL clear_dirty) override;
    STDMETHODIMP GetSizeMax(ULARGE_INTEGER* size) override;
    STDMETHODIMP InitNew() override;

    // ISupportErrorInfo
    STDMETHODIMP InterfaceSupportsErrorInfo(REFIID iid) override;

private:
    ContentObjectCom();
    ~ContentObjectCom();
    HRESULT Done(HRESULT result);

    std::atomic<ULONG> refs_{1};
    CZPdfContentObject core_;
};

}  // namespace zpdf::com
