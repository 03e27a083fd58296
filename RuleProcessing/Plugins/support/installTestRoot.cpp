// omkInstallTestRoot [certificate.cer]: adds the test signing root (by default
// omkTestRoot.cer beside this program) to the machine's Root store, so that
// the signed test plugins verify as they would on a Windows test machine.
// Exit code 0 on success, 1 on failure.
#include <stdio.h>

#include <string>

#include "testRoot.h"

int wmain(int argc, wchar_t** argv) {
    std::wstring path;
    if (argc > 1) {
        path = argv[1];
    } else {
        wchar_t self[MAX_PATH];
        DWORD length = GetModuleFileNameW(nullptr, self, MAX_PATH);
        std::wstring folder(self, length);
        path = folder.substr(0, folder.find_last_of(L'\\')) + L"\\omkTestRoot.cer";
    }
    if (!AddCertificateToMachineRoot(path)) {
        fwprintf(stderr, L"omkInstallTestRoot: could not add %s to the machine Root store (error %lu)\n", path.c_str(),
                 GetLastError());
        return 1;
    }
    wprintf(L"omkInstallTestRoot: %s is in the machine Root store\n", path.c_str());
    return 0;
}
