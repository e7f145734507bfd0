// ZPdfContentObject: the COM class over CZPdfContentObject. Each method converts its
// arguments, calls the core once and reports the result.
#pragma once

#include "component/com_support.h"
#include "content_object/content_object.h"

namespace zpdf::com {

// Identifies the component's own implementation behind an IZPdfContentObject pointer, so that
// a method taking another content object reaches its document directly.
// {5E0C2D8B-3F41-4B6A-9E2C-7A1D4F8B9C20}
extern const IID IID_ZPdfContentObjectImplementation;

class ContentObjectCom final
    : public ComObject<ContentObjectCom, IZPdfContentObject, UndescribedDispatch<IZObject>,
                       StreamPersistence<ContentObjectCom, ZPdfContentObject>> {
  public:
    // The implementation behind `object`, or null when it is not one of ours. The caller's
    // reference to `object` keeps it alive.
    static ContentObjectCom* From(IZPdfContentObject* object);
    CZPdfContentObject& Core() { return core_; }
    std::string ErrorText(HRESULT) const { return core_.LastErrorText(); }

    static constexpr Entry kInterfaces[] = {
        {&IID_IZObject, &As<IZObject>},
        {&IID_IPersistStreamInit, &As<IPersistStreamInit>},
        {&IID_IPersistStream, &As<IPersistStreamInit>},
        {&IID_IPersist, &As<IPersistStreamInit>},
        {&IID_ZPdfContentObjectImplementation, &As<ContentObjectCom>},
    };

    // IZPdfContentObject
    STDMETHODIMP SetPdfDocument(BSTR PdfFile, VARIANT_BOOL Embed, BSTR Password) override;
    STDMETHODIMP GetPdfDocument(BSTR* PdfFile) override;
    STDMETHODIMP get_PageCount(LONG* pVal) override;
    STDMETHODIMP GetPageSize(LONG PageNumber, DOUBLE* ptWidth, DOUBLE* ptHeight) override;
    STDMETHODIMP DrawPageToDC(hyper hdc, LONG PageNumber, LONG PageRectLeft, LONG PageRectTop,
                              LONG PageRectWidth, LONG PageRectHeight, LONG DrawRectLeft,
                              LONG DrawRectTop, LONG DrawRectWidth, LONG DrawRectHeight,
                              LONG Options) override;
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
    STDMETHODIMP ReplacePages(LONG destPage, IZPdfContentObject* srcObject, LONG srcStart,
                              LONG srcEnd) override;
    STDMETHODIMP SplitPdf(BSTR PdfFile, BSTR DestPrefix, LONG* Splitted) override;

    // IZObject
    STDMETHODIMP GetKind(LONG* kind) override;
    STDMETHODIMP Reserved(INT_PTR first, INT_PTR second, INT_PTR third) override;

    // IPersistStreamInit's Save, which IZPdfContentObject's hides.
    using StreamPersistence::Save;

  private:
    friend ComObject;
    ContentObjectCom() = default;
    ~ContentObjectCom() = default;

    // The core behind a source argument in `*core` (null for null); E_INVALIDARG, with the
    // reason logged and described, for an object whose document this thread cannot read.
    static Outcome Source(IZPdfContentObject* source, CZPdfContentObject** core);

    CZPdfContentObject core_;
};

}  // namespace zpdf::com
