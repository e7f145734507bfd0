#include "component/com_support.h"

#include <mutex>

#include "content_object/diagnostics.h"
#include "platform/module_path.h"

namespace zpdf::com {
namespace {

std::mutex g_typelib_mutex;
ITypeLib* g_typelib = nullptr;

}  // namespace

std::atomic<long> g_objects{0};
std::atomic<long> g_locks{0};

HRESULT GetTypeInfoOf(REFIID iid, ITypeInfo** info) {
    if (info == nullptr) return E_POINTER;
    *info = nullptr;
    {
        std::lock_guard guard(g_typelib_mutex);
        if (g_typelib == nullptr) {
            // The library is the module's resource TYPELIB 1; it is not registered by loading.
            const HRESULT hr = LoadTypeLibEx(ModuleFilePath().c_str(), REGKIND_NONE, &g_typelib);
            if (FAILED(hr)) return hr;
        }
    }
    return g_typelib->GetTypeInfoOfGuid(iid, info);
}

HRESULT Report(REFIID iid, HRESULT result, std::string_view text) noexcept {
    if (SUCCEEDED(result)) {
        SetErrorInfo(0, nullptr);
        return result;
    }
    ICreateErrorInfo* create = nullptr;
    if (FAILED(CreateErrorInfo(&create))) return result;
    create->SetGUID(iid);
    create->SetSource(const_cast<LPOLESTR>(L"ZPdfCntObj"));
    try {
        const std::u16string description = Utf8ToUtf16(text.empty() ? DescribeHResult(result) : text);
        create->SetDescription(const_cast<LPOLESTR>(reinterpret_cast<const wchar_t*>(description.c_str())));
    } catch (...) {
        // Out of memory for the words: the error goes out without them.
    }
    IErrorInfo* error = nullptr;
    if (SUCCEEDED(create->QueryInterface(IID_IErrorInfo, reinterpret_cast<void**>(&error)))) {
        SetErrorInfo(0, error);
        error->Release();
    }
    create->Release();
    return result;
}

HRESULT Escaped(REFIID iid, HRESULT result, const char* what, const std::source_location& where) noexcept {
    try {
        ZPDF_LOG_ERROR(diagnostics::Pdf(), "%s stopped at the COM boundary in %s (%s)", what, where.function_name(),
                       FormatHResult(result).c_str());
        const std::string text = result == E_OUTOFMEMORY ? std::string(what) : std::string("Internal error: ") + what;
        return Report(iid, result, text);
    } catch (...) {
        return Report(iid, result, {});
    }
}

OptionalText FromBstr(BSTR text) {
    if (text == nullptr) return std::nullopt;
    return std::u16string(reinterpret_cast<const char16_t*>(text), SysStringLen(text));
}

BSTR ToBstr(const OptionalText& text) {
    if (!text) return nullptr;
    BSTR made = SysAllocStringLen(reinterpret_cast<const OLECHAR*>(text->data()), static_cast<UINT>(text->size()));
    if (made == nullptr) throw std::bad_alloc();
    return made;
}

}  // namespace zpdf::com
