// Another process of the product waiting for a stored alert:
//   alertEventWaiter <timeoutMs>
// Exit code 0 when the alert-generated event was signalled within the time,
// 1 on a time-out, 2 when the event cannot be opened, 3 on a bad argument.
#include <windows.h>

#include <stdlib.h>

int wmain(int argc, wchar_t** argv) {
    if (argc != 2) return 3;
    const DWORD timeoutMs = static_cast<DWORD>(_wtoi(argv[1]));
    HANDLE event = OpenEventW(SYNCHRONIZE, FALSE, L"Global\\{3F1C2A7E-5B44-4C19-9E0A-71D2B6C8E405}");
    if (event == nullptr) return 2;
    const DWORD waited = WaitForSingleObject(event, timeoutMs);
    CloseHandle(event);
    return waited == WAIT_OBJECT_0 ? 0 : 1;
}
