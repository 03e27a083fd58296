// Action plugins: the DLLs registered under HKLM "Software\Varn Inc.\Orlemark\ActionPlugin"
// that carry out what a fired rule lists. Same life as the rule plugins: loaded,
// initialised, closed and unloaded on the service's start and stop path, called
// by the engine thread in between, no lock.
#pragma once

#include <windows.h>

#include "omkPluginSdk.h"
#include "pluginFile.h"
#include "rulePlugin.h"

// One loaded action plugin: an element of g_actionPlugins, owned by the table.
struct ACTION_PLUGIN {
    wchar_t name[OMK_PLUGIN_NAME_CHARS];     // the registry subkey's name, set once all exports were found
    wchar_t dllPath[OMK_PLUGIN_PATH_CHARS];  // the subkey's "DllPath"
    HMODULE hModule;                         // null when not loaded
    WORD versionMajor;                       // file version, all 0 when unreadable
    WORD versionMinor;
    WORD versionBuild;
    WORD versionRevision;
    wchar_t* configXml;                       // malloc'd by the rule parser, freed by UnloadActionPlugins; may be null
    PFN_Action_Initialize Action_Initialize;  // the exports; Action_CloseDll cleared once called
    PFN_Action_BeginEvaluation Action_BeginEvaluation;
    PFN_Action_Execute Action_Execute;
    PFN_Action_EndEvaluation Action_EndEvaluation;
    PFN_Action_CloseDll Action_CloseDll;
};

// The table: one slot per registry subkey, filled with '$' when allocated;
// only the first g_numActionPlugins records are valid. Counted in g_allocCount.
extern ACTION_PLUGIN* g_actionPlugins;
extern DWORD g_numActionPlugins;

// Enumerates the registry key and loads every plugin it names into
// g_actionPlugins. 0 when at least one plugin loaded; 1 when none did or the
// subkey count is unreadable; 2 out of memory; 5 when the key is missing. The
// count is not reset here: it starts from 0 because UnloadActionPlugins (or
// the process start) left it there.
DWORD LoadActionPlugins();

// Checks and loads one plugin into `record`: 0 on success, 1 on failure.
DWORD LoadActionPlugin(const wchar_t* name, const wchar_t* dllPath, ACTION_PLUGIN* record);

// The first loaded plugin whose name equals `name` ignoring letter case, in
// table order; null when there is none.
ACTION_PLUGIN* FindActionPlugin(const wchar_t* name);

// Calls Action_Initialize(configXml) of each plugin in table order. The first
// non-zero result is logged as "InitActionPlugins: Failed to init plugin ..."
// and returned (later plugins are not initialised); the caller reports it too.
DWORD InitActionPlugins();

// Calls Action_CloseDll of each plugin whose entry is set, and clears the entry.
void CloseActionPlugins();

// Frees each configXml, unloads each module, frees the table and sets the
// count to 0. Harmless when nothing was loaded.
void UnloadActionPlugins();

#ifdef OMK_REPLAY_SEAMS
// When set, LoadActionPlugins takes its plugins from this list instead of the
// registry key, as LoadRulePlugins does from g_replayRulePlugins.
extern const OMK_PLUGIN_LIST* g_replayActionPlugins;
#endif
