// The alert database as omk-alerts reads it: through omkDb.dll's read-only
// open only, so nothing is ever written to it or beside it.
#pragma once

#include <windows.h>

#include <string>

#include "omkDb.h"

namespace omkalerts {

class ReadOnlyDatabase {
public:
    ReadOnlyDatabase();
    ~ReadOnlyDatabase();  // closes what it opened and stops the library
    ReadOnlyDatabase(const ReadOnlyDatabase&) = delete;
    ReadOnlyDatabase& operator=(const ReadOnlyDatabase&) = delete;

    // The file `path` names, or the product's own database when it is empty
    // (found as omkDb.dll finds it).
    static std::wstring Resolve(const std::wstring& path);

    // Opens the file and reads its summary. False with `problem` set to a
    // sentence for a person: no such file, an empty or foreign file, a corrupt
    // one, one locked by another program.
    bool Open(const std::wstring& path, std::string* problem);

    const ALERT_DB_SUMMARY& Summary() const { return summary_; }

private:
    bool opened_ = false;
    ALERT_DB_SUMMARY summary_ = {};
};

// The text of the last failure omkDb.dll reported on this thread, without the
// name of its function.
std::string LastDatabaseError();

// Walks a cursor: `visit` gets each record (false stops the walk). False when
// the cursor cannot be opened or a read fails, with `problem` set.
template <typename Visit>
bool ForEachRecord(int order, unsigned long long from, std::string* problem, Visit visit) {
    ALERT_DB_CURSOR* cursor = nullptr;
    if (!AlertDb_OpenCursor(order, from, &cursor)) {
        *problem = LastDatabaseError();
        return false;
    }
    ALERT_DB_ROW row;
    int read = 0;
    while ((read = AlertDb_NextRecord(cursor, &row)) > 0 && visit(row)) {}
    AlertDb_CloseCursor(cursor);
    if (read < 0) *problem = LastDatabaseError();
    return read >= 0;
}

}  // namespace omkalerts
