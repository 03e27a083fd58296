// Redirects one imported function of this test program for the lifetime of
// the object, to make platform calls fail that no registry content can make
// fail (the plugins library is linked into the program, so its calls go
// through the program's import table).
#pragma once

#include <windows.h>

class ScopedImportPatch {
public:
    ScopedImportPatch(const char* dllName, const char* functionName, const void* replacement);
    ~ScopedImportPatch();
    ScopedImportPatch(const ScopedImportPatch&) = delete;
    ScopedImportPatch& operator=(const ScopedImportPatch&) = delete;

    bool Patched() const { return slot_ != nullptr; }

private:
    static void Write(const void** slot, const void* value);

    const void** slot_ = nullptr;
    const void* original_ = nullptr;
};
