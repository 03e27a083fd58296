// The registry walk both plugin loaders share, and the keys they walk; the
// operator tool's health check walks them the same way.
#pragma once

#include <windows.h>

// The plugin keys under HKEY_LOCAL_MACHINE: one subkey per plugin, named as the plugin.
constexpr wchar_t OMK_RULE_PLUGIN_KEY[] = L"Software\\Varn Inc.\\Orlemark\\RulePlugin";
constexpr wchar_t OMK_ACTION_PLUGIN_KEY[] = L"Software\\Varn Inc.\\Orlemark\\ActionPlugin";

// Size of the buffer a plugin subkey name is enumerated into, in characters.
constexpr DWORD OMK_PLUGIN_SUBKEY_CHARS = 255;

// Loads the plugin a subkey names; true when it took a table slot.
using PluginLoadFn = bool (*)(void* context, const wchar_t* subkeyName, const wchar_t* dllPath);

// Walks the first `numSubKeys` subkeys of the open plugin key `key`: each is
// enumerated, opened, its "DllPath" read (REG_SZ only, at most 260 bytes of
// data) and handed to `load`. Messages begin with `caller`. A subkey whose
// plugin loaded is left open, as it always has been; others are closed. An
// enumeration or open failure ends the walk.
void WalkPluginSubkeys(const char* caller, HKEY key, DWORD numSubKeys, PluginLoadFn load, void* context);
