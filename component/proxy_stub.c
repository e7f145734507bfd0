#include "component/proxy_stub.h"

#include <objbase.h>

/* The proxies of IUnknown's own methods, which the generated proxy tables name. MinGW-w64's
 * unknwn.h declares them for C++ only; the declarations are the run time's. */
HRESULT STDMETHODCALLTYPE IUnknown_QueryInterface_Proxy(IUnknown* This, REFIID riid,
                                                        void** ppvObject);
ULONG STDMETHODCALLTYPE IUnknown_AddRef_Proxy(IUnknown* This);
ULONG STDMETHODCALLTYPE IUnknown_Release_Proxy(IUnknown* This);

/* The interface proxies and stubs generated from the interface definitions, compiled here with
 * the declarations above. The generated code includes the run time's proxy declarations itself:
 * their layout depends on the kind of stubs it chose, so nothing here includes them earlier. */
#include "ZPdfCntObj_p.c"

static const ProxyFileInfo* g_proxy_files[] = {(const ProxyFileInfo*)&ZPdfCntObj_ProxyFileInfo,
                                               NULL};

/* The run time's factory object; it counts the proxies and stubs it made. */
static CStdPSFactoryBuffer g_factory = {0};

/* The identifier of the default interface, as generated proxy/stub code names its factory:
 * {956B0C6B-649F-4FE1-8579-4FDF0FDB4629}. */
const CLSID CLSID_ZPdfCntObjProxyStub = {
    0x956b0c6b, 0x649f, 0x4fe1, {0x85, 0x79, 0x4f, 0xdf, 0x0f, 0xdb, 0x46, 0x29}};

HRESULT ZPdfProxyStubGetClassObject(REFCLSID clsid, REFIID iid, void** object) {
    if (!IsEqualCLSID(clsid, &CLSID_ZPdfCntObjProxyStub)) return CLASS_E_CLASSNOTAVAILABLE;
    return NdrDllGetClassObject(clsid, iid, object, g_proxy_files, &CLSID_ZPdfCntObjProxyStub,
                                &g_factory);
}

HRESULT ZPdfProxyStubCanUnloadNow(void) {
    return NdrDllCanUnloadNow(&g_factory);
}

HRESULT ZPdfProxyStubRegister(HMODULE module) {
    return NdrDllRegisterProxy(module, g_proxy_files, &CLSID_ZPdfCntObjProxyStub);
}

HRESULT ZPdfProxyStubUnregister(HMODULE module) {
    return NdrDllUnregisterProxy(module, g_proxy_files, &CLSID_ZPdfCntObjProxyStub);
}

/* The generated stubs release themselves through these, so that the factory's count of live
 * stubs stays right for ZPdfProxyStubCanUnloadNow. */
ULONG STDMETHODCALLTYPE CStdStubBuffer_Release(IRpcStubBuffer* stub) {
    return NdrCStdStubBuffer_Release(stub, (IPSFactoryBuffer*)&g_factory);
}

ULONG STDMETHODCALLTYPE CStdStubBuffer2_Release(IRpcStubBuffer* stub) {
    return NdrCStdStubBuffer2_Release(stub, (IPSFactoryBuffer*)&g_factory);
}
