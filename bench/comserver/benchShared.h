// What the benchmark and its host share: the host's control events and a
// count of the items its engine thread has handled.
#pragma once

#include <windows.h>

#include <string>

namespace bench {

// Manual-reset events Local\<name>.<which>: "ready" (host serves), "release"
// (set whenever the engine may go on; reset before `hold` is raised) and "stop".
inline std::wstring EventName(const std::wstring& name, const wchar_t* which) {
    return L"Local\\" + name + L"." + which;
}

// Shared memory Local\<name>.stats.
struct Stats {
    volatile LONG handled;  // items the engine thread has handled
    volatile LONG hold;     // non-zero: the engine waits for "release" before the next item
};

}  // namespace bench
