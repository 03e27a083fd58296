// The machine Root store operations behind InstallTestRoot and the
// omkInstallTestRoot tool.
#pragma once

#include <windows.h>

#include <string>

// Adds a DER certificate file to the LocalMachine Root store, replacing an
// existing copy. True on success.
bool AddCertificateToMachineRoot(const std::wstring& cerPath);

// True when the LocalMachine Root store holds the certificate of that file.
bool IsCertificateInMachineRoot(const std::wstring& cerPath);
