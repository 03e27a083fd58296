// What the test rule and action plugins share: the behaviour a test chose for
// them and the record of every call they receive. See README.md beside this
// file for the registry values and the record format.
#pragma once

#include <windows.h>

#include <string>

#include "omkPluginSdk.h"

namespace testplugin {

// Called from DllMain on attach: remembers this module's file name. Returns
// false when the environment asks this module to fail its load.
bool Attach(HMODULE module);

// Called from DllMain when the module is unloaded by FreeLibrary: records
// "DllDetach" in the last call log used (no registry access under the loader lock).
void Detach();

// The behaviour a test chose for one export, read from the registry at each
// call. `stem` is the export's name without its prefix ("Triggered").
struct Behaviour {
    unsigned int result = 0;  // "<stem>Result", or the `attribute` found in the call's XML
    DWORD delayMs = 0;        // "<stem>DelayMs": sleep before returning
    DWORD raiseCode = 0;      // "<stem>Raise": exception code raised instead of returning
    std::wstring callLog;     // "CallLog": file the call is appended to; empty for none
};
Behaviour ReadBehaviour(const wchar_t* stem, const wchar_t* attribute, const wchar_t* xml);

// Applies the delay and the exception, if any, after the call was recorded.
void Act(const Behaviour& behaviour);

// One line of the call log, written when Write() is called.
class Record {
public:
    explicit Record(const char* function);
    void Text(const char* key, const wchar_t* value);  // null is recorded as such
    void Number(const char* key, unsigned long long value);
    void SignedNumber(const char* key, long long value);
    void Null(const char* key);
    void Rule(const RULE* rule);  // every field, the actions and the work item
    void Write(const std::wstring& callLog);

private:
    std::string line_;
};

}  // namespace testplugin
