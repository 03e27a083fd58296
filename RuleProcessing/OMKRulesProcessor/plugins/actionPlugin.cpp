#include "actionPlugin.h"

#include <stdlib.h>
#include <string.h>
#include <wchar.h>

#include "conventions.h"
#include "omkErrors.h"
#include "pluginRegistry.h"

ACTION_PLUGIN* g_actionPlugins = nullptr;
DWORD g_numActionPlugins = 0;

namespace {

const wchar_t* const kActionPluginKey = OMK_ACTION_PLUGIN_KEY;

// Where the table loops report a missing slot.
constexpr char kSourceFile[] = "actionPlugin.cpp";
constexpr int kFindAssertLine = 340;
constexpr int kInitAssertLine = 362;
constexpr int kCloseAssertLine = 385;

ACTION_PLUGIN* Slot(DWORD i) {
    return g_actionPlugins != nullptr ? &g_actionPlugins[i] : nullptr;
}

bool LoadIntoNextSlot(void* context, const wchar_t* subkeyName, const wchar_t* dllPath) {
    // The count is not reset before the walk; never write past this table.
    DWORD capacity = *static_cast<DWORD*>(context);
    if (g_numActionPlugins >= capacity ||
        LoadActionPlugin(subkeyName, dllPath, &g_actionPlugins[g_numActionPlugins]) != 0) {
        OMK_ReportError(0, L"LoadActionPlugins: LoadActionPlugin %ws failed 0x%x", dllPath, 1);
        return false;
    }
    ++g_numActionPlugins;
    return true;
}

// Binds one export; false (with `missing` set to its name) when it is absent.
template <typename Fn>
bool Bind(HMODULE module, const char* exportName, Fn* entry, const char** missing) {
    *entry = reinterpret_cast<Fn>(GetProcAddress(module, exportName));
    if (*entry != nullptr) return true;
    *missing = exportName;
    return false;
}

#ifdef OMK_REPLAY_SEAMS
DWORD LoadListedActionPlugins(const OMK_PLUGIN_LIST& list) {
    DWORD capacity = list.empty() ? 1 : static_cast<DWORD>(list.size());
    g_actionPlugins = static_cast<ACTION_PLUGIN*>(malloc(sizeof(ACTION_PLUGIN) * capacity));
    if (g_actionPlugins == nullptr) return 2;
    OmkFill(g_actionPlugins, sizeof(ACTION_PLUGIN) * capacity);
    ++g_allocCount;
    for (const auto& [name, dllPath] : list) {
        if (!dllPath.empty()) {
            LoadIntoNextSlot(&capacity, name.c_str(), dllPath.c_str());
            continue;
        }
        ACTION_PLUGIN* record = &g_actionPlugins[g_numActionPlugins++];
        memset(record, 0, sizeof(*record));
        lstrcpynW(record->name, name.c_str(), OMK_PLUGIN_NAME_CHARS);
    }
    return g_numActionPlugins == 0 ? 1 : 0;
}
#endif

}  // namespace

#ifdef OMK_REPLAY_SEAMS
const OMK_PLUGIN_LIST* g_replayActionPlugins = nullptr;
#endif

DWORD LoadActionPlugins() {
#ifdef OMK_REPLAY_SEAMS
    if (g_replayActionPlugins != nullptr) return LoadListedActionPlugins(*g_replayActionPlugins);
#endif
    HKEY key = nullptr;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, kActionPluginKey, 0, KEY_READ, &key) != ERROR_SUCCESS) {
        OMK_ReportError(0, L"LoadActionPlugins: no root key");
        return 5;
    }

    DWORD numSubKeys = 0;
    if (RegQueryInfoKeyW(key, nullptr, nullptr, nullptr, &numSubKeys, nullptr, nullptr, nullptr, nullptr, nullptr,
                         nullptr, nullptr) != ERROR_SUCCESS) {
        OMK_ReportError(0, L"LoadActionPlugins: Error %d getting numkeys", GetLastError());
        RegCloseKey(key);
        return 1;
    }

    DWORD capacity = numSubKeys != 0 ? numSubKeys : 1;
    size_t bytes = sizeof(ACTION_PLUGIN) * capacity;
    g_actionPlugins = static_cast<ACTION_PLUGIN*>(malloc(bytes));
    if (g_actionPlugins == nullptr) {
        OMK_ReportError(0, L"LoadActionPlugins: out of mem for %d subkeys", numSubKeys);
        RegCloseKey(key);
        return 2;
    }
    OmkFill(g_actionPlugins, bytes);
    ++g_allocCount;

    WalkPluginSubkeys("LoadActionPlugins", key, numSubKeys, LoadIntoNextSlot, &capacity);

    RegCloseKey(key);
    return g_numActionPlugins == 0 ? 1 : 0;
}

DWORD LoadActionPlugin(const wchar_t* name, const wchar_t* dllPath, ACTION_PLUGIN* record) {
    if (name == nullptr || dllPath == nullptr || record == nullptr) return 1;

    if (!IsFileSignatureValid(dllPath)) {
        OMK_ReportError(0, L"LoadActionPlugin: Verify %ws digital signature failed!", dllPath);
        return 1;
    }

    memset(record, 0, sizeof(*record));
    lstrcpynW(record->dllPath, dllPath, OMK_PLUGIN_PATH_CHARS);

    if (!GetFileVersionNumbers(dllPath, &record->versionMajor, &record->versionMinor, &record->versionBuild,
                               &record->versionRevision)) {
        OMK_ReportError(0, L"LoadActionPlugin: Could not file FILE VERSION in %ws", dllPath);
        record->versionMajor = record->versionMinor = record->versionBuild = record->versionRevision = 0;
    }

    record->hModule = LoadLibraryW(dllPath);
    if (record->hModule == nullptr || record->hModule == INVALID_HANDLE_VALUE) {
        OMK_ReportError(0, L"LoadActionPlugin: LoadLibrary %ws failed 0x%x", dllPath, GetLastError());
        record->hModule = nullptr;
        return 1;
    }

    const char* missing = nullptr;
    HMODULE module = record->hModule;
    bool bound = Bind(module, "Action_Initialize", &record->Action_Initialize, &missing) &&
                 Bind(module, "Action_Execute", &record->Action_Execute, &missing) &&
                 Bind(module, "Action_BeginEvaluation", &record->Action_BeginEvaluation, &missing) &&
                 Bind(module, "Action_EndEvaluation", &record->Action_EndEvaluation, &missing) &&
                 Bind(module, "Action_CloseDll", &record->Action_CloseDll, &missing);
    if (!bound) {
        OMK_ReportError(0, L"LoadActionPlugin: GetProcAddress %hs failed 0x%x for plugin %ws", missing, GetLastError(),
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

    // Named only now, so a half-bound record is never found by name.
    lstrcpynW(record->name, name, OMK_PLUGIN_NAME_CHARS);
    return 0;
}

ACTION_PLUGIN* FindActionPlugin(const wchar_t* name) {
    if (name == nullptr) return nullptr;
    for (DWORD i = 0; i < g_numActionPlugins; ++i) {
        ACTION_PLUGIN* plugin = Slot(i);
        if (plugin == nullptr) {
            OmkAssertLine(kFindAssertLine, kSourceFile);
            continue;
        }
        if (_wcsicmp(plugin->name, name) == 0) return plugin;
    }
    return nullptr;
}

DWORD InitActionPlugins() {
    for (DWORD i = 0; i < g_numActionPlugins; ++i) {
        ACTION_PLUGIN* plugin = Slot(i);
        if (plugin == nullptr) {
            OmkAssertLine(kInitAssertLine, kSourceFile);
            continue;
        }
        if (plugin->Action_Initialize == nullptr) continue;
        DWORD result = plugin->Action_Initialize(plugin->configXml);
        if (result != 0) {
            OMK_ReportError(0, L"InitActionPlugins: Failed to init plugin %d: %ws - err 0x%x", i, plugin->name, result);
            return result;
        }
    }
    return 0;
}

void CloseActionPlugins() {
    for (DWORD i = 0; i < g_numActionPlugins; ++i) {
        ACTION_PLUGIN* plugin = Slot(i);
        if (plugin == nullptr) {
            OmkAssertLine(kCloseAssertLine, kSourceFile);
            continue;
        }
        if (plugin->Action_CloseDll != nullptr) {
            plugin->Action_CloseDll();
            plugin->Action_CloseDll = nullptr;
        }
    }
}

void UnloadActionPlugins() {
    if (g_actionPlugins != nullptr) {
        for (DWORD i = 0; i < g_numActionPlugins; ++i) {
            ACTION_PLUGIN* plugin = &g_actionPlugins[i];
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
        free(g_actionPlugins);
        --g_allocCount;
    }
    g_actionPlugins = nullptr;
    g_numActionPlugins = 0;
}
