#include "rulePlugin.h"

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "conventions.h"
#include "omkErrors.h"
#include "pluginRegistry.h"

RULE_PLUGIN* g_rulePlugins = nullptr;
DWORD g_numRulePlugins = 0;

namespace {

const wchar_t* const kRulePluginKey = OMK_RULE_PLUGIN_KEY;

// Where the table loops report a missing slot (source name and lines as the
// service's diagnostics have always named them).
constexpr char kSourceFile[] = "rulePlugin.cpp";
constexpr int kFindAssertLine = 316;
constexpr int kInitAssertLine = 338;
constexpr int kCloseAssertLine = 361;

// Slot i of the table, or null when the table itself is missing.
RULE_PLUGIN* Slot(DWORD i) {
    return g_rulePlugins != nullptr ? &g_rulePlugins[i] : nullptr;
}

bool LoadIntoNextSlot(void*, const wchar_t* subkeyName, const wchar_t* dllPath) {
    if (LoadRulePlugin(subkeyName, dllPath, &g_rulePlugins[g_numRulePlugins]) != 0) {
        OMK_ReportError(0, L"LoadRulePlugins: LoadRulePlugin %ws failed 0x%x", dllPath, 1);
        return false;
    }
    ++g_numRulePlugins;
    return true;
}

#ifdef OMK_REPLAY_SEAMS
DWORD LoadListedRulePlugins(const OMK_PLUGIN_LIST& list) {
    size_t bytes = sizeof(RULE_PLUGIN) * (list.empty() ? 1 : list.size());
    g_rulePlugins = static_cast<RULE_PLUGIN*>(malloc(bytes));
    if (g_rulePlugins == nullptr) return 2;
    OmkFill(g_rulePlugins, bytes);
    ++g_allocCount;
    g_numRulePlugins = 0;
    for (const auto& [name, dllPath] : list) {
        if (!dllPath.empty()) {
            LoadIntoNextSlot(nullptr, name.c_str(), dllPath.c_str());
            continue;
        }
        RULE_PLUGIN* record = &g_rulePlugins[g_numRulePlugins++];
        memset(record, 0, sizeof(*record));
        lstrcpynW(record->name, name.c_str(), OMK_PLUGIN_NAME_CHARS);
    }
    return g_numRulePlugins == 0 ? 1 : 0;
}
#endif

}  // namespace

#ifdef OMK_REPLAY_SEAMS
const OMK_PLUGIN_LIST* g_replayRulePlugins = nullptr;
#endif

DWORD LoadRulePlugins() {
#ifdef OMK_REPLAY_SEAMS
    if (g_replayRulePlugins != nullptr) return LoadListedRulePlugins(*g_replayRulePlugins);
#endif
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kRulePluginKey, 0, KEY_READ, &key) != ERROR_SUCCESS) {
        OMK_ReportError(0, L"LoadRulePlugins: missing key %ws", kRulePluginKey);
        return 5;
    }

    DWORD numSubKeys = 0;
    if (RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &numSubKeys, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr) != ERROR_SUCCESS) {
        // The thread's last error, not the call's status, is what this message has always shown.
        OMK_ReportError(0, L"LoadRulePlugins: Error %d getting numkeys under %ws", GetLastError(), kRulePluginKey);
        RegCloseKey(key);
        return 5;
    }

    // At least one record, so that an empty key is "no plugin" rather than "out of memory".
    size_t bytes = sizeof(RULE_PLUGIN) * (numSubKeys != 0 ? numSubKeys : 1);
    g_rulePlugins = static_cast<RULE_PLUGIN*>(malloc(bytes));
    if (g_rulePlugins == nullptr) {
        OMK_ReportError(0, L"LoadRulePlugins: out of mem for %d subkeys", numSubKeys);
        RegCloseKey(key);
        return 2;
    }
    OmkFill(g_rulePlugins, bytes);
    ++g_allocCount;
    g_numRulePlugins = 0;

    WalkPluginSubkeys("LoadRulePlugins", key, numSubKeys, LoadIntoNextSlot, nullptr);

    RegCloseKey(key);
    return g_numRulePlugins == 0 ? 1 : 0;
}

DWORD LoadRulePlugin(const wchar_t* name, const wchar_t* dllPath, RULE_PLUGIN* record) {
    if (name == nullptr || dllPath == nullptr || record == nullptr) return 1;

    if (!IsFileSignatureValid(dllPath)) {
        OMK_ReportError(0, L"LoadRulePlugin: Verify %ws digital signature failed!", dllPath);
        return 1;
    }

    memset(record, 0, sizeof(*record));
    lstrcpynW(record->dllPath, dllPath, OMK_PLUGIN_PATH_CHARS);
    lstrcpynW(record->name, name, OMK_PLUGIN_NAME_CHARS);

    if (!GetFileVersionNumbers(dllPath, &record->versionMajor, &record->versionMinor, &record->versionBuild,
                               &record->versionRevision)) {
        OMK_ReportError(0, L"LoadRulePlugin: Could not file FILE VERSION in %ws", dllPath);
        record->versionMajor = record->versionMinor = record->versionBuild = record->versionRevision = 0;
    }

    record->hModule = LoadLibraryW(dllPath);
    if (record->hModule == nullptr || record->hModule == INVALID_HANDLE_VALUE) {
        OMK_ReportError(0, L"LoadRulePlugin: LoadLibrary %ws failed 0x%x", dllPath, GetLastError());
        record->hModule = nullptr;
        return 1;
    }

    const char* missing = nullptr;
    record->Rule_Initialize = reinterpret_cast<PFN_Rule_Initialize>(GetProcAddress(record->hModule, "Rule_Initialize"));
    if (record->Rule_Initialize == nullptr) missing = "Rule_Initialize";
    if (missing == nullptr) {
        record->Rule_Triggered =
            reinterpret_cast<PFN_Rule_Triggered>(GetProcAddress(record->hModule, "Rule_Triggered"));
        if (record->Rule_Triggered == nullptr) missing = "Rule_Triggered";
    }
    if (missing == nullptr) {
        record->Rule_CloseDll = reinterpret_cast<PFN_Rule_CloseDll>(GetProcAddress(record->hModule, "Rule_CloseDll"));
        if (record->Rule_CloseDll == nullptr) missing = "Rule_CloseDll";
    }
    if (missing != nullptr) {
        OMK_ReportError(0, L"LoadRulePlugin: GetProcAddress %hs failed 0x%x for plugin %ws", missing, GetLastError(),
                        dllPath);
        if (record->configXml != nullptr) {
            free(record->configXml);
            record->configXml = nullptr;
            --g_allocCount;
        }
        FreeLibrary(record->hModule);
        record->hModule = nullptr;
        return 1;
    }
    return 0;
}

RULE_PLUGIN* FindRulePlugin(const wchar_t* name) {
    if (name == nullptr) return nullptr;
    for (DWORD i = 0; i < g_numRulePlugins; ++i) {
        RULE_PLUGIN* plugin = Slot(i);
        if (plugin == nullptr) {
            OmkAssertLine(kFindAssertLine, kSourceFile);
            continue;
        }
        if (_wcsicmp(plugin->name, name) == 0) return plugin;
    }
    return nullptr;
}

DWORD InitRulePlugins() {
    for (DWORD i = 0; i < g_numRulePlugins; ++i) {
        RULE_PLUGIN* plugin = Slot(i);
        if (plugin == nullptr) {
            OmkAssertLine(kInitAssertLine, kSourceFile);
            continue;
        }
        if (plugin->Rule_Initialize == nullptr) continue;
        DWORD result = plugin->Rule_Initialize(plugin->configXml);
        if (result != 0) return result;
    }
    return 0;
}

void CloseRulePlugins() {
    for (DWORD i = 0; i < g_numRulePlugins; ++i) {
        RULE_PLUGIN* plugin = Slot(i);
        if (plugin == nullptr) {
            OmkAssertLine(kCloseAssertLine, kSourceFile);
            continue;
        }
        if (plugin->Rule_CloseDll != nullptr) {
            plugin->Rule_CloseDll();
            plugin->Rule_CloseDll = nullptr;
        }
    }
}

void UnloadRulePlugins() {
    if (g_rulePlugins != nullptr) {
        for (DWORD i = 0; i < g_numRulePlugins; ++i) {
            RULE_PLUGIN* plugin = &g_rulePlugins[i];
            if (plugin->configXml != nullptr) {
                free(plugin->configXml);
                plugin->configXml = nullptr;
                --g_allocCount;
            }
            if (plugin->hModule != nullptr) {
                FreeLibrary(plugin->hModule);
                plugin->hModule = nullptr;
            }
        }
        free(g_rulePlugins);
        --g_allocCount;
    }
    g_rulePlugins = nullptr;
    g_numRulePlugins = 0;
}
