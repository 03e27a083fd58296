#include "alertOutput.h"

#include <nlohmann/json.hpp>

namespace omkalerts {

namespace {

using Json = nlohmann::ordered_json;

constexpr size_t kFlushBytes = 64 * 1024;
// "In short": longer values and item lists are cut in a list line.
constexpr size_t kShortValueBytes = 32;
constexpr size_t kShortItemsBytes = 120;

// `text` cut to at most `bytes` bytes at a character boundary, "..." marking a cut.
std::string Shorten(const std::string& text, size_t bytes) {
    if (text.size() <= bytes) return text;
    size_t end = bytes - 3;
    while (end > 0 && (static_cast<unsigned char>(text[end]) & 0xC0) == 0x80) --end;
    return text.substr(0, end) + "...";
}

std::string Dump(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json ItemsJson(const AlertElement& alert) {
    Json items = Json::array();
    for (const AlertItem& item : alert.items) items.push_back({{"name", item.name}, {"value", item.value}});
    return items;
}

Json OrNull(const std::string& text) {
    return text.empty() ? Json() : Json(text);
}

// The alert's own fields, in the order they are written.
void AddAlertFields(Json& json, const AlertElement& alert, const std::string& ruleName) {
    json["alertId"] = alert.alertId;
    json["ruleName"] = OrNull(ruleName);
    json["ruleGuid"] = alert.ruleGuid;
    json["ruleType"] = alert.ruleType;
    json["dateTime"] = alert.dateTime;
    json["message"] = alert.message;
    json["itemsTag"] = OrNull(alert.itemsTag);
    json["items"] = ItemsJson(alert);
}

std::string CsvField(const std::string& text) {
    if (text.find_first_of(",\"\r\n") == std::string::npos) return text;
    std::string quoted = "\"";
    for (char c : text) quoted += c == '"' ? std::string("\"\"") : std::string(1, c);
    return quoted + "\"";
}

std::string XmlAttribute(const std::string& text) {
    std::string escaped;
    for (char c : text) escaped += c == '&' ? "&amp;" : c == '<' ? "&lt;" : c == '"' ? "&quot;" : std::string(1, c);
    return escaped;
}

}  // namespace

Output::Output(DWORD standardHandle) : handle_(GetStdHandle(standardHandle)) {
    DWORD mode = 0;
    console_ = GetConsoleMode(handle_, &mode) != FALSE;
}

Output::~Output() {
    Flush();
    if (owned_) CloseHandle(handle_);
}

bool Output::CreateFileOutput(const std::wstring& path) {
    Flush();
    HANDLE file = CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ, nullptr, CREATE_ALWAYS,
                              FILE_ATTRIBUTE_NORMAL, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    handle_ = file;
    owned_ = true;
    console_ = false;
    return true;
}

void Output::Write(const std::string& utf8) {
    buffer_ += utf8;
    if (buffer_.size() >= kFlushBytes) Flush();
}

bool Output::Flush() {
    if (!buffer_.empty() && !failed_) {
        if (console_) {
            const std::wstring wide = Wide(buffer_);
            DWORD written = 0;
            failed_ = !WriteConsoleW(handle_, wide.data(), static_cast<DWORD>(wide.size()), &written, nullptr);
        } else {
            DWORD written = 0;
            failed_ = !WriteFile(handle_, buffer_.data(), static_cast<DWORD>(buffer_.size()), &written, nullptr) ||
                      written != buffer_.size();
        }
    }
    buffer_.clear();
    return !failed_;
}

Output& StdOut() {
    static Output out(STD_OUTPUT_HANDLE);
    return out;
}

Output& StdErr() {
    static Output err(STD_ERROR_HANDLE);
    return err;
}

void Complain(const std::string& message) {
    StdOut().Flush();  // what came before, first
    StdErr().Write("omk-alerts: " + message + "\r\n");
    StdErr().Flush();
}

std::string ListLine(const StoredAlert& stored, const AlertElement& alert, const std::string& ruleName) {
    std::string items;
    for (const AlertItem& item : alert.items) {
        items += (items.empty() ? "" : ", ") + item.name + "=" + Shorten(item.value, kShortValueBytes);
    }
    if (!alert.itemsTag.empty()) items = alert.itemsTag + "{" + items + "}";
    return IsoUtcText(stored.creationTime) + "  " + (ruleName.empty() ? "-" : ruleName) + " " + alert.ruleGuid + "  " +
           alert.ruleType + "  \"" + alert.message + "\"" +
           (items.empty() ? "" : "  " + Shorten(items, kShortItemsBytes)) + "\r\n";
}

std::string Details(const StoredAlert& stored, RuleNames& names) {
    std::string text = "Creation time  " + IsoUtcText(stored.creationTime) + " (" + std::to_string(stored.creationTime) +
                       ")\r\nStored         " + IsoUtcText(stored.storedUtc) + "\r\nService tag    " + stored.serviceTag +
                       "\r\n";
    for (size_t i = 0; i < stored.alerts.size(); ++i) {
        const AlertElement& alert = stored.alerts[i];
        const std::string& name = names.Find(alert.ruleGuid);
        text += "Alert " + std::to_string(i + 1) + " of " + std::to_string(stored.alerts.size()) + "\r\n  AlertId    " +
                alert.alertId + "\r\n  Rule       " + (name.empty() ? "-" : name) + " " + alert.ruleGuid +
                "\r\n  RuleType   " + alert.ruleType + "\r\n  DateTime   " + alert.dateTime + "\r\n  Message    " +
                alert.message + "\r\n  Items" +
                (alert.itemsTag.empty() ? std::string() : " in <" + alert.itemsTag + ">") + "\r\n";
        for (const AlertItem& item : alert.items) text += "    " + item.name + " = " + item.value + "\r\n";
    }
    return text;
}

std::string RecordJson(const StoredAlert& stored, RuleNames& names) {
    Json json;
    json["creationTime"] = IsoUtcText(stored.creationTime);
    json["storedUtc"] = IsoUtcText(stored.storedUtc);
    json["serviceTag"] = stored.serviceTag;
    json["alerts"] = Json::array();
    for (const AlertElement& alert : stored.alerts) {
        Json one;
        AddAlertFields(one, alert, names.Find(alert.ruleGuid));
        json["alerts"].push_back(std::move(one));
    }
    return Dump(json);
}

std::string AlertJson(const StoredAlert& stored, const AlertElement& alert, const std::string& ruleName) {
    Json json;
    json["creationTime"] = IsoUtcText(stored.creationTime);
    json["storedUtc"] = IsoUtcText(stored.storedUtc);
    json["serviceTag"] = stored.serviceTag;
    AddAlertFields(json, alert, ruleName);
    return Dump(json);
}

std::string CsvHeader() {
    return "creationTime,storedUtc,serviceTag,alertId,ruleName,ruleGuid,ruleType,dateTime,message,itemsTag,items\r\n";
}

std::string CsvRow(const StoredAlert& stored, const AlertElement& alert, const std::string& ruleName) {
    // The items in one field, one "name=value" per line.
    std::string items;
    for (const AlertItem& item : alert.items) items += (items.empty() ? "" : "\n") + item.name + "=" + item.value;
    std::string row;
    for (const std::string* field :
         std::initializer_list<const std::string*>{&alert.alertId, &ruleName, &alert.ruleGuid, &alert.ruleType,
                                                   &alert.dateTime, &alert.message, &alert.itemsTag, &items}) {
        row += "," + CsvField(*field);
    }
    return IsoUtcText(stored.creationTime) + "," + IsoUtcText(stored.storedUtc) + "," + CsvField(stored.serviceTag) + row +
           "\r\n";
}

std::string XmlRecord(const StoredAlert& stored, const char* xml, size_t bytes) {
    std::string text(xml, bytes);
    if (text.compare(0, 3, "\xEF\xBB\xBF") == 0) text.erase(0, 3);
    const size_t start = text.find_first_not_of(" \t\r\n");
    if (start != std::string::npos && text.compare(start, 5, "<?xml") == 0) {
        const size_t end = text.find("?>", start);
        text.erase(0, end == std::string::npos ? text.size() : text.find_first_not_of("\r\n", end + 2));
    }
    if (text.empty() || text.back() != '\n') text += "\r\n";
    return "<StoredAlert creationTime=\"" + XmlAttribute(IsoUtcText(stored.creationTime)) + "\" storedUtc=\"" +
           XmlAttribute(IsoUtcText(stored.storedUtc)) + "\">\r\n" + text + "</StoredAlert>\r\n";
}

}  // namespace omkalerts
