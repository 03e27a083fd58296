// Checks made on a plugin DLL before it is loaded: its Authenticode signature
// and its file version. Shared by the rule and action plugin loaders; called on
// the service's start path only.
#pragma once

#include <windows.h>

// True exactly when WinVerifyTrust accepts the file's signature (generic
// verify action, no UI, no revocation checks). A missing, unsigned or altered
// file gives false.
bool IsFileSignatureValid(const wchar_t* path);

// Reads the four parts of the file version from the file's version resource.
// Every output must be given; all four are set to 0 first, so they stay 0 when
// false is returned (no resource, unreadable file).
bool GetFileVersionNumbers(const wchar_t* path, WORD* major, WORD* minor, WORD* build, WORD* revision);
