// tolvane-send: reports collector events to the rules processor through
// ITolvane, the way a collector does. See Usage() below.
#include <windows.h>

#include <oleauto.h>
#include <stdio.h>
#include <wchar.h>

#include <string>
#include <vector>

#include "comErrorMessage.h"
#include "eventsFile.h"
#include "tolvane.h"

namespace {

int Usage(FILE* out) {
    fwprintf(out,
             L"usage:\n"
             L"  tolvane-send summary\n"
             L"      a summary file has been created\n"
             L"  tolvane-send rule --plugin ID --guid GUID [--tag TAG] [NAME=VALUE ...]\n"
             L"      rule plugin ID found rule GUID triggered, with data items enclosed in <TAG>\n"
             L"  tolvane-send periodic --code N --subcode N [--time N] [--hex HEX | --file PATH]\n"
             L"      a periodic data record (time stamp defaults to now, as a FILETIME number)\n"
             L"  tolvane-send --events EVENTS.jsonl\n"
             L"      every event of an events file (one JSON object per line, as omk-rules replay reads)\n"
             L"  tolvane-send --help\n"
             L"\n"
             L"Prints each call's HRESULT with its text; exits 0 on success, 1 on failure (or a bad line of\n"
             L"an events file, which is reported and skipped), 2 on a bad command line or an unreadable file.\n");
    return out == stdout ? 0 : 2;
}

bool ParseNumber(const wchar_t* text, long long* value) {
    wchar_t* end = nullptr;
    *value = _wcstoi64(text, &end, 0);
    return end != text && *end == L'\0';
}

bool ReadWholeFile(const wchar_t* path, std::vector<unsigned char>* bytes) {
    HANDLE file = CreateFileW(path, GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
    if (file == INVALID_HANDLE_VALUE) return false;
    unsigned char chunk[65536];
    DWORD read = 0;
    while (ReadFile(file, chunk, sizeof(chunk), &read, nullptr) && read > 0) bytes->insert(bytes->end(), chunk, chunk + read);
    CloseHandle(file);
    return true;
}

long long Now() {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    return static_cast<long long>((static_cast<ULONGLONG>(now.dwHighDateTime) << 32) | now.dwLowDateTime);
}

int Report(HRESULT hr) {
    wprintf(L"HRESULT 0x%08lX (%ls)\n", static_cast<unsigned long>(hr), ComErrorMessage(hr).Text());
    return SUCCEEDED(hr) ? 0 : 1;
}

// The event the command line describes; false for a bad command line.
bool ParseCommandLine(int argc, wchar_t** argv, COLLECTOR_EVENT* event) {
    const std::wstring command = argv[1];
    bool haveCode = false, haveSubCode = false, havePlugin = false, haveGuid = false;
    event->kind = command == L"rule" ? COLLECTOR_EVENT::RULE
                                     : command == L"periodic" ? COLLECTOR_EVENT::PERIODIC : COLLECTOR_EVENT::SUMMARY;
    for (int i = 2; i < argc; ++i) {
        const std::wstring arg = argv[i];
        const wchar_t* next = i + 1 < argc ? argv[i + 1] : nullptr;
        long long number = 0;
        bool ok = next != nullptr;
        if (event->kind == COLLECTOR_EVENT::RULE && ok && arg == L"--plugin") {
            event->plugin = next;
            havePlugin = true;
        } else if (event->kind == COLLECTOR_EVENT::RULE && ok && arg == L"--guid") {
            event->guid = next;
            haveGuid = true;
        } else if (event->kind == COLLECTOR_EVENT::RULE && ok && arg == L"--tag") {
            event->tag = next;
            event->hasTag = true;
        } else if (event->kind == COLLECTOR_EVENT::RULE && arg.find(L'=') != std::wstring::npos &&
                   arg.find(L'=') > 0) {
            event->hasItems = true;
            event->items.emplace_back(arg.substr(0, arg.find(L'=')), arg.substr(arg.find(L'=') + 1));
            continue;
        } else if (event->kind == COLLECTOR_EVENT::PERIODIC && ok && arg == L"--code") {
            ok = haveCode = ParseNumber(next, &number);
            event->code = static_cast<int>(number);
        } else if (event->kind == COLLECTOR_EVENT::PERIODIC && ok && arg == L"--subcode") {
            ok = haveSubCode = ParseNumber(next, &number);
            event->subCode = static_cast<int>(number);
        } else if (event->kind == COLLECTOR_EVENT::PERIODIC && ok && arg == L"--time") {
            ok = event->hasTime = ParseNumber(next, &event->time);
        } else if (event->kind == COLLECTOR_EVENT::PERIODIC && ok && arg == L"--hex") {
            ok = ParseHexBytes(next, &event->bytes);
        } else if (event->kind == COLLECTOR_EVENT::PERIODIC && ok && arg == L"--file") {
            ok = ReadWholeFile(next, &event->bytes);
        } else {
            ok = false;
        }
        if (!ok) return false;
        ++i;
    }
    if (event->kind == COLLECTOR_EVENT::RULE) return havePlugin && haveGuid;
    if (event->kind == COLLECTOR_EVENT::PERIODIC) return haveCode && haveSubCode;
    return argc == 2;
}

// Sends every event of the file; bad lines are reported and skipped.
int SendEventsFile(ITolvane* tolvane, const std::vector<EVENTS_FILE_LINE>& lines) {
    int status = 0;
    for (const EVENTS_FILE_LINE& line : lines) {
        if (!line.ok) {
            fwprintf(stderr, L"line %d: %ls\n", line.number, Wide(line.error).c_str());
            status = 1;
            continue;
        }
        wprintf(L"line %d: ", line.number);
        if (Report(SendCollectorEvent(tolvane, line.event, Now())) != 0) status = 1;
    }
    return status;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    if (argc < 2) return Usage(stderr);
    const std::wstring command = argv[1];
    if (command == L"--help" || command == L"-h" || command == L"/?") return Usage(stdout);
    COLLECTOR_EVENT event;
    std::vector<EVENTS_FILE_LINE> lines;
    if (command == L"--events") {
        std::string error;
        if (argc != 3) return Usage(stderr);
        if (!ReadEventsFile(argv[2], &lines, &error)) {
            fwprintf(stderr, L"tolvane-send: %ls\n", Wide(error).c_str());
            return 2;
        }
    } else if ((command != L"summary" && command != L"rule" && command != L"periodic") ||
               !ParseCommandLine(argc, argv, &event)) {
        return Usage(stderr);
    }

    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) return Report(hr);
    ITolvane* tolvane = nullptr;
    // A stopped service is started by this call (the class is served by it).
    hr = CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane, reinterpret_cast<void**>(&tolvane));
    int status = 0;
    if (SUCCEEDED(hr)) {
        status = command == L"--events" ? SendEventsFile(tolvane, lines)
                                        : Report(SendCollectorEvent(tolvane, event, Now()));
        tolvane->Release();
    } else {
        fwprintf(stderr, L"tolvane-send: the rules processor could not be reached\n");
        status = Report(hr);
    }
    CoUninitialize();
    return status;
}
