#include "tolvaneCalls.h"

#include <algorithm>
#include <string>

#include "fuzzMutate.h"
#include "serviceCampaign.h"

namespace omkfuzz {

namespace {

const VARTYPE kElementTypes[] = {VT_I1,   VT_UI1,  VT_I2,   VT_UI2,  VT_I4,   VT_UI4,    VT_INT,     VT_UINT,
                                 VT_I8,   VT_UI8,  VT_R4,   VT_R8,   VT_CY,   VT_DATE,   VT_BOOL,    VT_ERROR,
                                 VT_DECIMAL, VT_VARIANT, VT_UNKNOWN, VT_DISPATCH, VT_BSTR};
const wchar_t* const kRuleGuids[] = {L"{6B1D2C3A-8E4F-4A51-9C7D-0E2F3A4B5C61}", kDiskRuleGuid,
                                     L"{9a8b7c6d-5e4f-4321-8765-43210fedcb63}"};

struct Array {
    SAFEARRAY* array = nullptr;
    VARTYPE type = VT_EMPTY;
    UINT dims = 0;
    size_t elements = 0;  // of the last dimension
    size_t strings = 0;    // non-null ones
    size_t textChars = 0;  // of its strings, whole (SafeArrayCopy copies past a zero)
};

// An array of `type` whose last dimension has `elements` elements: mostly one
// dimension, now and then two or three, random lower bounds; strings filled in
// up to `textBudget` characters in all (later strings stay null).
Array MakeArray(Random& random, VARTYPE type, size_t elements, size_t maxChars, size_t textBudget) {
    Array made;
    made.type = type;
    made.dims = random.OneIn(8) ? static_cast<UINT>(2 + random.Below(2)) : 1;
    SAFEARRAYBOUND bounds[3];
    size_t total = 1;
    for (UINT d = 0; d < made.dims; ++d) {
        bounds[d].cElements = static_cast<ULONG>(d + 1 == made.dims ? elements : random.Below(4));
        bounds[d].lLbound = random.OneIn(3) ? static_cast<LONG>(random.Below(2000000001)) - 1000000000 : 0;
        total *= bounds[d].cElements;
    }
    made.elements = made.dims == 1 ? elements : 0;
    made.array = SafeArrayCreate(type, made.dims, bounds);
    if (made.array == nullptr || total == 0) return made;
    void* data = nullptr;
    if (FAILED(SafeArrayAccessData(made.array, &data))) return made;
    if (type == VT_BSTR) {
        BSTR* strings = static_cast<BSTR*>(data);
        for (size_t i = 0; i < total && textBudget > 0; ++i) {
            if (random.OneIn(10)) continue;  // a null element
            std::wstring text = RandomWideText(random, std::min(maxChars, textBudget));
            textBudget -= text.size();
            strings[i] = SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
            made.textChars += SysStringLen(strings[i]);
            ++made.strings;
        }
    } else if (type == VT_VARIANT) {
        VARIANT* variants = static_cast<VARIANT*>(data);
        for (size_t i = 0; i < total && i < 4096; ++i) {
            if (random.OneIn(2)) {
                variants[i].vt = VT_BSTR;
                variants[i].bstrVal = SysAllocString(RandomWideText(random, 16).c_str());
            } else {
                variants[i].vt = VT_I4;
                variants[i].lVal = static_cast<LONG>(random.Next());
            }
        }
    } else if (type != VT_UNKNOWN && type != VT_DISPATCH) {  // interface elements stay null
        unsigned char* bytes = static_cast<unsigned char*>(data);
        for (size_t i = 0, n = total * SafeArrayGetElemsize(made.array); i < n; ++i) {
            bytes[i] = static_cast<unsigned char>(random.Next());
        }
        if (type == VT_DECIMAL) {  // a decimal the marshaller can read: scale and sign in range
            for (size_t i = 0; i < total; ++i) {
                static_cast<DECIMAL*>(data)[i].scale %= 29;
                static_cast<DECIMAL*>(data)[i].sign &= 0x80;
                static_cast<DECIMAL*>(data)[i].wReserved = 0;
            }
        }
    }
    SafeArrayUnaccessData(made.array);
    return made;
}

VARTYPE ElementType(Random& random, VARTYPE usual) {
    return random.OneIn(3) ? kElementTypes[random.Below(sizeof(kElementTypes) / sizeof(kElementTypes[0]))] : usual;
}

// A text argument: null, a name the service knows, or hostile text.
BSTR Text(Random& random, const wchar_t* known, size_t maxChars) {
    if (random.OneIn(10)) return nullptr;
    if (known != nullptr && random.OneIn(2)) return SysAllocString(known);
    std::wstring text = RandomWideText(random, maxChars);
    return SysAllocStringLen(text.data(), static_cast<UINT>(text.size()));
}

size_t Chars(BSTR text) { return text != nullptr ? wcslen(text) : 0; }

}  // namespace

TolvaneCall MakeCall(ITolvane* tolvane, uint64_t seed, uint64_t index) {
    Random random = InputRandom(seed, index);
    const bool big = random.OneIn(200);
    const size_t maxChars = big ? (1u << 20) : 256;
    const size_t maxElements = big ? (1u << 17) : 16;
    TolvaneCall call;
    const size_t kind = random.Below(10);
    if (kind == 0) {
        call.result = tolvane->Tolvane_SummaryCreated();
        call.queuedBytes = QueuedPeriodicBytes(0);  // an item and nothing else
        call.queued = true;
        return call;
    }
    if (kind >= 7) {
        Array data;
        const VARTYPE type = ElementType(random, VT_UI1);
        const size_t most = type == VT_UI1 || type == VT_I1 ? maxElements * 8 : maxElements;
        if (!random.OneIn(10)) data = MakeArray(random, type, random.Size(most), 16, 4096);
        const int code = random.OneIn(2) ? 4097 : static_cast<int>(random.Next());
        const int subCode = random.OneIn(2) ? 2 : static_cast<int>(random.Next());
        call.result =
            tolvane->Tolvane_PeriodicDataGenerated(code, subCode, static_cast<INT64>(random.Next()), data.array);
        call.expected = data.array != nullptr && data.dims == 1 ? S_OK : E_INVALIDARG;
        call.queuedBytes = QueuedPeriodicBytes(data.elements);
        call.queued = call.expected == S_OK;
        if (data.array != nullptr) SafeArrayDestroy(data.array);
        return call;
    }
    BSTR plugin = Text(random, L"OMKCollectorRules", maxChars);
    BSTR guid = Text(random, kRuleGuids[random.Below(3)], maxChars);
    BSTR tag = Text(random, L"Disk", maxChars);
    Array names, values;
    const size_t shape = random.Below(8);  // 0: both arrays null, 1: one of them, else both given
    if (shape != 0) {
        const size_t elements = random.Size(maxElements);
        const size_t budget = big ? (1u << 22) : 4096;
        names = MakeArray(random, ElementType(random, VT_BSTR), elements, maxChars, budget);
        values = MakeArray(random, ElementType(random, names.type), random.OneIn(4) ? random.Size(maxElements) : elements,
                           maxChars, budget);
    }
    if (shape == 1) {
        Array& dropped = random.OneIn(2) ? names : values;
        SafeArrayDestroy(dropped.array);
        dropped = Array();
    }
    call.result = tolvane->Tolvane_RuleTriggered(plugin, guid, tag, names.array, values.array);
    auto refused = [](const Array& a) { return a.dims != 1 || a.type != VT_BSTR; };
    const bool bothNull = names.array == nullptr && values.array == nullptr;
    if ((names.array == nullptr) != (values.array == nullptr)) {
        call.expected = E_INVALIDARG;
    } else if (!bothNull && (refused(names) || refused(values) || names.elements != values.elements)) {
        call.expected = E_INVALIDARG;
    }
    if (call.expected == S_OK && plugin != nullptr && guid != nullptr) {
        QueuedRule rule;
        rule.pluginChars = Chars(plugin);
        rule.guidChars = Chars(guid);
        rule.arrays = !bothNull;
        rule.tag = tag != nullptr;
        rule.tagChars = Chars(tag);
        rule.elements = names.elements;
        rule.strings = names.strings + values.strings;
        rule.textChars = names.textChars + values.textChars;
        call.queuedBytes = QueuedRuleBytes(rule);
        call.queued = true;
    }
    for (Array* a : {&names, &values}) {
        if (a->array != nullptr) SafeArrayDestroy(a->array);
    }
    SysFreeString(plugin);
    SysFreeString(guid);
    SysFreeString(tag);
    return call;
}

bool IsGone(HRESULT hr) {
    static const DWORD kGoneErrors[] = {0x800706BA, 0x800706BE, 0x800706BF, 0x80010108, 0x80010114};
    for (DWORD gone : kGoneErrors) {
        if (static_cast<DWORD>(hr) == gone) return true;
    }
    return false;
}

}  // namespace omkfuzz
