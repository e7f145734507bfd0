/* The module's own marshalling code for its interfaces, generated from the interface
 * definitions: the proxy/stub class factory and its registration, which the module's exports
 * offer next to the component's classes. Written in C, as the run time's proxy/stub
 * declarations are. */
#pragma once

#include <windows.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The class of the proxy/stub factory; each interface's ProxyStubClsid32 names it. */
extern const CLSID CLSID_ZPdfCntObjProxyStub;

/* The proxy/stub factory for `clsid`, or CLASS_E_CLASSNOTAVAILABLE for any other class. */
HRESULT ZPdfProxyStubGetClassObject(REFCLSID clsid, REFIID iid, void** object);
/* S_OK when no proxy or stub of this module is alive. */
HRESULT ZPdfProxyStubCanUnloadNow(void);
/* Registers the interfaces and the proxy/stub class as served by `module`, or removes them. */
HRESULT ZPdfProxyStubRegister(HMODULE module);
HRESULT ZPdfProxyStubUnregister(HMODULE module);

#ifdef __cplusplus
}
#endif
