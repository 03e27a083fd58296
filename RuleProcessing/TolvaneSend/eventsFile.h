// Events files: collector events written one JSON object per line, read by
// tolvane-send (which reports them to the running service) and by omk-rules
// replay (which hands them to the engine in a sandbox), so that one file
// serves both. The three kinds:
//   {"kind":"summary"}
//   {"kind":"rule","plugin":"P","guid":"{...}","tag":"T","items":[["name","value"],...]}
//   {"kind":"periodic","code":N,"subcode":N,"time":FILETIME,"hex":"5a01"}
// "tag", "items", "time" and "hex" may be left out; any other member is an
// error. Blank lines are skipped; a UTF-8 byte-order mark is allowed.
#pragma once

#include <windows.h>

#include <string>
#include <utility>
#include <vector>

#include "tolvane.h"
#include "utf8Text.h"

// One collector event.
struct COLLECTOR_EVENT {
    enum Kind { SUMMARY, RULE, PERIODIC } kind = SUMMARY;
    // RULE: the plugin and rule that fired, the tag around the data items.
    std::wstring plugin;
    std::wstring guid;
    bool hasTag = false;
    std::wstring tag;
    // RULE: the data items; without "items" the call carries no arrays at all,
    // with an empty list it carries two empty arrays.
    bool hasItems = false;
    std::vector<std::pair<std::wstring, std::wstring>> items;
    // PERIODIC: the record.
    int code = 0;
    int subCode = 0;
    bool hasTime = false;
    long long time = 0;  // a FILETIME as one number
    std::vector<unsigned char> bytes;
};

// One non-blank line of an events file: its number (from 1), its text, and
// the event or why the line is not one.
struct EVENTS_FILE_LINE {
    int number = 0;
    std::string text;  // UTF-8, without the line end
    bool ok = false;
    COLLECTOR_EVENT event;
    std::string error;  // UTF-8, when not ok
};

// Parses one line (UTF-8 JSON). False with `error` set when it is no event.
bool ParseCollectorEvent(const std::string& line, COLLECTOR_EVENT* event, std::string* error);

// Reads every non-blank line of an events file. False, with `error` set, when
// the file cannot be read; bad lines are returned with their error.
bool ReadEventsFile(const std::wstring& path, std::vector<EVENTS_FILE_LINE>* lines, std::string* error);

// Hex digits in pairs into bytes; blanks, ':' and '-' between them are
// allowed. False for anything else or an odd number of digits.
bool ParseHexBytes(const std::wstring& hex, std::vector<unsigned char>* bytes);

// Reports `event` through `tolvane` as a collector does: the method of its
// kind with BSTR and SAFEARRAY arguments. A periodic record without a time
// stamp gets `defaultTime`. The method's HRESULT, or E_OUTOFMEMORY.
HRESULT SendCollectorEvent(ITolvane* tolvane, const COLLECTOR_EVENT& event, long long defaultTime);
