// ZPdfContentElement: the COM class over CZPdfContentElement.
#pragma once

#include <windows.h>
#include <ocidl.h>

#include "component/com_support.h"
#include "content_element/content_element.h"

namespace zpdf::com {

class ContentElementCom final : public IZPdfContentElement,
                                public IZElement,
                                public IPersistStreamInit,
                                public ISupportErrorInfo,
                                private DispatchFromTypeLibrary<IZPdfContentElement> {
public:
    static HRESULT Create(REFIID iid, void** object);

    STDMETHODIMP QueryInterface(REFIID iid, void** object) override;
    STDMETHODIMP_(ULONG) AddRef() override;
    STDMETHODIMP_(ULONG) Release() override;

    STDMETHODIMP GetTypeInfoCount(UINT* count) override;
    STDMETHODIMP GetTypeInfo(UINT index, LCID lcid, ITypeInfo** info) override;
    STDMETHODIMP GetIDsOfNames(REFIID iid, LPOLESTR* names, UINT count, LCID lcid, DISPID* ids) override;
    STDMETHODIMP Invoke(DISPID member, REFIID iid, LCID lcid, WORD flags, DISPPARAMS* params,
                        VARIANT* result, EXCEPINFO* exception, UINT* arg_error) override;

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
    STDMETHODIMP DrawToDC(LONG hdc, LONG unused1, LONG unused2, LONG unused3, LONG unused4, LONG options,
                          LONG unused5) override;

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
    ContentElementCom();
    ~ContentElementCom();
    HRESULT Done(HRESULT result);

    std::atomic<ULONG> refs_{1};
    CZPdfContentElement core_;
};

// A counted reference to a content object as the core holds it: the shared pointer's deleter
// releases the COM reference taken for it.
ContentObjectRef RefFromInterface(IZPdfContentObject* object);
IZPdfContentObject* InterfaceFromRef(const ContentObjectRef& ref);

}  // namespace zpdf::com
