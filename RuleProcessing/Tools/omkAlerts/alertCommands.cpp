// list, show, export and follow: the stored alerts read through a cursor, one
// record at a time, so that any number of them takes bounded memory.
#include <windows.h>

#include <string.h>

#include "alertDatabase.h"
#include "alertOutput.h"
#include "commands.h"
#include "readOnlyDatabase.h"
#include "storedAlert.h"

namespace omkalerts {

namespace {

// How often follow reads the database even without a signal: the event is an
// auto-reset one, so another process waiting on it may take a signal first.
constexpr DWORD kFollowPollMs = 2000;

HANDLE g_stopFollowing = nullptr;

BOOL WINAPI OnConsoleControl(DWORD control) {
    if (control != CTRL_C_EVENT && control != CTRL_BREAK_EVENT && control != CTRL_CLOSE_EVENT) return FALSE;
    SetEvent(g_stopFollowing);
    return TRUE;
}

// A record whose text is no alert document: said once, and the run goes on.
void ComplainNotXml(const ALERT_DB_ROW& row) {
    Complain("the alert created " + IsoUtcText(row.creationTime) + " (" + std::to_string(row.creationTime) +
             ") is not well-formed alert XML; see its text with: omk-alerts show " + std::to_string(row.creationTime));
}

bool OpenDatabase(ReadOnlyDatabase& database, const Options& options) {
    std::string problem;
    if (database.Open(Wide(options.db), &problem)) return true;
    Complain(problem + (options.db.empty() ? " (--db PATH reads another file)" : ""));
    return false;
}

bool ParseSince(const Options& options, unsigned long long* since) {
    *since = 0;
    if (options.since.empty() || ParseTime(options.since, since)) return true;
    Complain("--since " + options.since +
             " is no time; give it as 2024-05-01T12:00:00Z, 2024-05-01 or a FILETIME number");
    return false;
}

StoredAlert FromRow(const ALERT_DB_ROW& row) {
    StoredAlert stored;
    stored.id = row.id;
    stored.creationTime = row.creationTime;
    stored.storedUtc = row.storedUtc;
    return stored;
}

// Whether the text holds `needle` (ASCII letters compared without case).
bool ContainsNoCase(const char* text, size_t bytes, const std::string& needle) {
    for (size_t i = 0; needle.size() <= bytes && i <= bytes - needle.size(); ++i) {
        if (_strnicmp(text + i, needle.c_str(), needle.size()) == 0) return true;
    }
    return false;
}

}  // namespace

int ListCommand(const Options& options) {
    unsigned long long since = 0;
    if (!ParseSince(options, &since)) return kExitUsage;
    ReadOnlyDatabase database;
    if (!OpenDatabase(database, options)) return kExitNoDatabase;
    const std::string rule = options.rule.empty() ? std::string() : NormalGuid(options.rule);
    AlertParser parser;
    RuleNames names;
    unsigned int shown = 0;
    bool notXml = false;
    std::string problem;
    if (options.json) StdOut().Write("[");
    const bool read = ForEachRecord(ALERT_DB_NEWEST_FIRST, since, &problem, [&](const ALERT_DB_ROW& row) {
        StoredAlert stored = FromRow(row);
        if (!parser.Parse(row.xml, row.xmlBytes, &stored)) {
            ComplainNotXml(row);
            notXml = true;
            return true;
        }
        for (const AlertElement& alert : stored.alerts) {
            if (options.limit != 0 && shown == options.limit) return false;
            if (!rule.empty() && NormalGuid(alert.ruleGuid) != rule) continue;
            const std::string& name = names.Find(alert.ruleGuid);
            StdOut().Write(options.json ? std::string(shown == 0 ? "\r\n" : ",\r\n") + AlertJson(stored, alert, name)
                                        : ListLine(stored, alert, name));
            ++shown;
        }
        return true;
    });
    if (options.json) StdOut().Write(shown == 0 ? "]\r\n" : "\r\n]\r\n");
    if (!read) {
        Complain(problem);
        return kExitNoDatabase;
    }
    if (shown == 0 && !options.json) {
        Complain(database.Summary().count == 0 ? "no alert is stored" : "no stored alert matches");
    }
    return notXml ? kExitAttention : kExitOk;
}

int ShowCommand(const Options& options) {
    unsigned long long creationTime = 0;
    const bool byTime = ParseTime(options.what, &creationTime);
    const std::string alertId = NormalGuid(options.what);
    if (!byTime && alertId.size() != 38) {
        Complain(options.what + " is neither a creation time (2024-05-01T12:00:00Z, a FILETIME number) nor an AlertId");
        return kExitUsage;
    }
    ReadOnlyDatabase database;
    if (!OpenDatabase(database, options)) return kExitNoDatabase;
    AlertParser parser;
    RuleNames names;
    bool found = false, parsed = false;
    std::string problem;
    // Newest first from the time asked for (or from the newest, for an AlertId).
    const bool read =
        ForEachRecord(ALERT_DB_NEWEST_FIRST, byTime ? creationTime : 0, &problem, [&](const ALERT_DB_ROW& row) {
            // Newer records come first; for an AlertId its text is looked for before the record is parsed.
            if (byTime ? row.creationTime != creationTime
                       : !ContainsNoCase(row.xml, row.xmlBytes, alertId.substr(1, 36))) {
                return true;
            }
            StoredAlert stored = FromRow(row);
            parsed = parser.Parse(row.xml, row.xmlBytes, &stored);
            for (const AlertElement& alert : stored.alerts) found = found || NormalGuid(alert.alertId) == alertId;
            if (!byTime && !found) return true;
            found = true;
            if (parsed) {
                StdOut().Write(Details(stored, names));
            } else {
                StdOut().Write("Creation time  " + IsoUtcText(row.creationTime) + " (" + std::to_string(row.creationTime) +
                               ")\r\nStored         " + IsoUtcText(row.storedUtc) + "\r\n");
                Complain("its stored text is not well-formed alert XML");
            }
            StdOut().Write("Stored XML (" + std::to_string(row.xmlBytes) + " bytes):\r\n" +
                           std::string(row.xml, row.xmlBytes) +
                           (row.xmlBytes > 0 && row.xml[row.xmlBytes - 1] == '\n' ? "" : "\r\n"));
            return false;
        });
    if (!read) {
        Complain(problem);
        return kExitNoDatabase;
    }
    if (!found) {
        Complain(byTime ? "no stored alert was created at " + IsoUtcText(creationTime) + " (" +
                              std::to_string(creationTime) + ")"
                        : "no stored alert has the AlertId " + alertId);
    }
    return found && parsed ? kExitOk : kExitAttention;
}

int ExportCommand(const Options& options) {
    unsigned long long since = 0;
    if (!ParseSince(options, &since)) return kExitUsage;
    ReadOnlyDatabase database;
    if (!OpenDatabase(database, options)) return kExitNoDatabase;
    Output file(STD_OUTPUT_HANDLE);
    Output& out = options.output.empty() ? StdOut() : file;
    if (!options.output.empty() && !out.CreateFileOutput(Wide(options.output))) {
        Complain("cannot create " + options.output + " (error " + std::to_string(GetLastError()) + ")");
        return kExitNoDatabase;
    }
    const char format = options.format[0];  // j, c or x
    out.Write(format == 'j'   ? "["
              : format == 'c' ? CsvHeader()
                              : "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<StoredAlerts>\r\n");
    AlertParser parser;
    RuleNames names;
    unsigned long long records = 0;
    bool notXml = false;
    std::string problem;
    const bool read = ForEachRecord(ALERT_DB_NEWEST_FIRST, since, &problem, [&](const ALERT_DB_ROW& row) {
        StoredAlert stored = FromRow(row);
        // The XML form needs the document whole, not its fields.
        if (format == 'x' ? !parser.IsAlertDocument(row.xml, row.xmlBytes)
                          : !parser.Parse(row.xml, row.xmlBytes, &stored)) {
            ComplainNotXml(row);
            notXml = true;
            return true;
        }
        if (format == 'j') {
            out.Write((records == 0 ? "\r\n" : ",\r\n") + RecordJson(stored, names));
        } else if (format == 'c') {
            for (const AlertElement& alert : stored.alerts)
                out.Write(CsvRow(stored, alert, names.Find(alert.ruleGuid)));
        } else {
            out.Write(XmlRecord(stored, row.xml, row.xmlBytes));
        }
        ++records;
        return true;
    });
    out.Write(format == 'j' ? (records == 0 ? "]\r\n" : "\r\n]\r\n") : format == 'x' ? "</StoredAlerts>\r\n" : "");
    if (!out.Flush()) {
        Complain("writing " + (options.output.empty() ? std::string("the output") : options.output) + " failed");
        return kExitNoDatabase;
    }
    if (!read) {
        Complain(problem);
        return kExitNoDatabase;
    }
    if (!options.output.empty())
        Complain("exported " + std::to_string(records) + " stored alerts to " + options.output);
    return notXml ? kExitAttention : kExitOk;
}

int FollowCommand(const Options& options) {
    // A product that has stored nothing yet has no database: it is waited for.
    const std::wstring path = ReadOnlyDatabase::Resolve(Wide(options.db));
    ReadOnlyDatabase database;
    bool open = false;
    unsigned long long lastId = 0;
    if (GetFileAttributesW(path.c_str()) != INVALID_FILE_ATTRIBUTES) {
        if (!OpenDatabase(database, options)) return kExitNoDatabase;
        open = true;
        lastId = database.Summary().lastId;
    } else {
        Complain("no alert database at " + Utf8(path) + " yet: waiting for the first alert");
    }
    g_stopFollowing = CreateEventW(nullptr, TRUE, FALSE, nullptr);
    SetConsoleCtrlHandler(OnConsoleControl, TRUE);
    AlertParser parser;
    RuleNames names;
    HANDLE alertEvent = nullptr;
    unsigned int shown = 0;
    int result = kExitOk;
    Complain("following the alerts stored from now on; Ctrl+C ends");
    for (;;) {
        // Opened by name as any process may (synchronise access is all it
        // grants); absent while the service is stopped, so asked for again.
        if (alertEvent == nullptr) alertEvent = OpenEventW(SYNCHRONIZE, FALSE, OMK_ALERT_GENERATED_EVENT_NAME);
        const HANDLE handles[] = {g_stopFollowing, alertEvent};
        if (WaitForMultipleObjects(alertEvent != nullptr ? 2 : 1, handles, FALSE, kFollowPollMs) == WAIT_OBJECT_0)
            break;
        if (!open && GetFileAttributesW(path.c_str()) == INVALID_FILE_ATTRIBUTES) continue;
        if (!open && !OpenDatabase(database, options)) {
            result = kExitNoDatabase;
            break;
        }
        open = true;
        std::string problem;
        const bool read = ForEachRecord(ALERT_DB_STORED_AFTER, lastId, &problem, [&](const ALERT_DB_ROW& row) {
            lastId = row.id;
            StoredAlert stored = FromRow(row);
            if (!parser.Parse(row.xml, row.xmlBytes, &stored)) {
                ComplainNotXml(row);
                return true;
            }
            for (const AlertElement& alert : stored.alerts) {
                const std::string& name = names.Find(alert.ruleGuid);
                StdOut().Write(options.json ? AlertJson(stored, alert, name) + "\r\n" : ListLine(stored, alert, name));
                ++shown;
            }
            return options.limit == 0 || shown < options.limit;
        });
        if (!StdOut().Flush() || !read) {
            if (!read) Complain(problem);
            result = kExitNoDatabase;
            break;
        }
        if (options.limit != 0 && shown >= options.limit) break;
    }
    SetConsoleCtrlHandler(OnConsoleControl, FALSE);
    if (alertEvent != nullptr) CloseHandle(alertEvent);
    CloseHandle(g_stopFollowing);
    g_stopFollowing = nullptr;
    return result;
}

}  // namespace omkalerts
