// Adding the test signing root to the machine's Root store: shared by the test
// support library and the omkInstallTestRoot tool, which links nothing else.
#include "testPlugins.h"

#include <wincrypt.h>

namespace omktest {

bool InstallTestRoot(const std::wstring& cerPath) {
    std::wstring path = cerPath;
    if (path.empty()) {
        wchar_t self[MAX_PATH];
        std::wstring program(self, GetModuleFileNameW(nullptr, self, MAX_PATH));
        path = program.substr(0, program.find_last_of(L'\\')) + L"\\omkTestRoot.cer";
    }
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    BYTE der[16384];
    DWORD bytes = 0;
    BOOL read = ReadFile(file, der, sizeof(der), &bytes, nullptr);
    CloseHandle(file);
    HCERTSTORE store = read && bytes > 0 ? CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0,
                                                         CERT_SYSTEM_STORE_LOCAL_MACHINE, L"Root")
                                         : nullptr;
    if (store == nullptr) return false;
    BOOL added = CertAddEncodedCertificateToStore(store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, der, bytes,
                                                  CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
    DWORD error = GetLastError();
    CertCloseStore(store, 0);
    SetLastError(error);
    return added != FALSE;
}

}  // namespace omktest
