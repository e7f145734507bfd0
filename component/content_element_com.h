// ZPdfContentElement: the COM class over CZPdfContentElement.
#pragma once

#include "component/com_support.h"
#include "content_element/content_element.h"

namespace zpdf::com {

class ContentElementCom final
    : public ComObject<ContentElementCom, IZPdfContentElement, UndescribedDispatch<IZElement>,
                       StreamPersistence<ContentElementCom, ZPdfContentElement>> {
  public:
    CZPdfContentElement& Core() { return core_; }
    // The core element keeps no words for its failures: they are missing places for results and
    // records the stream cannot give or take.
    std::string ErrorText(HRESULT result) const {
        return result == E_POINTER ? kNoPlace : "Cannot read or write the content element's record";
    }

    static constexpr Entry kInterfaces[] = {
        {&IID_IZElement, &As<IZElement>},
        {&IID_IPersistStreamInit, &As<IPersistStreamInit>},
        {&IID_IPersistStream, &As<IPersistStreamInit>},
        {&IID_IPersist, &As<IPersistStreamInit>},
    };

    // IZPdfContentElement
    STDMETHODIMP SetPosition(LONG Left, LONG Top, LONG Width, LONG Height) override;
    STDMETHODIMP GetPosition(LONG* Left, LONG* Top, LONG* Width, LONG* Height) override;
    STDMETHODIMP get_MaintainAspectRatio(VARIANT_BOOL* pVal) override;
    STDMETHODIMP put_MaintainAspectRatio(VARIANT_BOOL newVal) override;
    STDMETHODIMP get_PdfObject(IZPdfContentObject** pVal) override;
    STDMETHODIMP put_PdfObject(IZPdfContentObject* newVal) override;
    STDMETHODIMP get_Page(LONG* pVal) override;
    STDMETHODIMP put_Page(LONG newVal) override;

    // IZElement
    STDMETHODIMP GetKind(LONG* kind) override;
    STDMETHODIMP ResolveObjectLink(IUnknown* unused, IZObjectCollection* primary,
                                   IZObjectCollection* secondary) override;
    STDMETHODIMP GetBounds(LONG* left, LONG* top, LONG* right, LONG* bottom) override;
    STDMETHODIMP DrawToDC(LONG hdc, LONG unused1, LONG unused2, LONG unused3, LONG unused4,
                          LONG options, LONG unused5) override;

  private:
    friend ComObject;
    ContentElementCom() = default;
    ~ContentElementCom() = default;

    CZPdfContentElement core_;
};

// The element's content object as the core holds it: any IZPdfContentObject, this module's own
// or a proxy of one living in another apartment, drawn through the interface. The reference
// holds one COM reference to the interface. Null for null.
ContentObjectRef RefFromInterface(IZPdfContentObject* object);
// The interface behind a reference made by RefFromInterface (not counted), or null.
IZPdfContentObject* InterfaceFromRef(const ContentObjectRef& ref);

}  // namespace zpdf::com
