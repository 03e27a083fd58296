// What omk-alerts reads out of one stored alert record: the fields of its
// alert XML (read through the engine's XML access layer), the times, and the
// text helpers the commands share. One thread.
#pragma once

#include <windows.h>

#include <msxml.h>

#include <map>
#include <string>
#include <vector>

#include "utf8Text.h"

namespace omkalerts {

// "YYYY-MM-DD", "YYYY-MM-DDThh:mm[:ss][Z]" (also with a blank for the T), all
// UTC, or a FILETIME number (15 to 19 digits); false when the text is none of these.
bool ParseTime(const std::string& text, unsigned long long* fileTime);
// A GUID in upper case with its braces ("{...}"), from a text with or without them.
std::string NormalGuid(const std::string& text);

// One data item of an alert, as written: the element's name and text.
struct AlertItem {
    std::string name;
    std::string value;
};

// One <Alert> element of a record.
struct AlertElement {
    std::string alertId, ruleGuid, ruleType, dateTime, message;
    std::string itemsTag;  // the element enclosing the items, "" when none
    std::vector<AlertItem> items;
};

// One database record and what its XML holds.
struct StoredAlert {
    unsigned long long id = 0;
    unsigned long long creationTime = 0;
    unsigned long long storedUtc = 0;
    std::string serviceTag;
    std::vector<AlertElement> alerts;
};

// Reads stored alert XML with the engine's XML access layer, reusing its
// documents from record to record. The caller has entered COM's
// multithreaded apartment for the life of the parser.
class AlertParser {
public:
    AlertParser() = default;
    ~AlertParser();
    AlertParser(const AlertParser&) = delete;
    AlertParser& operator=(const AlertParser&) = delete;

    // Fills `alert`'s serviceTag and alerts from the UTF-8 text. False when
    // the text is not well-formed XML or has no "TolvaneAlerts" root.
    bool Parse(const char* utf8, size_t bytes, StoredAlert* alert);
    // Only whether Parse would take the text: well-formed, with that root.
    bool IsAlertDocument(const char* utf8, size_t bytes);

private:
    bool Load(IXMLDOMDocument** doc, const std::wstring& text);
    bool ParseAlert(const std::wstring& xml, AlertElement* alert);

    IXMLDOMDocument* record_ = nullptr;
    IXMLDOMDocument* alert_ = nullptr;
    IXMLDOMDocument* item_ = nullptr;
    IXMLDOMDocument* leaf_ = nullptr;
};

// The names of the rules in the installed rule file ("insvcAlerts.xml" in the
// install folder), by GUID; the stored alerts carry only the GUID.
class RuleNames {
public:
    // Reads the file on first use; a missing or unreadable file names nothing.
    const std::string& Find(const std::string& ruleGuid);

private:
    bool loaded_ = false;
    std::map<std::string, std::string> names_;  // by NormalGuid
    std::string none_;
};

}  // namespace omkalerts
