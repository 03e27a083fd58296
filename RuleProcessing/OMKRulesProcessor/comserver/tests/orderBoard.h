// Shared memory in which concurrent clients note the order in which their
// calls returned, so that a test can check the order in which the engine
// handled them: a call that returned before another began must be handled first.
#pragma once

#include <windows.h>

#include <string>

#include "tolvane.h"

namespace orderboard {

constexpr LONG kMaxCalls = 8192;

struct Entry {
    LONG producer;
    LONG seq;
};

struct Board {
    volatile LONG completed;  // calls returned so far; the next call's ticket
    LONG reserved;
    Entry done[kMaxCalls];  // done[ticket]: which call returned as number `ticket`
};

// Notes that call (producer, seq) has returned.
inline void NoteReturned(Board* board, LONG producer, LONG seq) {
    LONG ticket = InterlockedIncrement(&board->completed) - 1;
    if (ticket < kMaxCalls) board->done[ticket] = Entry{producer, seq};
}

// The identity a call carries: plugin id "P<producer>", rule GUID "<seq>", and
// as the enclosing tag the number of calls that had returned when it began.
inline std::wstring PluginId(LONG producer) {
    return L"P" + std::to_wstring(producer);
}

// One producer: creates Tolvane out of process on its own thread, reports
// `calls` rule triggers in sequence, noting each return on the board.
inline HRESULT ProduceRuleTriggers(Board* board, LONG producer, int calls) {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) return hr;
    ITolvane* tolvane = nullptr;
    hr =
        CoCreateInstance(CLSID_Tolvane, nullptr, CLSCTX_LOCAL_SERVER, IID_ITolvane, reinterpret_cast<void**>(&tolvane));
    if (SUCCEEDED(hr)) {
        SAFEARRAY* names = SafeArrayCreateVector(VT_BSTR, 0, 1);
        SAFEARRAY* values = SafeArrayCreateVector(VT_BSTR, 0, 1);
        LONG index = 0;
        SafeArrayPutElement(names, &index, SysAllocString(L"producer"));
        BSTR plugin = SysAllocString(PluginId(producer).c_str());
        for (int seq = 0; seq < calls && SUCCEEDED(hr); ++seq) {
            BSTR guid = SysAllocString(std::to_wstring(seq).c_str());
            BSTR before = SysAllocString(std::to_wstring(board->completed).c_str());
            hr = tolvane->Tolvane_RuleTriggered(plugin, guid, before, names, values);
            if (SUCCEEDED(hr)) NoteReturned(board, producer, seq);
            SysFreeString(before);
            SysFreeString(guid);
        }
        SysFreeString(plugin);
        SafeArrayDestroy(values);
        SafeArrayDestroy(names);
        tolvane->Release();
    }
    CoUninitialize();
    return hr;
}

}  // namespace orderboard
