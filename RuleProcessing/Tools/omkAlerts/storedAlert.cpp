#include "storedAlert.h"

#include <oleauto.h>
#include <stdio.h>
#include <stdlib.h>

#include "cdef.h"
#include "conventions.h"
#include "textFileHelpers.h"
#include "xmlAccess.h"

namespace omkalerts {

namespace {

// The elements every alert begins with, in the order they are written; the
// data items follow them.
const char* const kHeadElements[] = {"AlertId", "RuleGuid", "RuleType", "DateTime", "Message"};
constexpr unsigned int kHeadCount = sizeof(kHeadElements) / sizeof(kHeadElements[0]);

// Takes a BSTR the XML access layer handed out: its text, and frees it.
std::string Take(BSTR text) {
    std::string value = text != nullptr ? Utf8(std::wstring(text, SysStringLen(text))) : std::string();
    SysFreeString(text);
    return value;
}

std::string ElementText(IXMLDOMDocument* doc, const wchar_t* xpath) {
    unsigned int count = 0;
    BSTR text = nullptr;
    return ReadXmlElement(doc, xpath, 0, &count, &text) ? Take(text) : std::string();
}

std::wstring IthTree(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int i) {
    BSTR xml = nullptr;
    if (!ReadIthXmlTree(doc, xpath, i, &xml)) return std::wstring();
    std::wstring text(xml, SysStringLen(xml));
    SysFreeString(xml);
    return text;
}

// The name of the element an outer XML text begins with, as the DOM wrote it.
std::string ElementName(const std::wstring& outerXml) {
    size_t start = outerXml.find(L'<');
    if (start == std::wstring::npos) return std::string();
    size_t end = outerXml.find_first_of(L" \t\r\n/>", start + 1);
    return Utf8(outerXml.substr(start + 1, end == std::wstring::npos ? std::wstring::npos : end - start - 1));
}

}  // namespace

bool ParseTime(const std::string& text, unsigned long long* fileTime) {
    // A FILETIME of this era has 18 digits; a shorter number is more likely a year or date mistyped.
    if (text.size() >= 15 && text.size() <= 19 && text.find_first_not_of("0123456789") == std::string::npos) {
        *fileTime = _strtoui64(text.c_str(), nullptr, 10);
        return true;
    }
    int year = 0, month = 0, day = 0, hour = 0, minute = 0, second = 0, used = 0;
    if (sscanf(text.c_str(), "%4d-%2d-%2d%n", &year, &month, &day, &used) != 3) return false;
    const char* rest = text.c_str() + used;
    if (*rest == 'T' || *rest == ' ') {
        if (sscanf(rest + 1, "%2d:%2d%n", &hour, &minute, &used) != 2) return false;
        rest += 1 + used;
        if (*rest == ':') {
            if (sscanf(rest + 1, "%2d%n", &second, &used) != 1) return false;
            rest += 1 + used;
        }
    }
    if (*rest == 'Z') ++rest;
    if (*rest != '\0') return false;
    SYSTEMTIME utc = {
        static_cast<WORD>(year),   static_cast<WORD>(month),  0, static_cast<WORD>(day), static_cast<WORD>(hour),
        static_cast<WORD>(minute), static_cast<WORD>(second), 0};
    FILETIME time;
    if (!SystemTimeToFileTime(&utc, &time)) return false;
    *fileTime = (static_cast<unsigned long long>(time.dwHighDateTime) << 32) | time.dwLowDateTime;
    return true;
}

std::string NormalGuid(const std::string& text) {
    size_t first = text.find_first_not_of(" \t{");
    size_t last = text.find_last_not_of(" \t}");
    std::string guid = first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
    for (char& c : guid) c = static_cast<char>(toupper(static_cast<unsigned char>(c)));
    return "{" + guid + "}";
}

AlertParser::~AlertParser() {
    for (IXMLDOMDocument* doc : {record_, alert_, item_, leaf_}) ReleaseXML(doc);
}

bool AlertParser::Load(IXMLDOMDocument** doc, const std::wstring& text) {
    IXMLDOMDocument* loaded = ReloadXML(doc, text.c_str());
    CoUninitialize();  // the load's own apartment entry; the tool holds one for its whole run
    return loaded != nullptr;
}

bool AlertParser::IsAlertDocument(const char* utf8, size_t bytes) {
    unsigned int roots = 0;
    return Load(&record_, Wide(std::string(utf8, bytes))) &&
           GetNumInstancesInXml(record_, L"/TolvaneAlerts", &roots) && roots == 1;
}

bool AlertParser::Parse(const char* utf8, size_t bytes, StoredAlert* alert) {
    alert->serviceTag.clear();
    alert->alerts.clear();
    unsigned int count = 0;
    if (!IsAlertDocument(utf8, bytes) || !GetNumInstancesInXml(record_, L"/TolvaneAlerts/Alert", &count)) return false;
    alert->serviceTag = ElementText(record_, L"/TolvaneAlerts/ServiceTag");
    for (unsigned int i = 0; i < count; ++i) {
        alert->alerts.emplace_back();
        if (!ParseAlert(IthTree(record_, L"/TolvaneAlerts/Alert", i), &alert->alerts.back())) return false;
    }
    return true;
}

bool AlertParser::ParseAlert(const std::wstring& xml, AlertElement* alert) {
    if (!Load(&alert_, xml)) return false;
    std::string* head[] = {&alert->alertId, &alert->ruleGuid, &alert->ruleType, &alert->dateTime, &alert->message};
    for (unsigned int i = 0; i < kHeadCount; ++i) {
        *head[i] = ElementText(alert_, (L"/Alert/" + Wide(kHeadElements[i])).c_str());
    }
    // The children after the head are the data items, each alone or all in one enclosing element.
    unsigned int children = 0;
    if (!GetNumInstancesInXml(alert_, L"/Alert/*", &children)) return false;
    for (unsigned int i = 0; i < children; ++i) {
        const std::wstring child = IthTree(alert_, L"/Alert/*", i);
        const std::string name = ElementName(child);
        if (i < kHeadCount && name == kHeadElements[i]) continue;
        unsigned int enclosed = 0;
        if (!Load(&item_, child) || !GetNumInstancesInXml(item_, L"/*/*", &enclosed)) return false;
        if (enclosed == 0) {
            alert->items.push_back({name, ElementText(item_, L"/*")});
            continue;
        }
        alert->itemsTag = name;
        for (unsigned int j = 0; j < enclosed; ++j) {
            const std::wstring leaf = IthTree(item_, L"/*/*", j);
            if (!Load(&leaf_, leaf)) return false;
            alert->items.push_back({ElementName(leaf), ElementText(leaf_, L"/*")});
        }
    }
    return true;
}

const std::string& RuleNames::Find(const std::string& ruleGuid) {
    if (!loaded_) {
        loaded_ = true;
        const std::wstring path = std::wstring(CDef::GetInstance().FOLDER_OMK_INSTALL_LOCATION) + L"\\insvcAlerts.xml";
        wchar_t* text = ReadMultiByteUtf8FileIntoTCHARString(path.c_str());
        IXMLDOMDocument* file = text != nullptr ? LoadXML(text) : nullptr;
        IXMLDOMDocument* rule = nullptr;
        unsigned int rules = 0;
        if (file != nullptr) GetNumInstancesInXml(file, L"/Tolvane/Rule", &rules);
        for (unsigned int i = 0; i < rules; ++i) {
            if (ReloadXML(&rule, IthTree(file, L"/Tolvane/Rule", i).c_str()) != nullptr) {
                names_[NormalGuid(ElementText(rule, L"/Rule/RuleGuid"))] = ElementText(rule, L"/Rule/Name");
            }
            CoUninitialize();
        }
        ReleaseXML(rule);
        if (file != nullptr) {
            ReleaseXML(file);
            CoUninitialize();
        }
        if (text != nullptr) {
            free(text);
            --g_allocCount;
        }
    }
    auto found = names_.find(NormalGuid(ruleGuid));
    return found != names_.end() ? found->second : none_;
}

}  // namespace omkalerts
