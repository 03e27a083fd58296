// What the test rule and action plugins share: the behaviour a test chose for
// them and the record of every call they receive. See README.md beside this
// file for the registry values and the record format.
#pragma once

#include <windows.h>

#include <string>

#include "omkPluginSdk.h"

namespace testplugin {

// One line of the call log: module file name, export, then key=value fields.
class Record {
public:
    explicit Record(const char* function);
    Record& Text(const std::string& key, const wchar_t* value);  // null is recorded as such
    Record& Rule(const RULE* rule);                              // every field, the actions and the work item
    template <typename T>
    Record& Number(const std::string& key, T value) {
        return Field(key, std::to_string(value));
    }
    Record& Field(const std::string& key, const std::string& text);

    std::string line;
};

// Completes a call of an export whose behaviour is chosen under `stem`
// ("Triggered"): reads the behaviour, appends the record (with the result when
// `withResult`), sleeps and raises as chosen, and returns the result, which
// the number in `attribute`="N" inside `xml` overrides.
unsigned int Call(Record record, const wchar_t* stem, const wchar_t* attribute = nullptr, const wchar_t* xml = nullptr,
                  bool withResult = true);

}  // namespace testplugin
