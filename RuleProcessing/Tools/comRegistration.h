// Machine-wide registration of an out-of-process COM class whose type library
// is embedded in the serving executable. Used by the registration tool (and so
// by the installer and the test programs). All keys are written under
// HKLM\Software\Classes; every function returns an HRESULT.
#pragma once

#include <windows.h>

// Registers the type library found at `typeLibPath` (an executable, or
// "<exe>\<n>" for resource TYPELIB n) and the interfaces it describes for the
// automation marshaller, under the path as given. A library with an LCID other
// than 0 is registered under LCID 0 as well: Wine's marshaller looks libraries
// up under LCID 0 only.
HRESULT RegisterTypeLibFromModule(const wchar_t* typeLibPath);

// Removes the registration of type library `libid` version major.minor and of
// the interfaces listed in `iids` (which may outlive a library file that is gone).
HRESULT UnregisterTypeLibById(REFGUID libid, WORD major, WORD minor, LCID lcid, const IID* iids, int iidCount);

// Registers `clsid` as served by the executable `exePath` (LocalServer32),
// replacing any earlier registration of the class and of its AppID `appId`.
HRESULT RegisterLocalServerClass(REFCLSID clsid, const wchar_t* className, REFGUID libid, REFGUID appId,
                                 const wchar_t* exePath);

// Registers `clsid` as served by the Windows service `serviceName` (AppID with
// LocalService, no LocalServer32), so that activation starts the service.
HRESULT RegisterServiceClass(REFCLSID clsid, const wchar_t* className, REFGUID libid, REFGUID appId,
                             const wchar_t* serviceName);

// Removes the class key and its AppID key; absent keys are not an error.
HRESULT UnregisterClass(REFCLSID clsid, REFGUID appId);
