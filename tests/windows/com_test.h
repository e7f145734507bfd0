// What the two Wine clients of ZPdfCntObj.dll share: checks printed one per line and a closing
// "N passed, N failed", interface pointers released when they go, objects created by ProgID, the
// thread's error information, drawings into a DIB section, the module's own exports.
#pragma once

#include <windows.h>

#include <ole2.h>
#include <oleauto.h>
#include <wrl/client.h>

#include <algorithm>
#include <cstdio>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "ZPdfCntObj_h.h"

inline int g_passed = 0;
inline int g_failed = 0;

inline void Check(bool ok, const std::string& what, HRESULT hr = S_OK) {
    ok ? ++g_passed : ++g_failed;
    std::printf(ok ? "ok - %s\n" : "not ok - %s (0x%08lX)\n", what.c_str(),
                static_cast<unsigned long>(hr));
    std::fflush(stdout);
}

using Microsoft::WRL::ComPtr;

// `from` (a pointer or a ComPtr) asked for T.
template <class T, class From>
ComPtr<T> Query(const From& from) {
    ComPtr<T> p;
    if (from != nullptr) from->QueryInterface(IID_PPV_ARGS(&p));
    return p;
}

template <class T>
ComPtr<T> Create(const wchar_t* progid) {
    CLSID clsid{};
    ComPtr<T> p;
    CLSIDFromProgID(progid, &clsid);  // GUID_NULL when there is no such ProgID
    CoCreateInstance(clsid, nullptr, CLSCTX_INPROC_SERVER, IID_PPV_ARGS(&p));
    return p;
}

// A BSTR argument for the duration of a call.
struct Bstr {
    BSTR b;
    explicit Bstr(const wchar_t* s) : b(SysAllocString(s)) {}
    ~Bstr() { SysFreeString(b); }
    operator BSTR() const { return b; }
};

// A content object created by `progid` with the document at `path` opened in it.
inline ComPtr<IZPdfContentObject> Open(const std::wstring& path,
                                       const wchar_t* progid = L"Ostrand.ZPdfContentObject") {
    auto object = Create<IZPdfContentObject>(progid);
    if (object != nullptr) object->SetPdfDocument(Bstr(path.c_str()), VARIANT_FALSE, Bstr(L""));
    return object;
}

// The text of a BSTR result, which is freed.
inline std::wstring Take(BSTR text) {
    std::wstring out = text != nullptr ? text : L"";
    SysFreeString(text);
    return out;
}

// What the thread's error information says (its GetDescription), empty when there is none; `guid`:
// its GUID.
inline std::string ErrorDescription(GUID* guid = nullptr) {
    ComPtr<IErrorInfo> error;
    BSTR text = nullptr;
    if (GetErrorInfo(0, &error) == S_OK) {
        error->GetDescription(&text);
        if (guid != nullptr) error->GetGUID(guid);
    }
    const std::wstring description = Take(text);
    return std::string(description.begin(), description.end());
}

// Imports the letterhead as forms and appends the letterhead. The forms are to come as a
// zero-based array of one VT_UI4; E_UNEXPECTED when they do not.
inline HRESULT Stamp(const ComPtr<IZPdfContentObject>& object,
                     const ComPtr<IZPdfContentObject>& letterhead) {
    SAFEARRAY* ids = nullptr;
    HRESULT hr = object->ImportContent(letterhead.Get(), &ids);
    LONG bounds[2] = {-1, -1};
    VARTYPE type = VT_EMPTY;
    SafeArrayGetLBound(ids, 1, &bounds[0]);
    SafeArrayGetUBound(ids, 1, &bounds[1]);
    SafeArrayGetVartype(ids, &type);
    SafeArrayDestroy(ids);
    if (SUCCEEDED(hr) && (bounds[0] != 0 || bounds[1] != 0 || type != VT_UI4)) hr = E_UNEXPECTED;
    return SUCCEEDED(hr) ? object->AppendPages(letterhead.Get()) : hr;
}

// What a drawing into a white top-down 32-bit DIB section of 200 x 300 left: the call's result and
// the pixels.
struct Drawing {
    HRESULT result = E_FAIL;
    std::vector<UINT32> pixels;
    // The call succeeded, the two probes inside the test page's square (x 50..99, y 150..199) are
    // dark, the one left of it and the one below it not.
    bool ShowsSquare() const {
        const auto dark = [&](int x, int y) { return ((pixels[y * 200 + x] >> 8) & 0xFF) < 64; };
        return result == S_OK && dark(60, 160) && dark(95, 195) && !dark(40, 160) && !dark(60, 210);
    }
};

inline Drawing Draw(const std::function<HRESULT(HDC)>& draw) {
    Drawing out;
    HDC dc = CreateCompatibleDC(nullptr);
    BITMAPINFO info{{sizeof(BITMAPINFOHEADER), 200, -300, 1, 32, BI_RGB, 0, 0, 0, 0, 0}, {}};
    UINT32* bits = nullptr;
    HBITMAP bitmap =
        CreateDIBSection(dc, &info, DIB_RGB_COLORS, reinterpret_cast<void**>(&bits), nullptr, 0);
    SelectObject(dc, bitmap);
    std::fill_n(bits, 200 * 300, 0x00FFFFFFu);
    out.result = draw(dc);
    GdiFlush();
    out.pixels.assign(bits, bits + 200 * 300);
    DeleteDC(dc);
    DeleteObject(bitmap);
    return out;
}

// An entry point of ZPdfCntObj.dll as loaded in this process.
template <class Function>
Function Export(const char* name) {
    return reinterpret_cast<Function>(
        reinterpret_cast<void*>(GetProcAddress(GetModuleHandleW(L"ZPdfCntObj.dll"), name)));
}

// Every object and class factory handed out came back, so the module may unload; then the summary
// and the exit code.
inline int Finish() {
    Check(Export<HRESULT(STDAPICALLTYPE*)()>("DllCanUnloadNow")() == S_OK,
          "the module can unload once all is released");
    CoUninitialize();
    std::printf("%d passed, %d failed\n", g_passed, g_failed);
    return g_failed == 0 ? 0 : 1;
}
