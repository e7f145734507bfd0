#include "component/com_support.h"

#include <mutex>

namespace zpdf::com {
namespace {

HINSTANCE g_instance = nullptr;
std::mutex g_typelib_mutex;
ITypeLib* g_typelib = nullptr;

}  // namespace

std::atomic<long> g_objects{0};
std::atomic<long> g_locks{0};

HINSTANCE ModuleInstance() { return g_instance; }
void SetModuleInstance(HINSTANCE instance) { g_instance = instance; }

std::wstring ModulePath() {
    std::wstring path(MAX_PATH, L'\0');
    for (;;) {
        const DWORD length = GetModuleFileNameW(g_instance, path.data(), static_cast<DWORD>(path.size()));
        if (length == 0) return std::wstring();
        if (length < path.size()) {
            path.resize(length);
            return path;
        }
        path.resize(path.size() * 2);
    }
}

HRESULT GetTypeInfoOf(REFIID iid, ITypeInfo** info) {
    if (info == nullptr) return E_POINTER;
    *info = nullptr;
    {
        std::lock_guard guard(g_typelib_mutex);
        if (g_typelib == nullptr) {
            // The library is the module's resource TYPELIB 1; it is not registered by loading.
            const HRESULT hr = LoadTypeLibEx(ModulePath().c_str(), REGKIND_NONE, &g_typelib);
            if (FAILED(hr)) return hr;
        }
    }
    return g_typelib->GetTypeInfoOfGuid(iid, info);
}

HRESULT Report(REFIID iid, HRESULT result, const std::string& text) {
    if (SUCCEEDED(result)) {
        SetErrorInfo(0, nullptr);
        return result;
    }
    ICreateErrorInfo* create = nullptr;
    if (FAILED(CreateErrorInfo(&create))) return result;
    const std::u16string description = Utf8ToUtf16(text.empty() ? DescribeHResult(result) : text);
    create->SetGUID(iid);
    create->SetSource(const_cast<LPOLESTR>(L"ZPdfCntObj"));
    create->SetDescription(const_cast<LPOLESTR>(reinterpret_cast<const wchar_t*>(description.c_str())));
    IErrorInfo* error = nullptr;
    if (SUCCEEDED(create->QueryInterface(IID_IErrorInfo, reinterpret_cast<void**>(&error)))) {
        SetErrorInfo(0, error);
        error->Release();
    }
    create->Release();
    return result;
}

OptionalText FromBstr(BSTR text) {
    if (text == nullptr) return std::nullopt;
    return std::u16string(reinterpret_cast<const char16_t*>(text), SysStringLen(text));
}

HRESULT ToBstr(const OptionalText& text, BSTR* out) {
    *out = nullptr;
    if (!text) return S_OK;
    *out = SysAllocStringLen(reinterpret_cast<const OLECHAR*>(text->data()), static_cast<UINT>(text->size()));
    return *out != nullptr ? S_OK : E_OUTOFMEMORY;
}

}  // namespace zpdf::com
