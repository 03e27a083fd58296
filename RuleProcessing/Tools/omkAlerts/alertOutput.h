// How omk-alerts writes: UTF-8 to a file or a pipe (a console gets the same
// text through its wide interface), and the forms a stored alert is shown in.
#pragma once

#include <windows.h>

#include <string>

#include "storedAlert.h"

namespace omkalerts {

// A buffered writer on standard output, standard error or a file it made.
class Output {
public:
    explicit Output(DWORD standardHandle);
    ~Output();
    Output(const Output&) = delete;
    Output& operator=(const Output&) = delete;

    // Writes into a new file at `path` from here on (replacing one that exists).
    bool CreateFileOutput(const std::wstring& path);
    void Write(const std::string& utf8);
    // Writes what is buffered; false once any write has failed.
    bool Flush();

private:
    HANDLE handle_;
    bool owned_ = false;
    bool console_ = false;
    bool failed_ = false;
    std::string buffer_;
};

Output& StdOut();
Output& StdErr();
// "omk-alerts: <message>" on standard error, written at once.
void Complain(const std::string& message);

// "YYYY-MM-DDThh:mm:ssZ  rule name {GUID}  type  message  items in short".
std::string ListLine(const StoredAlert& stored, const AlertElement& alert, const std::string& ruleName);
// The fields of a record and its alerts, for a person to read.
std::string Details(const StoredAlert& stored, RuleNames& names);

// JSON texts (one line each): a record with its "alerts" array, and one alert
// with the record's times and service tag beside its own fields.
std::string RecordJson(const StoredAlert& stored, RuleNames& names);
std::string AlertJson(const StoredAlert& stored, const AlertElement& alert, const std::string& ruleName);

// CSV (RFC 4180, CR LF): the header row, and one row per alert element.
std::string CsvHeader();
std::string CsvRow(const StoredAlert& stored, const AlertElement& alert, const std::string& ruleName);

// The stored document inside a <StoredAlert> element carrying the record's
// times, without its XML declaration, so that records follow one another
// inside one root.
std::string XmlRecord(const StoredAlert& stored, const char* xml, size_t bytes);

}  // namespace omkalerts
