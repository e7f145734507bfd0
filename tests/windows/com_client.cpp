// Drives ZPdfCntObj.dll the way a COM client does: created by ProgID, called through its
// vtables and through IDispatch, its type library read back, persisted through OLE streams,
// and drawing into a memory device context.
//   com_client DOC.pdf LETTERHEAD.pdf WORK_FOLDER
// Prints one line per check and a closing "N passed, N failed".
#include <windows.h>
#include <ole2.h>
#include <oleauto.h>

#include <cstdio>
#include <cwchar>
#include <functional>
#include <string>
#include <vector>

#include "ZPdfCntObj_h.h"

namespace {

int g_passed = 0;
int g_failed = 0;

void Check(bool ok, const char* what, HRESULT hr = S_OK) {
    if (ok) {
        ++g_passed;
        std::printf("ok - %s\n", what);
    } else {
        ++g_failed;
        std::printf("not ok - %s (0x%08lX)\n", what, static_cast<unsigned long>(hr));
    }
}

template <class T>
void SafeRelease(T*& p) {
    if (p != nullptr) p->Release();
    p = nullptr;
}

std::wstring Widen(const char* text) {
    const int n = MultiByteToWideChar(CP_UTF8, 0, text, -1, nullptr, 0);
    std::wstring out(static_cast<size_t>(n > 0 ? n - 1 : 0), L'\0');
    MultiByteToWideChar(CP_UTF8, 0, text, -1, out.data(), n);
    return out;
}

struct Bstr {
    BSTR b;
    explicit Bstr(const std::wstring& s) : b(SysAllocString(s.c_str())) {}
    ~Bstr() { SysFreeString(b); }
};

template <class T>
HRESULT Create(const wchar_t* progid, T** out) {
    CLSID clsid;
    HRESULT hr = CLSIDFromProgID(progid, &clsid);
    if (FAILED(hr)) return hr;
    return CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, __uuidof(T), reinterpret_cast<void**>(out));
}

// A 32-bit top-down DIB section in a memory device context, white.
struct Canvas {
    HDC dc = nullptr;
    HBITMAP bitmap = nullptr;
    HGDIOBJ old = nullptr;
    UINT32* bits = nullptr;
    int width;
    int height;
    Canvas(int w, int h) : width(w), height(h) {
        BITMAPINFO info{};
        info.bmiHeader.biSize = sizeof(BITMAPINFOHEADER);
        info.bmiHeader.biWidth = w;
        info.bmiHeader.biHeight = -h;
        info.bmiHeader.biPlanes = 1;
        info.bmiHeader.biBitCount = 32;
        info.bmiHeader.biCompression = BI_RGB;
        dc = CreateCompatibleDC(nullptr);
        bitmap = CreateDIBSection(dc, &info, DIB_RGB_COLORS, reinterpret_cast<void**>(&bits), nullptr, 0);
        old = SelectObject(dc, bitmap);
        for (int i = 0; i < w * h; ++i) bits[i] = 0x00FFFFFF;
    }
    ~Canvas() {
        SelectObject(dc, old);
        DeleteObject(bitmap);
        DeleteDC(dc);
    }
    bool Dark(int x, int y) const { return ((bits[y * width + x] >> 8) & 0xFF) < 64; }
};

void TypeLibraryChecks() {
    ITypeLib* lib = nullptr;
    HRESULT hr = LoadRegTypeLib(LIBID_ZPdfCntObjLib, 1, 0, 0, &lib);
    Check(SUCCEEDED(hr), "type library registered and loadable", hr);
    if (lib == nullptr) return;
    Check(lib->GetTypeInfoCount() == 5, "five type infos");
    const struct {
        const wchar_t* name;
        TYPEKIND kind;
        const GUID* guid;
        WORD flags;
        const wchar_t* help;
    } expected[] = {
        {L"ZePdfOverlayOptions", TKIND_ENUM, nullptr, 0, nullptr},
        {L"ZPdfContentObject", TKIND_COCLASS, &CLSID_ZPdfContentObject, TYPEFLAG_FCANCREATE, L"ZPdfContentObject Class"},
        // Wine's loader drops ole-automation from a dual interface's dispatch side; run.sh checks
        // that flag in the library file itself.
        {L"IZPdfContentObject", TKIND_DISPATCH, &IID_IZPdfContentObject,
         TYPEFLAG_FDUAL | TYPEFLAG_FNONEXTENSIBLE | TYPEFLAG_FDISPATCHABLE, L"IZPdfContentObject Interface"},
        {L"ZPdfContentElement", TKIND_COCLASS, &CLSID_ZPdfContentElement, TYPEFLAG_FCANCREATE, L"ZPdfContentElement Class"},
        {L"IZPdfContentElement", TKIND_DISPATCH, &IID_IZPdfContentElement,
         TYPEFLAG_FDUAL | TYPEFLAG_FNONEXTENSIBLE | TYPEFLAG_FDISPATCHABLE, L"IZPdfContentElement Interface"},
    };
    for (UINT i = 0; i < 5 && i < lib->GetTypeInfoCount(); ++i) {
        BSTR name = nullptr;
        BSTR help = nullptr;
        lib->GetDocumentation(static_cast<INT>(i), &name, &help, nullptr, nullptr);
        TYPEKIND kind;
        lib->GetTypeInfoType(i, &kind);
        ITypeInfo* info = nullptr;
        lib->GetTypeInfo(i, &info);
        TYPEATTR* attr = nullptr;
        info->GetTypeAttr(&attr);
        std::string what = "type info " + std::to_string(i);
        Check(name != nullptr && wcscmp(name, expected[i].name) == 0, (what + " name").c_str());
        Check(kind == expected[i].kind, (what + " kind").c_str());
        if (expected[i].guid != nullptr) Check(IsEqualGUID(attr->guid, *expected[i].guid), (what + " GUID").c_str());
        if (expected[i].flags != 0) {
            Check((attr->wTypeFlags & expected[i].flags) == expected[i].flags, (what + " flags").c_str(),
                  static_cast<HRESULT>(attr->wTypeFlags));
        }
        if (expected[i].help != nullptr) {
            Check(help != nullptr && wcscmp(help, expected[i].help) == 0, (what + " help string").c_str());
        }
        info->ReleaseTypeAttr(attr);
        info->Release();
        SysFreeString(name);
        SysFreeString(help);
    }
    BSTR libhelp = nullptr;
    lib->GetDocumentation(-1, nullptr, &libhelp, nullptr, nullptr);
    Check(libhelp != nullptr && wcscmp(libhelp, L"ZPdfCntObj 1.0 Type Library") == 0, "library help string");
    SysFreeString(libhelp);

    // Members of IZPdfContentObject: DISPIDs, help strings, parameter names.
    ITypeInfo* info = nullptr;
    lib->GetTypeInfoOfGuid(IID_IZPdfContentObject, &info);
    // The dual interface's vtable side keeps the names of [out, retval] parameters too.
    ITypeInfo* vtable_info = nullptr;
    HREFTYPE vtable_ref = 0;
    if (SUCCEEDED(info->GetRefTypeOfImplType(-1, &vtable_ref))) info->GetRefTypeInfo(vtable_ref, &vtable_info);
    Check(vtable_info != nullptr, "dual interface has its vtable description");
    const struct {
        const wchar_t* name;
        DISPID id;
        std::vector<std::wstring> params;
        const wchar_t* help;
    } members[] = {
        {L"SetPdfDocument", 1, {L"PdfFile", L"Embed", L"Password"}, L"method SetPdfDocument"},
        {L"GetPdfDocument", 2, {L"PdfFile"}, L"method GetPdfDocument"},
        {L"PageCount", 3, {}, L"property PageCount"},
        {L"GetPageSize", 4, {L"PageNumber", L"ptWidth", L"ptHeight"}, L"method GetPageSize"},
        {L"DrawPageToDC", 5, {L"hdc", L"PageNumber", L"PageRectLeft"}, L"method DrawPageToDC"},
        {L"ImportContent", 12, {L"srcObject", L"pages"}, L"method ImportContent"},
        {L"PlaceContent", 13, {L"srcObjectId", L"DestinationPage", L"transX"}, L"method PlaceContent"},
        {L"SplitPdf", 17, {L"PdfFile", L"DestPrefix", L"Splitted"}, L"Splits a PDF after any page that contains @@nd@@"},
    };
    for (const auto& m : members) {
        std::string what = "member ";
        for (const wchar_t* c = m.name; *c; ++c) what += static_cast<char>(*c);
        LPOLESTR names[1] = {const_cast<LPOLESTR>(m.name)};
        MEMBERID id = 0;
        hr = info->GetIDsOfNames(names, 1, &id);
        Check(SUCCEEDED(hr) && id == m.id, (what + " DISPID").c_str(), hr);
        BSTR help = nullptr;
        info->GetDocumentation(id, nullptr, &help, nullptr, nullptr);
        Check(help != nullptr && wcscmp(help, m.help) == 0, (what + " help string").c_str());
        SysFreeString(help);
        BSTR got[16] = {};
        UINT count = 0;
        (vtable_info != nullptr ? vtable_info : info)->GetNames(id, got, 16, &count);
        bool same = count >= m.params.size() + 1;
        for (size_t k = 0; same && k < m.params.size(); ++k) same = m.params[k] == got[k + 1];
        Check(same, (what + " parameter names").c_str());
        for (UINT k = 0; k < count; ++k) SysFreeString(got[k]);
    }
    SafeRelease(vtable_info);
    info->Release();
    lib->Release();
}


// What both classes owe each interface they answer: its failures described in error information
// of its own, the print engine's interfaces (described in the engine's library, not ours) with an
// IDispatch that knows no member of the default interface, and the identity by which content
// objects find each other counted like any pointer handed out.
void InterfaceChecks(IZPdfContentObject* object, IZObject* zobject, IZPdfContentElement* element,
                     IZElement* zelement) {
    IPersistStreamInit* object_persist = nullptr;
    object->QueryInterface(IID_IPersistStreamInit, reinterpret_cast<void**>(&object_persist));
    IPersistStreamInit* element_persist = nullptr;
    element->QueryInterface(IID_IPersistStreamInit, reinterpret_cast<void**>(&element_persist));
    LONG n = 0;
    const struct {
        const char* what;
        IUnknown* target;
        const IID& iid;
        std::function<HRESULT()> call;
    } failures[] = {
        {"IZObject GetKind without a place", object, IID_IZObject, [&] { return zobject->GetKind(nullptr); }},
        {"object Load without a stream", object, IID_IPersistStreamInit, [&] { return object_persist->Load(nullptr); }},
        {"element GetPosition without places", element, IID_IZPdfContentElement,
         [&] { return element->GetPosition(nullptr, &n, &n, &n); }},
        {"IZElement GetKind without a place", element, IID_IZElement, [&] { return zelement->GetKind(nullptr); }},
        {"IZElement GetBounds without places", element, IID_IZElement,
         [&] { return zelement->GetBounds(nullptr, &n, &n, &n); }},
        {"element GetSizeMax without a place", element, IID_IPersistStreamInit,
         [&] { return element_persist->GetSizeMax(nullptr); }},
        {"element Load without a stream", element, IID_IPersistStreamInit,
         [&] { return element_persist->Load(nullptr); }},
    };
    for (const auto& f : failures) {
        SetErrorInfo(0, nullptr);
        const HRESULT hr = f.call();
        ISupportErrorInfo* support = nullptr;
        f.target->QueryInterface(IID_ISupportErrorInfo, reinterpret_cast<void**>(&support));
        const bool supported = support != nullptr && support->InterfaceSupportsErrorInfo(f.iid) == S_OK;
        SafeRelease(support);
        IErrorInfo* error = nullptr;
        BSTR description = nullptr;
        GUID guid = GUID_NULL;
        if (GetErrorInfo(0, &error) == S_OK && error != nullptr) {
            error->GetDescription(&description);
            error->GetGUID(&guid);
            error->Release();
        }
        Check(hr == E_POINTER && supported && description != nullptr && SysStringLen(description) > 0 &&
                  IsEqualGUID(guid, f.iid),
              (std::string(f.what) + " is described as a failure of its interface").c_str(), hr);
        SysFreeString(description);
    }
    SafeRelease(object_persist);
    SafeRelease(element_persist);

    const struct {
        const char* what;
        IDispatch* dispatch;
        const wchar_t* member;  // of the class's default interface
    } engine_interfaces[] = {{"IZObject", zobject, L"PageCount"}, {"IZElement", zelement, L"Page"}};
    for (const auto& e : engine_interfaces) {
        UINT count = 1;
        LPOLESTR name = const_cast<LPOLESTR>(e.member);
        DISPID id = 0;
        Check(e.dispatch->GetTypeInfoCount(&count) == S_OK && count == 0 &&
                  e.dispatch->GetIDsOfNames(IID_NULL, &name, 1, 0, &id) == DISP_E_UNKNOWNNAME,
              (std::string(e.what) + "'s IDispatch does not describe the default interface").c_str());
    }

    // {5E0C2D8B-3F41-4B6A-9E2C-7A1D4F8B9C20}, the component's own.
    const IID identity = {0x5e0c2d8b, 0x3f41, 0x4b6a, {0x9e, 0x2c, 0x7a, 0x1d, 0x4f, 0x8b, 0x9c, 0x20}};
    const ULONG before = object->AddRef();
    object->Release();
    void* self = nullptr;
    const HRESULT hr = object->QueryInterface(identity, &self);
    const ULONG after = object->AddRef();
    object->Release();
    Check(hr == S_OK && after == before + 1, "the implementation identity is a counted reference", hr);
    if (SUCCEEDED(hr)) object->Release();
}

}  // namespace

// Another apartment's view of the object: the interface marshalled to a thread of the
// multithreaded apartment, where calls go through the type library's proxies.
struct CrossApartmentCall {
    IStream* marshalled = nullptr;
    bool is_proxy = false;
    HRESULT count_hr = E_FAIL;
    LONG pages = -1;
    HRESULT size_hr = E_FAIL;
    double width = 0;
    double height = 0;
    HRESULT path_hr = E_FAIL;
    std::wstring path;
    IZPdfContentObject* original = nullptr;

    static DWORD WINAPI Run(void* argument) {
        auto* call = static_cast<CrossApartmentCall*>(argument);
        CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        IZPdfContentObject* remote = nullptr;
        if (SUCCEEDED(CoGetInterfaceAndReleaseStream(call->marshalled, __uuidof(IZPdfContentObject),
                                                     reinterpret_cast<void**>(&remote)))) {
            call->is_proxy = remote != call->original;
            call->count_hr = remote->get_PageCount(&call->pages);
            call->size_hr = remote->GetPageSize(1, &call->width, &call->height);
            BSTR held = nullptr;
            call->path_hr = remote->GetPdfDocument(&held);
            if (held != nullptr) call->path = held;
            SysFreeString(held);
            remote->Release();
        }
        CoUninitialize();
        return 0;
    }
};

// Runs `call` on a new thread while this single-threaded apartment keeps pumping messages, so
// that the calls marshalled back to it are served.
void RunAcrossApartments(IZPdfContentObject* object, CrossApartmentCall& call) {
    call.original = object;
    if (FAILED(CoMarshalInterThreadInterfaceInStream(__uuidof(IZPdfContentObject), object, &call.marshalled))) {
        return;
    }
    HANDLE thread = CreateThread(nullptr, 0, &CrossApartmentCall::Run, &call, 0, nullptr);
    if (thread == nullptr) return;
    const DWORD deadline = GetTickCount() + 60000;
    while (MsgWaitForMultipleObjects(1, &thread, FALSE, 1000, QS_ALLINPUT) != WAIT_OBJECT_0 &&
           GetTickCount() < deadline) {
        MSG message;
        while (PeekMessageW(&message, nullptr, 0, 0, PM_REMOVE)) DispatchMessageW(&message);
    }
    CloseHandle(thread);
}

int wmain(int argc, wchar_t** argv) {
    if (argc != 4) {
        std::fprintf(stderr, "usage: com_client DOC.pdf LETTERHEAD.pdf WORK_FOLDER\n");
        return 2;
    }
    const std::wstring doc = argv[1];
    const std::wstring letterhead = argv[2];
    const std::wstring work = argv[3];
    CoInitialize(nullptr);

    IZPdfContentObject* object = nullptr;
    HRESULT hr = Create(L"Ostrand.ZPdfContentObject", &object);
    Check(SUCCEEDED(hr), "content object created by ProgID", hr);
    IZPdfContentElement* element = nullptr;
    hr = Create(L"Ostrand.ZPdfContentElement.1", &element);
    Check(SUCCEEDED(hr), "content element created by versioned ProgID", hr);
    if (object == nullptr || element == nullptr) {
        std::printf("%d passed, %d failed\n", g_passed, g_failed + 1);
        return 1;
    }

    // Kind codes through the host's interfaces.
    IZObject* zobject = nullptr;
    hr = object->QueryInterface(__uuidof(IZObject), reinterpret_cast<void**>(&zobject));
    LONG kind = 0;
    Check(SUCCEEDED(hr) && zobject->GetKind(&kind) == S_OK && kind == 305, "IZObject kind is 305", hr);
    if (zobject != nullptr) Check(zobject->Reserved(0, 0, 0) == E_NOTIMPL, "IZObject second method is not implemented");
    IZElement* zelement = nullptr;
    hr = element->QueryInterface(__uuidof(IZElement), reinterpret_cast<void**>(&zelement));
    kind = 0;
    Check(SUCCEEDED(hr) && zelement->GetKind(&kind) == S_OK && kind == 305, "IZElement kind is 305", hr);
    if (zobject != nullptr && zelement != nullptr) InterfaceChecks(object, zobject, element, zelement);
    SafeRelease(zobject);

    // The holder through the vtable, and its error information.
    hr = object->SetPdfDocument(nullptr, VARIANT_FALSE, nullptr);
    Check(hr == E_INVALIDARG, "null path is refused", hr);
    IErrorInfo* error = nullptr;
    BSTR description = nullptr;
    if (GetErrorInfo(0, &error) == S_OK && error != nullptr) {
        error->GetDescription(&description);
        error->Release();
    }
    Check(description != nullptr && SysStringLen(description) > 0, "failure carries a description");
    SysFreeString(description);
    {
        Bstr path(doc);
        Bstr empty(L"");
        hr = object->SetPdfDocument(path.b, VARIANT_FALSE, empty.b);
        Check(hr == S_OK, "document set", hr);
    }
    Check(object->GetPdfDocument(nullptr) == E_POINTER, "GetPdfDocument needs a pointer");
    BSTR held = nullptr;
    hr = object->GetPdfDocument(&held);
    Check(hr == S_OK && held != nullptr && doc == held, "GetPdfDocument returns the path", hr);
    SysFreeString(held);
    LONG pages = 0;
    hr = object->get_PageCount(&pages);
    Check(hr == S_OK && pages == 2, "two pages", hr);
    double width = 0;
    double height = 0;
    hr = object->GetPageSize(1, &width, &height);
    Check(hr == S_OK && width == 200 && height == 300, "page size 200 x 300", hr);
    Check(object->GetPageSize(1, nullptr, &height) == E_POINTER, "GetPageSize needs pointers");
    Check(object->OverlayPrepare(nullptr) == E_NOTIMPL && object->OverlayPage(1, 1, 0, 0, 1, 1) == E_NOTIMPL &&
              object->OverlayPage2(1, 1, 0, 0, 1, 1, 1) == E_NOTIMPL && object->OverlayFinish() == E_NOTIMPL,
          "overlay members are not implemented");

    // Drawing into a DIB section: the page's black square lands at x 50..99, y 150..199.
    {
        Canvas canvas(200, 300);
        hr = object->DrawPageToDC(reinterpret_cast<LONG_PTR>(canvas.dc), 1, 0, 0, 200, 300, 0, 0, 0, 0, 0);
        Check(hr == S_OK, "page drawn into a memory device context", hr);
        Check(canvas.Dark(60, 160) && canvas.Dark(95, 195) && !canvas.Dark(40, 160) && !canvas.Dark(60, 210),
              "drawn pixels are where the page has them");
        Canvas whole(200, 300);
        hr = object->DrawPageToDC(reinterpret_cast<LONG_PTR>(whole.dc), 1, 0, 0, 200, 300, 0, 0, 75, 300, 8);
        Check(hr == S_OK && whole.Dark(95, 195), "whole-page option ignores the draw rectangle", hr);
        Canvas clipped(200, 300);
        object->DrawPageToDC(reinterpret_cast<LONG_PTR>(clipped.dc), 1, 0, 0, 200, 300, 0, 0, 75, 300, 0);
        Check(clipped.Dark(60, 160) && !clipped.Dark(95, 195), "draw rectangle clips");
    }

    // IDispatch, by DISPID and by name.
    {
        DISPPARAMS none{nullptr, nullptr, 0, 0};
        VARIANT result;
        VariantInit(&result);
        hr = object->Invoke(3, IID_NULL, 0, DISPATCH_PROPERTYGET, &none, &result, nullptr, nullptr);
        Check(hr == S_OK && V_VT(&result) == VT_I4 && V_I4(&result) == 2, "PageCount by DISPID", hr);
        VariantClear(&result);
        LPOLESTR name = const_cast<LPOLESTR>(L"GetPdfDocument");
        DISPID id = 0;
        hr = object->GetIDsOfNames(IID_NULL, &name, 1, 0, &id);
        Check(hr == S_OK && id == 2, "GetPdfDocument found by name", hr);
        hr = object->Invoke(id, IID_NULL, 0, DISPATCH_METHOD, &none, &result, nullptr, nullptr);
        Check(hr == S_OK && V_VT(&result) == VT_BSTR && doc == V_BSTR(&result), "GetPdfDocument through Invoke", hr);
        VariantClear(&result);
        EXCEPINFO exception{};
        VARIANT arg;
        VariantInit(&arg);
        V_VT(&arg) = VT_BSTR;
        V_BSTR(&arg) = SysAllocString(L"no such file.pdf");
        VARIANT args[3];
        VariantInit(&args[0]);
        V_VT(&args[0]) = VT_BSTR;
        V_BSTR(&args[0]) = SysAllocString(L"");
        VariantInit(&args[1]);
        V_VT(&args[1]) = VT_BOOL;
        V_BOOL(&args[1]) = VARIANT_FALSE;
        args[2] = arg;
        DISPPARAMS three{args, nullptr, 3, 0};
        hr = object->Invoke(1, IID_NULL, 0, DISPATCH_METHOD, &three, nullptr, &exception, nullptr);
        Check(hr == DISP_E_EXCEPTION && exception.scode == E_INVALIDARG, "failure through Invoke is an exception", hr);
        SysFreeString(exception.bstrDescription);
        SysFreeString(exception.bstrSource);
        SysFreeString(exception.bstrHelpFile);
        for (VARIANT& v : args) VariantClear(&v);
    }

    // Stamping and assembly across two objects.
    {
        IZPdfContentObject* lh = nullptr;
        Create(L"Ostrand.ZPdfContentObject", &lh);
        Bstr lh_path(letterhead);
        Bstr empty(L"");
        lh->SetPdfDocument(lh_path.b, VARIANT_FALSE, empty.b);
        SAFEARRAY* ids = nullptr;
        hr = object->ImportContent(lh, &ids);
        LONG lower = -1;
        LONG upper = -1;
        VARTYPE type = VT_EMPTY;
        if (ids != nullptr) {
            SafeArrayGetLBound(ids, 1, &lower);
            SafeArrayGetUBound(ids, 1, &upper);
            SafeArrayGetVartype(ids, &type);
        }
        Check(hr == S_OK && ids != nullptr && lower == 0 && upper == 0 && type == VT_UI4,
              "ImportContent gives a zero-based VT_UI4 array", hr);
        ULONG form = 0;
        if (ids != nullptr) {
            LONG index = 0;
            SafeArrayGetElement(ids, &index, &form);
            SafeArrayDestroy(ids);
        }
        hr = object->PlaceContent(form, 2, 10, 10, 0.5f, 0.5f, VARIANT_TRUE);
        Check(hr == S_OK, "PlaceContent", hr);
        hr = object->AppendPages(lh);
        object->get_PageCount(&pages);
        Check(hr == S_OK && pages == 3, "AppendPages", hr);
        hr = object->ReplacePages(3, lh, 1, 1);
        object->get_PageCount(&pages);
        Check(hr == S_OK && pages == 3, "ReplacePages", hr);
        Check(object->ReplacePages(1, lh, 2, 1) == E_UNEXPECTED, "ReplacePages refuses a reversed range");
        Check(object->ImportContent(lh, nullptr) == E_POINTER, "ImportContent needs a place for the result");
        lh->Release();
    }

    // Persistence through OLE streams.
    {
        IStream* stream = nullptr;
        CreateStreamOnHGlobal(nullptr, TRUE, &stream);
        IPersistStream* persist = nullptr;
        object->QueryInterface(IID_IPersistStream, reinterpret_cast<void**>(&persist));
        hr = OleSaveToStream(persist, stream);
        Check(hr == S_OK, "content object saved to an OLE stream", hr);
        Check(persist->IsDirty() == S_FALSE, "saving clears the dirty flag");
        ULARGE_INTEGER max{};
        Check(persist->GetSizeMax(&max) == S_OK && max.QuadPart == 4, "size hint is 4");
        LARGE_INTEGER zero{};
        stream->Seek(zero, STREAM_SEEK_SET, nullptr);
        IZPdfContentObject* restored = nullptr;
        hr = OleLoadFromStream(stream, __uuidof(IZPdfContentObject), reinterpret_cast<void**>(&restored));
        BSTR path = nullptr;
        if (restored != nullptr) restored->GetPdfDocument(&path);
        Check(hr == S_OK && path != nullptr && doc == path, "content object restored from the stream", hr);
        SysFreeString(path);
        SafeRelease(restored);
        SafeRelease(persist);
        SafeRelease(stream);
    }

    // The element: position, binding, drawing, persistence.
    {
        Check(element->SetPosition(100, 50, -20, 10) == S_OK, "SetPosition");
        LONG l = 0, t = 0, w = 0, h = 0;
        Check(element->GetPosition(&l, &t, &w, &h) == S_OK && l == 80 && t == 50 && w == 20 && h == 10,
              "GetPosition normalised");
        Check(element->GetPosition(nullptr, &t, &w, &h) == E_POINTER, "GetPosition needs pointers");
        IZPdfContentObject* bound = nullptr;
        Check(element->get_PdfObject(&bound) == S_FALSE && bound == nullptr, "no object bound yet");
        Canvas empty_canvas(10, 10);
        Check(zelement->DrawToDC(static_cast<LONG>(reinterpret_cast<LONG_PTR>(empty_canvas.dc)), 0, 0, 0, 0, 8, 0) == S_FALSE,
              "drawing without an object does nothing");
        Check(element->put_PdfObject(object) == S_OK, "PdfObject put");
        Check(element->get_PdfObject(&bound) == S_OK && bound == object, "PdfObject get returns the object");
        SafeRelease(bound);
        element->SetPosition(0, 0, 200, 300);
        element->put_Page(1);
        Canvas canvas(200, 300);
        hr = zelement->DrawToDC(static_cast<LONG>(reinterpret_cast<LONG_PTR>(canvas.dc)), 0, 0, 0, 0, 8, 0);
        Check(hr == S_OK && canvas.Dark(60, 160) && !canvas.Dark(40, 160), "element draws its page", hr);
        LONG left = 0, top = 0, right = 0, bottom = 0;
        Check(zelement->GetBounds(&left, &top, &right, &bottom) == S_OK && right == 200 && bottom == 300, "GetBounds");

        IStream* stream = nullptr;
        CreateStreamOnHGlobal(nullptr, TRUE, &stream);
        IPersistStreamInit* persist = nullptr;
        element->QueryInterface(IID_IPersistStreamInit, reinterpret_cast<void**>(&persist));
        hr = persist->Save(stream, TRUE);
        ULARGE_INTEGER size{};
        LARGE_INTEGER zero{};
        stream->Seek(zero, STREAM_SEEK_CUR, &size);
        Check(hr == S_OK && size.QuadPart == 30, "element record is 30 bytes", hr);
        stream->Seek(zero, STREAM_SEEK_SET, nullptr);
        IZPdfContentElement* copy = nullptr;
        Create(L"Ostrand.ZPdfContentElement", &copy);
        IPersistStreamInit* copy_persist = nullptr;
        copy->QueryInterface(IID_IPersistStreamInit, reinterpret_cast<void**>(&copy_persist));
        hr = copy_persist->Load(stream);
        LONG page = 0;
        copy->get_Page(&page);
        copy->GetPosition(&l, &t, &w, &h);
        Check(hr == S_OK && page == 1 && w == 200 && h == 300, "element restored from its record", hr);
        CLSID clsid{};
        Check(copy_persist->GetClassID(&clsid) == S_OK && IsEqualCLSID(clsid, CLSID_ZPdfContentElement), "element class id");
        SafeRelease(copy_persist);
        SafeRelease(copy);
        SafeRelease(persist);
        SafeRelease(stream);
    }

    // The same object called from another apartment.
    {
        LONG direct_pages = 0;
        object->get_PageCount(&direct_pages);
        CrossApartmentCall call;
        RunAcrossApartments(object, call);
        Check(call.is_proxy, "another apartment reaches the object through a proxy");
        Check(call.count_hr == S_OK && call.pages == direct_pages, "PageCount across apartments", call.count_hr);
        Check(call.size_hr == S_OK && call.width == 200 && call.height == 300, "GetPageSize across apartments",
              call.size_hr);
        Check(call.path_hr == S_OK && call.path == doc, "GetPdfDocument across apartments", call.path_hr);
    }

    // Saving the stamped, assembled document.
    hr = object->Save();
    Check(hr == S_OK, "document saved", hr);

    TypeLibraryChecks();

    SafeRelease(zelement);
    SafeRelease(element);
    SafeRelease(object);
    // Every object and class factory handed out came back: the module may unload.
    using CanUnloadNow = HRESULT(STDAPICALLTYPE*)();
    const auto can_unload = reinterpret_cast<CanUnloadNow>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ZPdfCntObj.dll"), "DllCanUnloadNow")));
    Check(can_unload != nullptr && can_unload() == S_OK, "the module can unload once everything is released");
    CoUninitialize();
    std::printf("%d passed, %d failed\n", g_passed, g_failed);
    return g_failed == 0 ? 0 : 1;
}
