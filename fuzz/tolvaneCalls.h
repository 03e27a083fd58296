// Random ITolvane calls for the collector campaigns: one of the three methods,
// with strings that are null, known to the service or hostile (huge, format
// characters, markup, lone surrogates, zero characters), and arrays of every
// element type, dimension, lower bound and size. The same (seed, index) makes
// the same call, over COM or on the object itself.
#pragma once

#include <windows.h>

#include <stdint.h>

#include "tolvane.h"

namespace omkfuzz {

struct TolvaneCall {
    HRESULT result = S_OK;
    HRESULT expected = S_OK;  // what the design answers for these arguments
    bool queued = false;      // the design queues an event for them
    size_t queuedBytes = 0;   // what the service holds for that event (QueuedRuleBytes)
};

// Makes call `index` of a campaign with `seed` on `tolvane`.
TolvaneCall MakeCall(ITolvane* tolvane, uint64_t seed, uint64_t index);

// The call failed because the server process is gone.
bool IsGone(HRESULT hr);

}  // namespace omkfuzz
