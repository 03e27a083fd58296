// omk-alerts run as an operator runs it: on bad database files, then on what
// the installed service stores.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "installedService.h"
#include "sqlite3.h"
#include "systemIdentity.h"
#include "testPlugins.h"
#include "xmlAccess.h"

namespace {

using Json = nlohmann::json;
using omktest::Contains;

// omk-alerts started with its output in files.
struct Tool : omktest::Child {
    explicit Tool(const std::wstring& arguments)
        : Child(L"\"" + omktest::ProgramFolder() + L"\\omk-alerts.exe\" " + arguments) {}
};

// Every file of a folder with its bytes.
std::vector<std::pair<std::wstring, std::string>> Snapshot(const std::wstring& folder) {
    std::vector<std::pair<std::wstring, std::string>> files;
    for (const auto& name : omktest::FilesMatching(folder + L"\\*"))
        files.emplace_back(name, omktest::ReadFileBytes(folder + L"\\" + name));
    return files;
}

// A database of the product's layout, in WAL mode, with `sql` run after the table is made.
sqlite3* MakeDatabase(const std::wstring& path, const char* sql) {
    sqlite3* db = nullptr;
    sqlite3_open(omktest::ToUtf8(path).c_str(), &db);
    std::string all =
        "PRAGMA journal_mode=WAL; CREATE TABLE alerts(id INTEGER PRIMARY KEY, creation_time INTEGER NOT NULL UNIQUE, "
        "xml TEXT NOT NULL, stored_utc INTEGER NOT NULL);";
    all += sql;
    EXPECT_EQ(SQLITE_OK, sqlite3_exec(db, all.c_str(), nullptr, nullptr, nullptr)) << sqlite3_errmsg(db);
    return db;
}

// Whatever is wrong with the file, each command says so in a sentence, exits
// with its code and changes nothing in the folder.
TEST(OmkAlertsTool, BadDatabasesGetAClearMessageAndAnExitCodeAndAreNeverWritten) {
    omktest::TempFolder folder;
    // A stored text that is no XML, created after a well-formed one.
    const std::string records =
        "INSERT INTO alerts VALUES(1, 133590250000000000, 'caf\xC3\xA9 & <', 1), (2, 133590240000000000, '<?xml "
        "version=\"1.0\"?><TolvaneAlerts><ServiceTag>T</ServiceTag><Alert><AlertId>{A}</AlertId></Alert>"
        "</TolvaneAlerts>', 2);";
    sqlite3_close(MakeDatabase(folder.File(L"notxml.db"), records.c_str()));
    omktest::WriteFileBytes(folder.File(L"empty.db"), "");
    omktest::WriteFileBytes(folder.File(L"corrupt.db"), std::string(8192, '#'));
    // A writer that keeps the file locked while the tool runs.
    sqlite3* writer = MakeDatabase(folder.File(L"held.db"),
                                   "PRAGMA locking_mode=EXCLUSIVE; BEGIN EXCLUSIVE; "
                                   "INSERT INTO alerts VALUES(1, 1, 'x', 1);");
    const struct {
        const wchar_t* arguments;  // the database file follows
        DWORD exitCode;
        const char* message;
    } cases[] = {
        {L"list --db ", 3, "there is no alert database at "},
        {L"list --db empty.db", 3, "empty.db holds no alerts table (an empty file, or not an alert database)"},
        {L"export --format json --db corrupt.db", 3, "cannot read the alert database: opening "},
        {L"doctor --db corrupt.db", 1, "(file is not a database)"},
        {L"list --db held.db", 3, "failed 5 (database is locked)"},
        {L"list --db notxml.db", 1, "the alert created 2024-05-01T08:16:40Z (133590250000000000) is not well-formed"},
        {L"export --format xml --db notxml.db", 1, "; see its text with: omk-alerts show 133590250000000000"},
        {L"show 133590250000000000 --db notxml.db", 1, "its stored text is not well-formed alert XML"},
        {L"show 2024-05-01T08:00:01Z --db notxml.db", 1, "no stored alert was created at 2024-05-01T08:00:01Z"},
        {L"list --since 2024 --db notxml.db", 2, "--since 2024 is no time"},
        {L"show yesterday --db notxml.db", 2, "yesterday is neither a creation time"},
    };
    const auto before = Snapshot(folder.Path());
    for (const auto& c : cases) {
        std::wstring arguments = c.arguments;
        const size_t at = arguments.find(L"--db ") + 5;
        arguments.insert(at, L"\"" + folder.Path() + L"\\");
        arguments += at == arguments.size() ? L"missing.db\"" : L"\"";
        Tool tool(arguments);
        EXPECT_EQ(c.exitCode, tool.Wait()) << omktest::ToUtf8(arguments);
        EXPECT_TRUE(Contains(tool.Err() + tool.Out(), c.message)) << omktest::ToUtf8(arguments) << "\n" << tool.Err();
    }
    EXPECT_TRUE(before == Snapshot(folder.Path())) << "a file was changed or made";
    sqlite3_exec(writer, "COMMIT", nullptr, nullptr, nullptr);
    sqlite3_close(writer);
}

// The product installed in a folder of its own, its service running; the
// service keeps its data in its own %ProgramData% (C:\users\Public under Wine).
class InstalledProduct : public ::testing::Test {
protected:
    static void SetUpTestSuite() {
        ASSERT_TRUE(omktest::InstallTestRoot());
        svctest::RunInstaller(L"uninstall", kInstall);
        ASSERT_EQ(0u, svctest::RunInstaller(L"install", kInstall));
    }
    static void TearDownTestSuite() { svctest::RunInstaller(L"uninstall", kInstall); }

    void TearDown() override { service_.StopAndWait(); }

    static const std::wstring kInstall;
    const std::wstring data_ = svctest::ProductDataRoots()[0];
    const std::wstring db_ = L" --db \"" + data_ + L"\\Data\\omkAlerts.db\"";
    svctest::InstalledService service_;
};

const std::wstring InstalledProduct::kInstall = L"C:\\omkalerts";

// The alert file the service wrote with `value` in it, or "".
std::wstring AlertFileWith(const std::wstring& archive, const std::string& value) {
    for (const auto& name : omktest::FilesMatching(archive + L"\\*-ZORA_Alerts_*.xml")) {
        if (Contains(omktest::ReadFileBytes(archive + L"\\" + name), value)) return name;
    }
    return L"";
}

// Follow sees the alert a collector raises after it started; list and every
// export format show it with its fields; doctor finds the file that a value
// with "&" kept out of the database.
TEST_F(InstalledProduct, FollowListExportAndDoctorShowWhatTheServiceStored) {
    // The package started the service.
    ASSERT_TRUE(service_.WaitForState(SERVICE_RUNNING));
    // Creation times are whole seconds.
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const std::wstring since = std::to_wstring(((static_cast<ULONGLONG>(now.dwHighDateTime) << 32 | now.dwLowDateTime) /
                                                10000000) * 10000000);

    Tool follow(L"follow --json --count 1" + db_);
    ASSERT_TRUE(omktest::WaitFor([&] { return Contains(follow.Err(), "following the alerts"); }, 30000))
        << follow.Err();
    const std::wstring send =
        L"\"" + omktest::ProgramFolder() + L"\\tolvane-send.exe\" rule --plugin OMKCollectorRules ";
    EXPECT_EQ(0u, omktest::RunProcess(send + L"--guid " + svctest::kBatteryRuleGuid +
                                      L" --tag Battery DesignCapacity=52000 FullChargeCapacity=29120"));
    EXPECT_EQ(0u, omktest::RunProcess(send + L"--guid {0C4E8A21-5F6B-4D7C-8E9F-1A2B3C4D5E62} Vendor=AT&T"));
    ASSERT_TRUE(omktest::WaitFor([&] { return Contains(follow.Out(), "52000"); }, 30000)) << follow.Err();
    const std::wstring archive = data_ + L"\\Archive";
    ASSERT_TRUE(omktest::WaitFor([&] { return !AlertFileWith(archive, "AT&T").empty(); }, 30000));
    const std::wstring unstored = AlertFileWith(archive, "AT&T");
    struct RemoveAtEnd {  // so that a later run finds only its own
        std::wstring path;
        ~RemoveAtEnd() { DeleteFileW(path.c_str()); }
    } remove{archive + L"\\" + unstored};
    EXPECT_EQ(0u, follow.Wait(10000)) << "it ends after its one alert";

    // The same alert as follow, list and the JSON export show it.
    Tool list(L"list --json --since " + since + db_);
    ASSERT_EQ(0u, list.Wait()) << list.Err();
    const Json listed = Json::parse(list.Out());
    ASSERT_EQ(1u, listed.size()) << list.Out();
    const Json& alert = listed[0];
    EXPECT_EQ(Json::parse(follow.Out()), alert);
    Json fixed = alert;
    for (const char* varies : {"alertId", "creationTime", "storedUtc", "dateTime"}) fixed.erase(varies);
    EXPECT_EQ(Json({{"serviceTag", GetServiceTag()}, {"ruleName", "Battery capacity degraded"},
                    {"ruleGuid", omktest::ToUtf8(svctest::kBatteryRuleGuid)}, {"ruleType", "OMKCollectorRules"},
                    {"message", "Battery capacity is degraded; plan a battery replacement."}, {"itemsTag", "Battery"},
                    {"items", Json::parse(R"([{"name":"DesignCapacity","value":"52000"},
                                              {"name":"FullChargeCapacity","value":"29120"}])")}}),
              fixed);
    EXPECT_EQ(38u, alert["alertId"].get<std::string>().size());
    const std::string alertId = alert["alertId"];

    const std::wstring export_ = L"export --since " + since + db_ + L" --format ";
    Tool json(export_ + L"json");
    ASSERT_EQ(0u, json.Wait()) << json.Err();
    const Json records = Json::parse(json.Out());
    ASSERT_EQ(1u, records.size());
    for (const char* field : {"creationTime", "storedUtc", "serviceTag"}) EXPECT_EQ(alert[field], records[0][field]);
    for (const char* field : {"alertId", "ruleGuid", "ruleType", "dateTime", "message", "items"})
        EXPECT_EQ(alert[field], records[0]["alerts"][0][field]) << field;
    Tool csv(export_ + L"csv");
    ASSERT_EQ(0u, csv.Wait()) << csv.Err();
    EXPECT_TRUE(Contains(csv.Out(), alertId + ",Battery capacity degraded,")) << csv.Out();
    EXPECT_TRUE(Contains(csv.Out(), ",Battery,\"DesignCapacity=52000\nFullChargeCapacity=29120\"\r\n")) << csv.Out();
    Tool xml(export_ + L"xml");
    ASSERT_EQ(0u, xml.Wait()) << xml.Err();
    IXMLDOMDocument* document = LoadXML(omktest::FromUtf8(xml.Out()).c_str());
    ASSERT_NE(nullptr, document) << xml.Out();
    unsigned int count = 0;
    GetNumInstancesInXml(document, L"/StoredAlerts/StoredAlert/TolvaneAlerts/Alert/Battery/FullChargeCapacity", &count);
    EXPECT_EQ(1u, count) << xml.Out();
    ReleaseXML(document);
    CoUninitialize();

    Tool doctor(L"doctor --data \"" + data_ + L"\"");
    EXPECT_EQ(1u, doctor.Wait()) << doctor.Out();
    const std::string report = doctor.Out();
    for (const std::string& line : std::vector<std::string>{
             "  Service OMKRulesProcessor is running (process " + std::to_string(service_.ProcessId()) + ")",
             std::string("    integrity_check: ok"),
             "!   " + omktest::ToUtf8(unstored) +
                 ": not well-formed XML (a value with \"&\" or \"<\" is written as it is)",
             "      inspect it with: type \"" + omktest::ToUtf8(archive + L"\\" + unstored) + "\"",
             "    RulePlugin\\OMKCollectorRules: " + omktest::ToUtf8(kInstall) + "\\omkCollectorRules.dll, version ",
             std::string(" attention (the lines marked !)")}) {
        EXPECT_TRUE(Contains(report, line)) << line << "\n" << report;
    }
}

}  // namespace
