// Installs the test signing root into the machine's Root store. Shared by the
// test support library and the omkInstallTestRoot tool.
#include "testRoot.h"

#include <wincrypt.h>

#include <string>

namespace {

std::string ReadAll(const std::wstring& path) {
    HANDLE file = CreateFileW(path.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return std::string();
    std::string bytes;
    char chunk[4096];
    DWORD read = 0;
    while (ReadFile(file, chunk, sizeof(chunk), &read, nullptr) && read > 0) bytes.append(chunk, read);
    CloseHandle(file);
    return bytes;
}

HCERTSTORE OpenMachineRoot(DWORD extraFlags) {
    return CertOpenStore(CERT_STORE_PROV_SYSTEM_W, 0, 0, CERT_SYSTEM_STORE_LOCAL_MACHINE | extraFlags, L"Root");
}

}  // namespace

bool AddCertificateToMachineRoot(const std::wstring& cerPath) {
    std::string der = ReadAll(cerPath);
    if (der.empty()) return false;
    HCERTSTORE store = OpenMachineRoot(0);
    if (store == nullptr) return false;
    BOOL added = CertAddEncodedCertificateToStore(
        store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
        static_cast<DWORD>(der.size()), CERT_STORE_ADD_REPLACE_EXISTING, nullptr);
    CertCloseStore(store, 0);
    return added != FALSE;
}

bool IsCertificateInMachineRoot(const std::wstring& cerPath) {
    std::string der = ReadAll(cerPath);
    if (der.empty()) return false;
    PCCERT_CONTEXT wanted =
        CertCreateCertificateContext(X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, reinterpret_cast<const BYTE*>(der.data()),
                                     static_cast<DWORD>(der.size()));
    if (wanted == nullptr) return false;
    bool found = false;
    HCERTSTORE store = OpenMachineRoot(CERT_STORE_READONLY_FLAG);
    if (store != nullptr) {
        PCCERT_CONTEXT match = CertFindCertificateInStore(store, X509_ASN_ENCODING | PKCS_7_ASN_ENCODING, 0,
                                                          CERT_FIND_EXISTING, wanted, nullptr);
        found = match != nullptr;
        if (match != nullptr) CertFreeCertificateContext(match);
        CertCloseStore(store, 0);
    }
    CertFreeCertificateContext(wanted);
    return found;
}
