// The module: process start and stop of the PDF engine, the four exports, the class factory,
// and registration of the classes, the type library and the module's own proxy/stub, which
// marshals the component's interfaces for calls across apartments.
#include <objbase.h>
#include <windows.h>

#include <string>

#include "component/com_support.h"
#include "component/content_element_com.h"
#include "component/content_object_com.h"
#include "component/proxy_stub.h"
#include "engine/engine.h"
#include "platform/module_path.h"

namespace zpdf::com {
namespace {

using Creator = HRESULT (*)(IUnknown*, REFIID, void**);

HMODULE g_module = nullptr;

// One per class, for the module's lifetime: handing it out locks the module, releasing it
// unlocks it again.
class ClassFactory final : public IClassFactory {
  public:
    explicit ClassFactory(Creator create) : create_(create) {}
    STDMETHODIMP QueryInterface(REFIID iid, void** object) override {
        if (object == nullptr) return E_POINTER;
        *object = nullptr;
        if (iid != IID_IUnknown && iid != IID_IClassFactory) return E_NOINTERFACE;
        *object = static_cast<IClassFactory*>(this);
        AddRef();
        return S_OK;
    }
    STDMETHODIMP_(ULONG) AddRef() override { return static_cast<ULONG>(++g_locks) + 1; }
    STDMETHODIMP_(ULONG) Release() override { return static_cast<ULONG>(--g_locks) + 1; }
    STDMETHODIMP CreateInstance(IUnknown* outer, REFIID iid, void** object) override {
        if (object == nullptr) return E_POINTER;
        *object = nullptr;
        return Guard(IID_IClassFactory, [&] { return create_(outer, iid, object); });
    }
    STDMETHODIMP LockServer(BOOL lock) override {
        g_locks += lock ? 1 : -1;
        return S_OK;
    }

  private:
    Creator create_;
};

struct ClassEntry {
    const CLSID& clsid;
    ClassFactory factory;
    const wchar_t* name;  // "ZPdfContentObject"
};

ClassEntry g_classes[] = {
    {__uuidof(ZPdfContentObject), ClassFactory(&ContentObjectCom::Create), L"ZPdfContentObject"},
    {__uuidof(ZPdfContentElement), ClassFactory(&ContentElementCom::Create), L"ZPdfContentElement"},
};

constexpr wchar_t kAppId[] = L"{E42F1C69-DA91-4556-BA8A-499D34B15467}";
constexpr wchar_t kAppName[] = L"ZPdfCntObj";
constexpr wchar_t kModuleFileName[] = L"ZPdfCntObj.DLL";
constexpr wchar_t kProgIdPrefix[] = L"Ostrand.";

std::wstring GuidText(REFGUID guid) {
    wchar_t text[40] = {};
    StringFromGUID2(guid, text, 40);
    return text;
}

// Writes a key under HKEY_CLASSES_ROOT with its default value and, optionally, one named value.
HRESULT WriteKey(const std::wstring& path, const wchar_t* value, const wchar_t* name = nullptr,
                 const wchar_t* named_value = nullptr) {
    HKEY key = nullptr;
    LONG rc = RegCreateKeyExW(HKEY_CLASSES_ROOT, path.c_str(), 0, nullptr, 0, KEY_WRITE, nullptr,
                              &key, nullptr);
    if (rc != ERROR_SUCCESS) return HRESULT_FROM_WIN32(rc);
    if (value != nullptr) {
        rc = RegSetValueExW(key, nullptr, 0, REG_SZ, reinterpret_cast<const BYTE*>(value),
                            static_cast<DWORD>((wcslen(value) + 1) * sizeof(wchar_t)));
    }
    if (rc == ERROR_SUCCESS && name != nullptr) {
        rc = RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(named_value),
                            static_cast<DWORD>((wcslen(named_value) + 1) * sizeof(wchar_t)));
    }
    RegCloseKey(key);
    return rc == ERROR_SUCCESS ? S_OK : HRESULT_FROM_WIN32(rc);
}

HRESULT RemoveTree(const std::wstring& path) {
    const LONG rc = RegDeleteTreeW(HKEY_CLASSES_ROOT, path.c_str());
    if (rc == ERROR_SUCCESS || rc == ERROR_FILE_NOT_FOUND) {
        RegDeleteKeyW(HKEY_CLASSES_ROOT, path.c_str());
        return S_OK;
    }
    return HRESULT_FROM_WIN32(rc);
}

HRESULT RegisterAppId() {
    HRESULT hr = WriteKey(std::wstring(L"AppID\\") + kAppId, kAppName);
    if (SUCCEEDED(hr))
        hr = WriteKey(std::wstring(L"AppID\\") + kModuleFileName, nullptr, L"AppID", kAppId);
    return hr;
}

HRESULT RegisterClass(const ClassEntry& entry, const std::wstring& module) {
    const std::wstring clsid = GuidText(entry.clsid);
    const std::wstring description = std::wstring(entry.name) + L" Class";
    const std::wstring progid = std::wstring(kProgIdPrefix) + entry.name;
    const std::wstring versioned = progid + L".1";
    const std::wstring libid = GuidText(LIBID_ZPdfCntObjLib);
    const std::wstring key = L"CLSID\\" + clsid;
    const struct {
        std::wstring path;
        std::wstring value;
        const wchar_t* name;
        const wchar_t* named_value;
    } keys[] = {
        {versioned, description, nullptr, nullptr},
        {versioned + L"\\CLSID", clsid, nullptr, nullptr},
        {progid, description, nullptr, nullptr},
        {progid + L"\\CLSID", clsid, nullptr, nullptr},
        {progid + L"\\CurVer", versioned, nullptr, nullptr},
        {key, description, L"AppID", kAppId},
        {key + L"\\ProgID", versioned, nullptr, nullptr},
        {key + L"\\VersionIndependentProgID", progid, nullptr, nullptr},
        {key + L"\\Programmable", L"", nullptr, nullptr},
        {key + L"\\InprocServer32", module, L"ThreadingModel", L"Apartment"},
        {key + L"\\TypeLib", libid, nullptr, nullptr},
    };
    for (const auto& k : keys) {
        const wchar_t* value = k.path == key + L"\\Programmable" ? nullptr : k.value.c_str();
        if (const HRESULT hr = WriteKey(k.path, value, k.name, k.named_value); FAILED(hr))
            return hr;
    }
    return S_OK;
}

HRESULT UnregisterClass(const ClassEntry& entry) {
    const std::wstring progid = std::wstring(kProgIdPrefix) + entry.name;
    HRESULT hr = RemoveTree(progid + L".1");
    if (SUCCEEDED(hr)) hr = RemoveTree(progid);
    if (SUCCEEDED(hr)) hr = RemoveTree(L"CLSID\\" + GuidText(entry.clsid));
    return hr;
}

SYSKIND TypeLibraryKind() {
    return sizeof(void*) == 8 ? SYS_WIN64 : SYS_WIN32;
}

HRESULT RegisterTypeLibrary(const std::wstring& module) {
    ITypeLib* library = nullptr;
    HRESULT hr = LoadTypeLibEx(module.c_str(), REGKIND_NONE, &library);
    if (FAILED(hr)) return hr;
    std::wstring folder = module.substr(0, module.find_last_of(L"\\/") + 1);
    hr = RegisterTypeLib(library, const_cast<LPOLESTR>(module.c_str()),
                         const_cast<LPOLESTR>(folder.c_str()));
    library->Release();
    return hr;
}

}  // namespace
}  // namespace zpdf::com

using namespace zpdf::com;

extern "C" BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID reserved) {
    if (reason == DLL_PROCESS_ATTACH) {
        g_module = instance;
        zpdf::engine::StartProcessEngine();
    } else if (reason == DLL_PROCESS_DETACH && reserved == nullptr) {
        // Unloaded while the process goes on: give the engine's memory back. At process exit
        // other modules may already be gone, so nothing is released then.
        zpdf::engine::StopProcessEngine();
    }
    return TRUE;
}

STDAPI DllGetClassObject(REFCLSID clsid, REFIID iid, LPVOID* object) {
    if (object == nullptr) return E_POINTER;
    *object = nullptr;
    // The proxy/stub is offered the request first; any other class is one of the component's.
    if (const HRESULT hr =
            Guard(IID_NULL, [&] { return ZPdfProxyStubGetClassObject(clsid, iid, object); });
        SUCCEEDED(hr)) {
        return hr;
    }
    *object = nullptr;
    for (ClassEntry& entry : g_classes) {
        if (clsid == entry.clsid) return entry.factory.QueryInterface(iid, object);
    }
    return CLASS_E_CLASSNOTAVAILABLE;
}

STDAPI DllCanUnloadNow() {
    if (ZPdfProxyStubCanUnloadNow() != S_OK) return S_FALSE;
    return g_objects.load() == 0 && g_locks.load() == 0 ? S_OK : S_FALSE;
}

STDAPI DllRegisterServer() {
    // The scripts are processed under the system's locale, whatever the caller's.
    const LCID caller_locale = GetThreadLocale();
    SetThreadLocale(LOCALE_SYSTEM_DEFAULT);
    const HRESULT result = Guard(IID_NULL, [] {
        const std::wstring module = zpdf::ModuleFilePath().wstring();
        HRESULT hr = RegisterAppId();
        for (const ClassEntry& entry : g_classes) {
            if (SUCCEEDED(hr)) hr = RegisterClass(entry, module);
        }
        if (SUCCEEDED(hr)) hr = RegisterTypeLibrary(module);
        return hr;
    });
    SetThreadLocale(caller_locale);
    if (FAILED(result)) return result;
    // The interfaces' ProxyStubClsid32, which the type library's registration set to the
    // automation marshaler, now name this module's own proxy/stub.
    return Guard(IID_NULL, [] { return ZPdfProxyStubRegister(g_module); });
}

STDAPI DllUnregisterServer() {
    return Guard(IID_NULL, [] {
        HRESULT hr = S_OK;
        for (const ClassEntry& entry : g_classes) {
            if (SUCCEEDED(hr)) hr = UnregisterClass(entry);
        }
        if (SUCCEEDED(hr)) {
            RemoveTree(std::wstring(L"AppID\\") + kAppId);
            RemoveTree(std::wstring(L"AppID\\") + kModuleFileName);
            const HRESULT unregistered =
                UnRegisterTypeLib(LIBID_ZPdfCntObjLib, 1, 0, 0, TypeLibraryKind());
            if (FAILED(unregistered) && unregistered != TYPE_E_REGISTRYACCESS) hr = unregistered;
        }
        // The proxy/stub is registered once more and then removed: whatever was left of it,
        // complete or not, goes, and the removal's result is the answer.
        if (SUCCEEDED(hr)) hr = ZPdfProxyStubRegister(g_module);
        if (SUCCEEDED(hr)) hr = ZPdfProxyStubUnregister(g_module);
        return hr;
    });
}
