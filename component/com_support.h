// What every COM class of the component shares: the module's counts, the type library, error
// information, and the conversions between automation types and the core's types.
#pragma once

#include <windows.h>
#include <oleauto.h>

#include <atomic>
#include <string>

#include "ZPdfCntObj_h.h"
#include "platform/hresult.h"
#include "platform/text.h"

namespace zpdf::com {

// Objects alive and explicit locks: the module may unload only when both are zero.
extern std::atomic<long> g_objects;
extern std::atomic<long> g_locks;

HINSTANCE ModuleInstance();
void SetModuleInstance(HINSTANCE instance);
std::wstring ModulePath();

// Type information of `iid` from the type library in the module's resources (loaded once).
HRESULT GetTypeInfoOf(REFIID iid, ITypeInfo** info);

// Sets the thread's error information to `text` for a failure of `iid` and returns `result`.
// Successes clear it.
HRESULT Report(REFIID iid, HRESULT result, const std::string& text);

// A BSTR as the core's text: a null BSTR is absent, an empty one is the empty string.
OptionalText FromBstr(BSTR text);
// A new BSTR for the core's text (null for absent). E_OUTOFMEMORY when it cannot be made.
HRESULT ToBstr(const OptionalText& text, BSTR* out);

// IDispatch served from the type library, for a dual interface `Interface` of the object.
template <class Interface>
class DispatchFromTypeLibrary {
protected:
    HRESULT TypeInfoCount(UINT* count) {
        if (count == nullptr) return E_POINTER;
        *count = 1;
        return S_OK;
    }
    HRESULT TypeInfo(UINT index, ITypeInfo** info) {
        if (info == nullptr) return E_POINTER;
        *info = nullptr;
        if (index != 0) return DISP_E_BADINDEX;
        return GetTypeInfoOf(__uuidof(Interface), info);
    }
    HRESULT IdsOfNames(LPOLESTR* names, UINT count, DISPID* ids) {
        ITypeInfo* info = nullptr;
        const HRESULT hr = GetTypeInfoOf(__uuidof(Interface), &info);
        if (FAILED(hr)) return hr;
        const HRESULT result = DispGetIDsOfNames(info, names, count, ids);
        info->Release();
        return result;
    }
    HRESULT InvokeMember(Interface* self, DISPID member, WORD flags, DISPPARAMS* params,
                         VARIANT* result, EXCEPINFO* exception, UINT* arg_error) {
        ITypeInfo* info = nullptr;
        const HRESULT hr = GetTypeInfoOf(__uuidof(Interface), &info);
        if (FAILED(hr)) return hr;
        const HRESULT outcome = DispInvoke(self, info, member, flags, params, result, exception, arg_error);
        info->Release();
        return outcome;
    }
};

}  // namespace zpdf::com
