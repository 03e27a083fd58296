// omkInstallTestRoot [certificate.cer]: adds the test signing root (by default
// omkTestRoot.cer beside this program) to the machine's Root store, so that
// the signed test plugins verify as they would on a Windows test machine.
// Exit code 0 on success, 1 on failure.
#include <stdio.h>

#include "testPlugins.h"

int wmain(int argc, wchar_t** argv) {
    const wchar_t* path = argc > 1 ? argv[1] : L"omkTestRoot.cer beside this program";
    if (!omktest::InstallTestRoot(argc > 1 ? argv[1] : L"")) {
        fwprintf(stderr, L"omkInstallTestRoot: could not add %s to the machine Root store (error %lu)\n", path,
                 GetLastError());
        return 1;
    }
    wprintf(L"omkInstallTestRoot: %s is in the machine Root store\n", path);
    return 0;
}
