#include "xmlAccess.h"

#include <string.h>
#include <wchar.h>

#include "omkErrors.h"

namespace {

// The DOM document class of the MSXML headers, {2933BF90-7B36-11D2-B20E-00C04F983E60}.
// Defined here because the SDK headers map the name to other classes and the
// import libraries do not all provide it.
const CLSID kClsidDomDocument = {0x2933BF90, 0x7B36, 0x11D2, {0xB2, 0x0E, 0x00, 0xC0, 0x4F, 0x98, 0x3E, 0x60}};

unsigned int Hex(HRESULT hr) {
    return static_cast<unsigned int>(hr);
}

// An empty text and a missing one mean the same to every caller: no value.
BSTR NullIfEmpty(BSTR text) {
    if (text != nullptr && SysStringLen(text) == 0) {
        SysFreeString(text);
        return nullptr;
    }
    return text;
}

// The last selection on one document, kept for the next call with the same
// path. The slot holds a reference on the document, on the node list and on the
// thread's apartment, so neither can go away (or be replaced by another object
// at the same address) while the slot is in use.
constexpr int kCachedDocuments = 4;
constexpr size_t kCachedPathChars = 64;

struct CachedSelection {
    IXMLDOMDocument* doc;  // null: the slot is free
    IXMLDOMNodeList* list;
    unsigned long lastUse;
    wchar_t path[kCachedPathChars];
};

// Per thread: a node list belongs to the apartment of the thread that selected it.
thread_local CachedSelection t_selections[kCachedDocuments];
thread_local unsigned long t_selectionUses;

void Forget(CachedSelection& slot) {
    if (slot.doc == nullptr) return;
    slot.list->Release();
    slot.doc->Release();
    slot.doc = nullptr;
    slot.list = nullptr;
    CoUninitialize();
}

void ForgetDocument(IXMLDOMDocument* doc) {
    for (CachedSelection& slot : t_selections) {
        if (slot.doc == doc) Forget(slot);
    }
}

IXMLDOMNodeList* CachedList(IXMLDOMDocument* doc, const wchar_t* xpath) {
    for (CachedSelection& slot : t_selections) {
        if (slot.doc == doc && wcscmp(slot.path, xpath) == 0) {
            slot.lastUse = ++t_selectionUses;
            slot.list->AddRef();
            return slot.list;
        }
    }
    return nullptr;
}

// The slot for a new selection on `doc`: its earlier one, a free slot, or the
// least recently used.
CachedSelection& SlotFor(IXMLDOMDocument* doc) {
    for (CachedSelection& slot : t_selections) {
        if (slot.doc == doc) return slot;
    }
    CachedSelection* oldest = &t_selections[0];
    for (CachedSelection& slot : t_selections) {
        if (slot.doc == nullptr) return slot;
        if (slot.lastUse < oldest->lastUse) oldest = &slot;
    }
    return *oldest;
}

// Keeps `list` as the last selection of `xpath` on `doc`.
void Remember(IXMLDOMDocument* doc, const wchar_t* xpath, IXMLDOMNodeList* list) {
    size_t chars = wcslen(xpath) + 1;
    if (chars > kCachedPathChars) return;
    // A thread in another apartment model has no document of this layer to cache.
    if (FAILED(CoInitializeEx(nullptr, COINIT_MULTITHREADED))) return;
    CachedSelection& slot = SlotFor(doc);
    Forget(slot);
    doc->AddRef();
    list->AddRef();
    slot.doc = doc;
    slot.list = list;
    slot.lastUse = ++t_selectionUses;
    memcpy(slot.path, xpath, chars * sizeof(wchar_t));
}

// The nodes `xpath` selects in `doc` (the cached list when the document was
// not loaded again since), or null with the failure logged in the caller's own
// words (its two formats take the code and the path).
IXMLDOMNodeList* Select(IXMLDOMDocument* doc, const wchar_t* xpath, const wchar_t* allocFailedFormat,
                        const wchar_t* selectFailedFormat) {
    IXMLDOMNodeList* list = CachedList(doc, xpath);
    if (list != nullptr) return list;
    BSTR path = SysAllocString(xpath);
    if (path == nullptr) {
        OMK_ReportError(0, allocFailedFormat, GetLastError(), xpath);
        return nullptr;
    }
    HRESULT hr = doc->selectNodes(path, &list);
    SysFreeString(path);
    if (FAILED(hr) || list == nullptr) {
        OMK_ReportError(0, selectFailedFormat, Hex(hr), xpath);
        if (list != nullptr) list->Release();
        return nullptr;
    }
    Remember(doc, xpath, list);
    return list;
}

// True when the text opens with an XML declaration whose version is longer
// than any XML version there is ("1.0", "1.1"). Wine's msxml3 copies the
// version into a 30-byte buffer and overruns it on one of 20 characters or
// more, so such a text is refused as not well-formed before MSXML sees it.
bool HasOverlongXmlVersion(const wchar_t* text) {
    if (text[0] == 0xFEFF) ++text;
    if (wcsncmp(text, L"<?xml", 5) != 0) return false;
    const wchar_t* end = wcsstr(text, L"?>");
    const wchar_t* version = wcsstr(text, L"version");
    if (version == nullptr || (end != nullptr && version > end)) return false;
    const wchar_t* quote = wcspbrk(version, L"\"'");
    const wchar_t* close = quote != nullptr ? wcschr(quote + 1, *quote) : nullptr;
    return close != nullptr && close - quote - 1 > 3;
}

}  // namespace

namespace {

// The load of ReloadXML once the thread is in the apartment.
IXMLDOMDocument* LoadInto(IXMLDOMDocument** reusable, const wchar_t* text) {
    IXMLDOMDocument* doc = *reusable;
    if (doc == nullptr) {
        HRESULT hr = CoCreateInstance(kClsidDomDocument, nullptr, CLSCTX_INPROC_SERVER, IID_IXMLDOMDocument,
                                      reinterpret_cast<void**>(&doc));
        if (FAILED(hr) || doc == nullptr) {
            OMK_ReportError(0, L"LoadXML: CoCreateInstance failed 0x%x", Hex(hr));
            return nullptr;
        }
        *reusable = doc;
    } else {
        ForgetDocument(doc);  // its nodes are about to change
    }
    if (text == nullptr) text = L"";
    // A file read with its UTF-8 byte-order mark widened byte by byte.
    if (text[0] == 0x00EF && text[1] == 0x00BB && text[2] == 0x00BF) text += 3;
    if (HasOverlongXmlVersion(text)) return nullptr;

    BSTR xml = SysAllocString(text);
    if (xml == nullptr) {
        OMK_ReportError(0, L"LoadXML: SysAllocString failed 0x%x\n%ws", GetLastError(), text);
        return nullptr;
    }
    VARIANT_BOOL loaded = VARIANT_FALSE;
    HRESULT hr = doc->loadXML(xml, &loaded);
    SysFreeString(xml);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"LoadXML: LoadXML failed 0x%x\n%ws", Hex(hr), text);
        return nullptr;
    }
    return loaded == VARIANT_TRUE ? doc : nullptr;
}

// The document CheckXML loads each text into, one per thread; while it is
// there the thread holds one apartment entry of its own for it.
thread_local IXMLDOMDocument* t_checkDocument;

}  // namespace

IXMLDOMDocument* ReloadXML(IXMLDOMDocument** reusable, const wchar_t* text) {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"LoadXML: CoInitializeEx failed 0x%x", Hex(hr));
        return nullptr;
    }
    return LoadInto(reusable, text);
}

int CheckXML(const wchar_t* text) {
    if (t_checkDocument == nullptr) {
        HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
        if (FAILED(hr)) {
            OMK_ReportError(0, L"LoadXML: CoInitializeEx failed 0x%x", Hex(hr));
            return 0;
        }
    }
    const bool wellFormed = LoadInto(&t_checkDocument, text) != nullptr;
    // No document was made: there is nothing to stay in the apartment for.
    if (t_checkDocument == nullptr) CoUninitialize();
    return wellFormed ? 1 : 0;
}

void ReleaseThreadXML() {
    if (t_checkDocument == nullptr) return;
    t_checkDocument->Release();
    t_checkDocument = nullptr;
    CoUninitialize();
}

IXMLDOMDocument* LoadXML(const wchar_t* text) {
    IXMLDOMDocument* doc = nullptr;
    IXMLDOMDocument* loaded = ReloadXML(&doc, text);
    if (loaded == nullptr && doc != nullptr) doc->Release();
    return loaded;
}

void ReleaseXML(IXMLDOMDocument* doc) {
    if (doc == nullptr) return;
    ForgetDocument(doc);
    doc->Release();
}

int GetNumInstancesInXml(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int* count) {
    *count = 0;
    if (doc == nullptr) {
        OMK_ReportError(0, L"GetNumInstancesInXml: doc is null\n%ws", xpath);
        return 0;
    }
    IXMLDOMNodeList* list = Select(doc, xpath, L"GetNumInstancesInXml: SysAllocString failed 0x%x\n%ws",
                                   L"GetNumInstancesInXml: selectNodes failed 0x%x\n%ws");
    if (list == nullptr) return 0;
    long length = 0;
    HRESULT hr = list->get_length(&length);
    list->Release();
    if (FAILED(hr)) {
        OMK_ReportError(0, L"GetNumInstancesInXml: get_length () failed 0x%x\n%ws", Hex(hr), xpath);
        return 0;
    }
    *count = static_cast<unsigned int>(length);
    return 1;
}

int ReadXmlElement(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int /*index*/, unsigned int* count,
                   BSTR* text) {
    *text = nullptr;
    if (doc == nullptr) return 0;
    IXMLDOMNodeList* list = Select(doc, xpath, L"ReadXmlElement: SysAllocString failed 0x%x\n%ws",
                                   L"ReadXmlElement: selectNodes failed 0x%x\n%ws");
    if (list == nullptr) return 0;
    long length = 0;
    HRESULT hr = list->get_length(&length);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"ReadXmlElement: get_length failed 0x%x\n%ws", Hex(hr), xpath);
        list->Release();
        return 0;
    }
    *count = static_cast<unsigned int>(length);
    if (length < 0) {
        OMK_ReportError(0, L"ReadXmlElement: cannot find instance %d (only %d instances exist)\n%ws", 0,
                        static_cast<int>(length), xpath);
        list->Release();
        return 0;
    }
    // Always the first node: a second instance of an element is not an error here.
    IXMLDOMNode* node = nullptr;
    hr = list->get_item(0, &node);
    list->Release();
    if (FAILED(hr)) {
        OMK_ReportError(0, L"ReadXmlElement: nodelist->get_item (%d) failed 0x%x\n%ws", 0, Hex(hr), xpath);
        if (node != nullptr) node->Release();
        return 0;
    }
    if (node == nullptr) return 0;
    BSTR value = nullptr;
    hr = node->get_text(&value);
    node->Release();
    if (FAILED(hr)) {
        OMK_ReportError(0, L"ReadXmlElement: get node text error 0x%x\n%ws", Hex(hr), xpath);
        SysFreeString(value);
        return 0;
    }
    *text = NullIfEmpty(value);
    return 1;
}

int ReadIthXmlTree(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int i, BSTR* xml) {
    *xml = nullptr;
    if (doc == nullptr) return 0;
    IXMLDOMNodeList* list = Select(doc, xpath, L"ReadIthXmlTree: SysAllocString failed 0x%x\n%ws",
                                   L"ReadIthXmlTree: selectNodes failed 0x%x\n%ws");
    if (list == nullptr) return 0;
    IXMLDOMNode* node = nullptr;
    HRESULT hr = list->get_item(static_cast<long>(i), &node);
    list->Release();
    if (FAILED(hr)) {
        OMK_ReportError(0, L"ReadIthXmlTree: nodelist->get_item (%d) failed 0x%x\n%ws", static_cast<int>(i), Hex(hr),
                        xpath);
        if (node != nullptr) node->Release();
        return 0;
    }
    if (node == nullptr) {
        OMK_ReportError(0, L"ReadIthXmlTree: nodelist->get_item (%d) succ 0x%x but node ptr NULL\n%ws",
                        static_cast<int>(i), Hex(hr), xpath);
        return 0;
    }
    BSTR value = nullptr;
    hr = node->get_xml(&value);
    node->Release();
    if (FAILED(hr)) {
        OMK_ReportError(0, L"ReadIthXmlTree: nodelist->get_xml (%d) failed 0x%x\n%ws", static_cast<int>(i), Hex(hr),
                        xpath);
        SysFreeString(value);
        return 0;
    }
    *xml = NullIfEmpty(value);
    return 1;
}

XML_ATTRIBUTE_RESULT ReadXmlElementAttribute(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int i,
                                             const wchar_t* name, const wchar_t* defaultValue, BSTR* value) {
    *value = nullptr;
    if (doc == nullptr) return XML_ATTRIBUTE_NOT_FOUND;
    IXMLDOMNodeList* list = Select(doc, xpath, L"ReadXmlElementAttribute: SysAllocString failed 0x%x\n%ws",
                                   L"ReadXmlElementAttribute: selectNodes failed 0x%x\n%ws");
    if (list == nullptr) return XML_ATTRIBUTE_NOT_FOUND;
    long length = 0;
    HRESULT hr = list->get_length(&length);
    if (FAILED(hr)) {
        OMK_ReportError(0, L"ReadXmlElementAttribute: get_length failed 0x%x\n%ws", Hex(hr), xpath);
        list->Release();
        return XML_ATTRIBUTE_NOT_FOUND;
    }
    // An index equal to the length passes here and then finds no node.
    if (length < 0 || static_cast<unsigned long>(length) < i) {
        OMK_ReportError(0, L"ReadXmlElementAttribute: cannot find instance %d (only %d instances exist): %ws",
                        static_cast<int>(i), static_cast<int>(length), xpath);
        list->Release();
        return XML_ATTRIBUTE_NOT_FOUND;
    }
    IXMLDOMNode* node = nullptr;
    hr = list->get_item(static_cast<long>(i), &node);
    list->Release();
    if (FAILED(hr)) {
        OMK_ReportError(0, L"ReadXmlElementAttribute: nodelist->get_item (%d) failed 0x%x\n%ws", static_cast<int>(i),
                        Hex(hr), xpath);
        if (node != nullptr) node->Release();
        return XML_ATTRIBUTE_NOT_FOUND;
    }
    if (node == nullptr) return XML_ATTRIBUTE_NOT_FOUND;

    IXMLDOMNamedNodeMap* attributes = nullptr;
    hr = node->get_attributes(&attributes);
    node->Release();
    if (FAILED(hr) || attributes == nullptr) {
        if (attributes != nullptr) attributes->Release();
        return XML_ATTRIBUTE_NOT_FOUND;
    }
    long numAttributes = 0;
    hr = attributes->get_length(&numAttributes);
    if (FAILED(hr) || numAttributes <= 0) {
        attributes->Release();
        return XML_ATTRIBUTE_NOT_FOUND;
    }

    XML_ATTRIBUTE_RESULT result = XML_ATTRIBUTE_NOT_FOUND;
    for (long k = 0; k < numAttributes && result == XML_ATTRIBUTE_NOT_FOUND; ++k) {
        IXMLDOMNode* attribute = nullptr;
        if (FAILED(attributes->get_item(k, &attribute)) || attribute == nullptr) continue;
        BSTR baseName = nullptr;
        // The local name, compared exactly: "enabled" is not "Enabled".
        if (SUCCEEDED(attribute->get_baseName(&baseName)) && baseName != nullptr && wcscmp(baseName, name) == 0) {
            BSTR text = nullptr;
            if (SUCCEEDED(attribute->get_text(&text))) {
                *value = NullIfEmpty(text);
                result = XML_ATTRIBUTE_FOUND;
            } else {
                SysFreeString(text);
            }
        }
        SysFreeString(baseName);
        attribute->Release();
    }
    attributes->Release();
    if (result == XML_ATTRIBUTE_FOUND) return result;

    if (defaultValue == nullptr) return XML_ATTRIBUTE_NOT_FOUND;
    *value = SysAllocString(defaultValue);
    return *value != nullptr ? XML_ATTRIBUTE_FOUND : XML_ATTRIBUTE_NOT_FOUND;
}
