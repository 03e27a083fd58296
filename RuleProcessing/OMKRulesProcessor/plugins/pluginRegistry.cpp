#include "pluginRegistry.h"

#include "conventions.h"
#include "omkErrors.h"
#include "rulePlugin.h"

void WalkPluginSubkeys(const char* caller, HKEY key, DWORD numSubKeys, PluginLoadFn load, void* context) {
    LONG enumStatus = ERROR_SUCCESS;
    DWORD index = 0;
    for (; index < numSubKeys; ++index) {
        wchar_t subkeyName[OMK_PLUGIN_SUBKEY_CHARS];
        DWORD nameChars = OMK_PLUGIN_SUBKEY_CHARS;
        enumStatus = RegEnumKeyExW(key, index, subkeyName, &nameChars, nullptr, nullptr, nullptr, nullptr);
        if (enumStatus != ERROR_SUCCESS) break;

        HKEY subkey = nullptr;
        LONG status = RegOpenKeyW(key, subkeyName, &subkey);
        if (status != ERROR_SUCCESS) {
            OMK_ReportError(0, L"%hs: RegOpenKey %ws failed 0x%x", caller, subkeyName, status);
            return;
        }

        // One character more than a path holds, but only 260 bytes offered to
        // the read: a longer value fails with more-data rather than being cut.
        wchar_t dllPath[OMK_PLUGIN_PATH_CHARS + 1];
        OmkFill(dllPath, sizeof(dllPath));
        DWORD type = 0;
        DWORD bytes = OMK_PLUGIN_PATH_CHARS;
        status = RegQueryValueExW(subkey, L"DllPath", nullptr, &type, reinterpret_cast<BYTE*>(dllPath), &bytes);
        dllPath[OMK_PLUGIN_PATH_CHARS] = L'\0';
        if (status != ERROR_SUCCESS) {
            OMK_ReportError(0, L"%hs: RegQueryValueEx %ws failed 0x%x", caller, subkeyName, status);
            RegCloseKey(subkey);
            continue;
        }
        // An expandable path is refused too: the service never expands it.
        if (type != REG_SZ) {
            OMK_ReportError(0, L"%hs: DllPath under %ws is wrong type %d", caller, subkeyName, type);
            RegCloseKey(subkey);
            continue;
        }
        if (!load(context, subkeyName, dllPath)) RegCloseKey(subkey);
    }
    if (enumStatus != ERROR_SUCCESS && enumStatus != ERROR_NO_MORE_ITEMS) {
        OMK_ReportError(0, L"%hs: RegEnumKey %d failed 0x%x", caller, index, enumStatus);
    }
}
