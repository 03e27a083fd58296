// Alert databases read back: mutated or truncated database files (and their
// WAL) put where the product keeps its database, then stores made through
// omkDb.dll as the engine makes them (open, look up, store and trim, close,
// open for the trim, trim, close). An input is a 4-byte little-endian length,
// the database file's bytes, then the WAL's bytes (none: no WAL).
// The design's promises: no crash; a database that SQLite finds intact keeps
// every alert it held; a corrupt one is set aside and a new one started, so a
// failed store is followed by a working one, and the file left is intact.
#include <windows.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cdef.h"
#include "fuzzMutate.h"
#include "fuzzRunner.h"
#include "omkDb.h"
#include "sqlite3.h"
#include "testSupport.h"

namespace {

using Alerts = std::map<long long, std::string>;

constexpr long long kFirstTime = 132000000000000000ll;

struct Files {
    std::string db;
    std::string wal;
};

std::string Pack(const Files& files) {
    const unsigned size = static_cast<unsigned>(files.db.size());
    std::string blob(4, '\0');
    for (int i = 0; i < 4; ++i) blob[i] = static_cast<char>((size >> (8 * i)) & 0xFF);
    return blob + files.db + files.wal;
}

Files Unpack(const std::string& blob) {
    if (blob.size() < 4) return {blob, std::string()};
    size_t size = 0;
    for (int i = 3; i >= 0; --i) size = (size << 8) | static_cast<unsigned char>(blob[i]);
    size = std::min(size, blob.size() - 4);
    return {blob.substr(4, size), blob.substr(4 + size)};
}

void PutFiles(const std::wstring& path, const Files& files) {
    DeleteFileW((path + L"-shm").c_str());
    DeleteFileW((path + L"-wal").c_str());
    omktest::WriteFileBytes(path, files.db);
    if (!files.wal.empty()) omktest::WriteFileBytes(path + L"-wal", files.wal);
}

// The alerts of a database file as SQLite itself reads them, when
// integrity_check finds the file intact; false otherwise.
bool ReadIntact(const std::wstring& path, Alerts* alerts) {
    sqlite3* db = nullptr;
    bool intact = sqlite3_open_v2(omktest::ToUtf8(path).c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) == SQLITE_OK;
    std::string check;
    auto first = [](void* out, int, char** values, char**) {
        *static_cast<std::string*>(out) += values[0] != nullptr ? values[0] : "NULL";
        return 0;
    };
    intact = intact && sqlite3_exec(db, "PRAGMA integrity_check", first, &check, nullptr) == SQLITE_OK && check == "ok";
    sqlite3_stmt* select = nullptr;
    intact = intact && sqlite3_prepare_v2(db, "SELECT creation_time, xml FROM alerts", -1, &select, nullptr) == SQLITE_OK;
    int rc = SQLITE_DONE;
    while (intact && (rc = sqlite3_step(select)) == SQLITE_ROW) {
        const char* xml = reinterpret_cast<const char*>(sqlite3_column_text(select, 1));
        (*alerts)[sqlite3_column_int64(select, 0)] = xml != nullptr ? xml : "";
    }
    sqlite3_finalize(select);
    sqlite3_close(db);
    return intact && rc == SQLITE_DONE;
}

// A database of a known layout, made with SQLite directly: the current layout
// (checkpointed, or with commits still in its WAL, or with overflow pages), the
// first layout, or an empty file.
Files MakeBase(const std::wstring& folder, int kind) {
    const std::wstring path = folder + L"\\base.db";
    PutFiles(path, Files());
    DeleteFileW(path.c_str());
    if (kind == 4) return Files();
    sqlite3_test_control(SQLITE_TESTCTRL_PRNG_SEED, 1, nullptr);
    sqlite3* db = nullptr;
    sqlite3_open(omktest::ToUtf8(path).c_str(), &db);
    const bool first = kind == 3;
    sqlite3_exec(db, first ? "CREATE TABLE alerts(creation_time INTEGER PRIMARY KEY, xml TEXT NOT NULL, stored_utc INTEGER NOT NULL)"
                           : "PRAGMA journal_mode=WAL; CREATE TABLE alerts(id INTEGER PRIMARY KEY, creation_time INTEGER "
                             "NOT NULL UNIQUE, xml TEXT NOT NULL, stored_utc INTEGER NOT NULL)",
                 nullptr, nullptr, nullptr);
    if (kind != 1) sqlite3_exec(db, "BEGIN", nullptr, nullptr, nullptr);
    for (int i = 0; i < 24; ++i) {
        std::string xml = "<TolvaneAlerts><Alert><Message>alert " + std::to_string(i) + "</Message>" +
                          std::string(kind == 2 ? 6000 : 40, static_cast<char>('a' + i)) + "</Alert></TolvaneAlerts>";
        std::string sql = "INSERT INTO alerts(creation_time, xml, stored_utc) VALUES(" +
                          std::to_string(kFirstTime + i * 10000000ll) + ", '" + xml + "', " +
                          std::to_string(kFirstTime + i) + ")";
        sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr);
    }
    if (kind != 1) sqlite3_exec(db, "COMMIT", nullptr, nullptr, nullptr);
    Files files;
    if (kind == 1) {  // as a killed writer leaves it: the commits only in the WAL
        files = {omktest::ReadFileBytes(path), omktest::ReadFileBytes(path + L"-wal")};
        sqlite3_close(db);
    } else {
        sqlite3_close(db);
        files = {omktest::ReadFileBytes(path), std::string()};
    }
    PutFiles(path, Files());
    DeleteFileW(path.c_str());
    return files;
}

void MutateFiles(omkfuzz::Random& random, Files& files, const Files& other) {
    std::string& target = random.OneIn(4) && !files.wal.empty() ? files.wal : files.db;
    const size_t page = 4096;
    switch (random.Below(8)) {
        case 0:  // truncated anywhere, or at a page
            target.resize(random.OneIn(2) ? random.Below(target.size() + 1) : page * random.Below(target.size() / page + 1));
            break;
        case 1:  // the header's fields
            if (target.size() >= 100) target[random.Below(100)] = static_cast<char>(random.Next());
            break;
        case 2: {  // a page zeroed or filled at random
            if (target.size() < page) break;
            size_t at = page * random.Below(target.size() / page);
            for (size_t i = 0; i < page; ++i) target[at + i] = random.OneIn(2) ? '\0' : static_cast<char>(random.Next());
            break;
        }
        case 3: {  // one page copied over another
            if (target.size() < 2 * page) break;
            size_t pages = target.size() / page;
            target.replace(page * random.Below(pages), page, target.substr(page * random.Below(pages), page));
            break;
        }
        case 4:
            files.wal = random.OneIn(2) ? std::string() : other.wal;
            break;
        default:
            for (size_t n = 1 + random.Size(16); n > 0; --n) omkfuzz::MutateBytes(random, target, other.db);
            break;
    }
}

class AlertDatabase : public omkfuzz::Subject {
public:
    const char* Title() const override { return "alert databases"; }
    const wchar_t* Extension() const override { return L"db"; }
    bool CountsAllocations() const override { return false; }
    std::string Outcome() const override { return outcome_; }

    std::string Generate(uint64_t seed, uint64_t index, const std::vector<std::string>& corpus) override {
        if (bases_.empty()) {
            omktest::TempFolder folder;
            for (int kind = 0; kind < 5; ++kind) bases_.push_back(MakeBase(folder.Path(), kind));
        }
        omkfuzz::Random random = omkfuzz::InputRandom(seed, index);
        Files files = !corpus.empty() && random.OneIn(4) ? Unpack(random.Pick(corpus)) : random.Pick(bases_);
        const Files& other = random.Pick(bases_);
        for (size_t n = 1 + random.Size(3); n > 0; --n) MutateFiles(random, files, other);
        return Pack(files);
    }

    void Prepare() override {
        InitSqliteLib();  // makes CDef find (and make) the data folder
        FreeSqliteLib();
        folder_ = CDef::GetInstance().FOLDER_OMK_DATABASE;
        path_ = folder_ + L"\\omkAlerts.db";
        classify_ = std::make_unique<omktest::TempFolder>();
    }

    std::string Run(const std::string& input, long long*) override {
        const Files files = Unpack(input);
        Alerts held;
        const std::wstring copy = classify_->File(L"omkAlerts.db");
        PutFiles(copy, files);
        const bool intact = ReadIntact(copy, &held);
        omktest::RemoveTree(folder_);
        CreateDirectoryW(folder_.c_str(), nullptr);
        PutFiles(path_, files);

        InitSqliteLib();
        // A reader first: whatever the file holds, no crash.
        if (AlertDb_OpenReadOnly(nullptr)) {
            ALERT_DB_RECORD* record = nullptr;
            AlertDb_ReadByCreationTimeW(kFirstTime, &record);
            free(record);
            AlertDb_CloseReadOnly();
        }
        bool stored[3];
        Alerts made;
        for (bool& ok : stored) {
            const long long time = kFirstTime + 1000000000000ll + 10000000ll * static_cast<long long>(next_++);
            const std::string xml = "<TolvaneAlerts><Alert>" + std::to_string(time) + "</Alert></TolvaneAlerts>";
            ok = Store(time, xml);
            if (!ok) made.clear();  // a set-aside after this failure starts the database anew
            if (ok) made[time] = xml;
        }
        FreeSqliteLib();

        outcome_ = intact ? "intact" : "damaged";
        std::string broken;
        if (!stored[2] || (!stored[0] && !stored[1])) broken = "the stores did not recover";
        if (intact && !(stored[0] && stored[1] && stored[2])) broken += "; a store into an intact database failed";
        Alerts after;
        if (!ReadIntact(path_, &after)) {
            broken += "; the database left is not intact";
        } else {
            if (intact) made.insert(held.begin(), held.end());
            for (const auto& alert : made) {
                auto found = after.find(alert.first);
                if (found == after.end() || found->second != alert.second) {
                    broken += "; alert " + std::to_string(alert.first) + " is lost";
                    break;
                }
            }
        }
        return broken;
    }

private:
    // One alert stored as the engine stores it: AddToAlertDb's database steps.
    static bool Store(long long time, const std::string& xml) {
        if (!AlertDb_Open(1, 1)) return false;
        ALERT_DB_RECORD* record = nullptr;
        bool ok = AlertDb_ReadByCreationTimeW(static_cast<unsigned long long>(time), &record) ||
                  AlertDb_WriteAndTrim(static_cast<unsigned long long>(time), xml.c_str(), 1000);
        free(record);
        AlertDb_Close(1);
        if (AlertDb_Open(0, 0)) {
            AlertDb_DeleteOldestRecords(1000);
            AlertDb_Close(0);
        }
        return ok;
    }

    std::string outcome_;
    std::vector<Files> bases_;
    std::wstring folder_;
    std::wstring path_;
    std::unique_ptr<omktest::TempFolder> classify_;
    unsigned long long next_ = 0;
};

}  // namespace

int wmain(int argc, wchar_t** argv) {
    AlertDatabase subject;
    return omkfuzz::CampaignMain(subject, argc, argv);
}
