// Rule plugins: the DLLs registered under HKLM "Software\Varn Inc.\Orlemark\RulePlugin"
// that decide whether a rule fires. Loaded, initialised, closed and unloaded
// on the service's start and stop path; called by the engine thread in between.
// No lock guards the table: it is read-only while the engine runs, apart from
// configXml, which the rule parser sets before the plugins are initialised.
#pragma once

#include <windows.h>

#include "omkPluginSdk.h"
#include "pluginFile.h"

// Size of a plugin's name (its registry subkey name), terminator included.
constexpr int OMK_PLUGIN_NAME_CHARS = 128;
// Size of a plugin's DLL path, terminator included.
constexpr int OMK_PLUGIN_PATH_CHARS = 260;

#ifdef OMK_REPLAY_SEAMS
#include <string>
#include <utility>
#include <vector>
// Replay builds only (omk-rules): plugins given as a name and a DLL path.
using OMK_PLUGIN_LIST = std::vector<std::pair<std::wstring, std::wstring>>;
#endif

// One loaded rule plugin: an element of g_rulePlugins, owned by the table.
struct RULE_PLUGIN {
    wchar_t name[OMK_PLUGIN_NAME_CHARS];     // the registry subkey's name
    wchar_t dllPath[OMK_PLUGIN_PATH_CHARS];  // the subkey's "DllPath"
    HMODULE hModule;                         // null when not loaded
    WORD versionMajor;                       // file version, all 0 when unreadable
    WORD versionMinor;
    WORD versionBuild;
    WORD versionRevision;
    PFN_Rule_Initialize Rule_Initialize;  // the exports, bound in this order; Rule_CloseDll cleared once called
    PFN_Rule_Triggered Rule_Triggered;
    PFN_Rule_CloseDll Rule_CloseDll;
    wchar_t* configXml;  // malloc'd by the rule parser, freed by UnloadRulePlugins; may be null
};

// The table: one slot per registry subkey, filled with '$' when allocated;
// only the first g_numRulePlugins records are valid. Counted in g_allocCount.
extern RULE_PLUGIN* g_rulePlugins;
extern DWORD g_numRulePlugins;

// Enumerates the registry key, checks, loads and binds every plugin it names
// into g_rulePlugins. 0 when at least one plugin loaded, 1 when none did,
// 2 out of memory, 5 when the key is missing or its subkey count unreadable.
// Failures of single plugins are logged and their slot reused by the next.
DWORD LoadRulePlugins();

// Checks and loads one plugin into `record`: 0 on success, 1 on failure (the
// reason logged; the module is not left loaded).
DWORD LoadRulePlugin(const wchar_t* name, const wchar_t* dllPath, RULE_PLUGIN* record);

// The first loaded plugin whose name equals `name` ignoring letter case, in
// table order; null when there is none.
RULE_PLUGIN* FindRulePlugin(const wchar_t* name);

// Calls Rule_Initialize(configXml) of each plugin in table order and returns
// the first non-zero result (later plugins are not initialised), else 0. The
// caller reports a failure.
DWORD InitRulePlugins();

// Calls Rule_CloseDll of each plugin whose entry is set, and clears the entry.
void CloseRulePlugins();

// Frees each configXml, unloads each module, frees the table and sets the
// count to 0. Runs after CloseRulePlugins (and after the action plugins are
// unloaded) at teardown; harmless when nothing was loaded.
void UnloadRulePlugins();

#ifdef OMK_REPLAY_SEAMS
// When set, LoadRulePlugins takes its plugins from this list, in its order,
// instead of the registry key: an entry with a DLL path is checked and loaded
// as a registered DLL is; one without is only named, so that rules and
// configuration blocks bind to it, and is never loaded or called.
extern const OMK_PLUGIN_LIST* g_replayRulePlugins;
#endif
