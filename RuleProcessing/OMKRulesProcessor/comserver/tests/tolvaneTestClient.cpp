// tolvaneTestClient: a collector process for the concurrency tests.
//
//   tolvaneTestClient <board name> <first producer> <threads> <calls per thread>
//
// Each thread creates Tolvane out of process and reports rule triggers whose
// arguments say who sent them and what had returned before (see orderBoard.h).
// Exit code 0 when every call answered S_OK, else the first failure.
#include <windows.h>

#include <thread>
#include <vector>

#include "orderBoard.h"

int wmain(int argc, wchar_t** argv) {
    if (argc != 5) return 87;
    HANDLE mapping = OpenFileMappingW(FILE_MAP_WRITE, FALSE, argv[1]);
    if (mapping == nullptr) return 2;
    auto* board = static_cast<orderboard::Board*>(MapViewOfFile(mapping, FILE_MAP_WRITE, 0, 0, 0));
    if (board == nullptr) return 3;
    const LONG first = _wtoi(argv[2]);
    const int threads = _wtoi(argv[3]);
    const int calls = _wtoi(argv[4]);
    std::vector<HRESULT> results(threads, S_OK);
    std::vector<std::thread> producers;
    for (int t = 0; t < threads; ++t) {
        producers.emplace_back([&, t] { results[t] = orderboard::ProduceRuleTriggers(board, first + t, calls); });
    }
    for (std::thread& producer : producers) producer.join();
    for (HRESULT hr : results) {
        if (FAILED(hr)) return static_cast<int>(hr);
    }
    return 0;
}
