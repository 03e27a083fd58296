#include "importPatch.h"

#include <string.h>

ScopedImportPatch::ScopedImportPatch(const char* dllName, const char* functionName, const void* replacement) {
    BYTE* base = reinterpret_cast<BYTE*>(GetModuleHandleW(nullptr));
    auto* dos = reinterpret_cast<IMAGE_DOS_HEADER*>(base);
    auto* nt = reinterpret_cast<IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& imports = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    if (imports.VirtualAddress == 0) return;

    // The resolved address identifies the slot when the lookup table lacks names.
    HMODULE exporter = GetModuleHandleA(dllName);
    const void* resolved =
        exporter != nullptr ? reinterpret_cast<const void*>(GetProcAddress(exporter, functionName)) : nullptr;

    for (auto* descriptor = reinterpret_cast<IMAGE_IMPORT_DESCRIPTOR*>(base + imports.VirtualAddress);
         descriptor->Name != 0; ++descriptor) {
        if (_stricmp(reinterpret_cast<const char*>(base + descriptor->Name), dllName) != 0) continue;
        auto* slots = reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->FirstThunk);
        auto* names = descriptor->OriginalFirstThunk != 0
                          ? reinterpret_cast<IMAGE_THUNK_DATA*>(base + descriptor->OriginalFirstThunk)
                          : nullptr;
        for (size_t i = 0; slots[i].u1.Function != 0; ++i) {
            bool match = false;
            if (names != nullptr && !IMAGE_SNAP_BY_ORDINAL(names[i].u1.Ordinal)) {
                auto* byName = reinterpret_cast<IMAGE_IMPORT_BY_NAME*>(base + names[i].u1.AddressOfData);
                match = strcmp(reinterpret_cast<const char*>(byName->Name), functionName) == 0;
            } else if (resolved != nullptr) {
                match = reinterpret_cast<const void*>(slots[i].u1.Function) == resolved;
            }
            if (!match) continue;
            slot_ = reinterpret_cast<const void**>(&slots[i].u1.Function);
            original_ = *slot_;
            Write(slot_, replacement);
            return;
        }
    }
}

ScopedImportPatch::~ScopedImportPatch() {
    if (slot_ != nullptr) Write(slot_, original_);
}

void ScopedImportPatch::Write(const void** slot, const void* value) {
    DWORD oldProtection = 0;
    if (!VirtualProtect(slot, sizeof(*slot), PAGE_READWRITE, &oldProtection)) return;
    *slot = value;
    VirtualProtect(slot, sizeof(*slot), oldProtection, &oldProtection);
}
