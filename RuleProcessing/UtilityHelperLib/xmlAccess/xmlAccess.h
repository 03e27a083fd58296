// XML access over the platform's DOM (MSXML through COM) for the rule parser:
// make a document from wide text, count what an XPath selects, read the text of
// the first selected element, the outer XML of the i-th one, and one attribute.
// Every failure is logged with its HRESULT and the path; nothing throws.
//
// Each thread keeps the node list of the last selection on each of a few
// documents, so that reading one node after the other of the same path (the
// i-th rule of a file, each attribute of a rule) selects once. A cached list
// holds a reference on its document (a released document cannot make room for
// another at its address) and on the thread's apartment; documents are changed
// only by loading them through this layer (ReloadXML), which forgets their
// lists. ReleaseXML gives a document back and forgets its list.
#pragma once

#include <windows.h>

#include <msxml.h>

// Makes a document from `text`. Enters the multithreaded COM apartment on the
// calling thread first; the caller owns the document, releases it and then calls
// CoUninitialize once (also owed when COM was already initialised). Three leading
// characters U+00EF U+00BB U+00BF (a UTF-8 byte-order mark widened byte by byte)
// are skipped. Null when the text is no well-formed document (without a message:
// the caller reports it) or on a COM failure (logged).
IXMLDOMDocument* LoadXML(const wchar_t* text);

// LoadXML into `*reusable` instead of a new document: the document made by an
// earlier call is loaded again (null: a new one is made and stored there), which
// spares the object's creation. Same apartment entry, messages and results as
// LoadXML; on failure the document stays in `*reusable` for the next load. The
// caller releases it once with ReleaseXML when done with every load.
IXMLDOMDocument* ReloadXML(IXMLDOMDocument** reusable, const wchar_t* text);

// Whether `text` is a well-formed document, as LoadXML finds it (same
// messages, byte-order mark rule and failures), loaded into a document the
// calling thread keeps for its next check instead of a new one each time. 1
// when it loads, 0 when it does not (without a message) or on a COM failure
// (logged). The thread's first check enters the multithreaded apartment and
// stays in it, for the document, until ReleaseThreadXML.
int CheckXML(const wchar_t* text);

// Gives back the calling thread's check document and its apartment entry.
// Called by the thread itself before it ends; a later check makes a new one.
void ReleaseThreadXML();

// Forgets the cached selection of `doc` and releases the caller's reference
// (null is fine). The caller still owes CoUninitialize for each load.
void ReleaseXML(IXMLDOMDocument* doc);

// Counts the nodes `xpath` selects into `count`. 1 on success (a count of 0
// included), 0 on failure with `count` 0.
int GetNumInstancesInXml(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int* count);

// The text of the first node `xpath` selects, whatever `index` says: every caller
// reads the first instance. `count` receives the number of selected nodes even
// when a later step fails. 1 on success with `text` set (a caller-owned BSTR,
// null for an empty element); 0 on failure or when nothing is selected.
int ReadXmlElement(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int index, unsigned int* count, BSTR* text);

// The outer XML (the element with its attributes and content) of the i-th node
// `xpath` selects, as a caller-owned BSTR. 1 on success, 0 on failure (logged,
// also when there is no i-th node).
int ReadIthXmlTree(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int i, BSTR* xml);

// Results of ReadXmlElementAttribute.
enum XML_ATTRIBUTE_RESULT {
    XML_ATTRIBUTE_NOT_FOUND = 0,  // no such node, no attributes at all, or no match and no default
    XML_ATTRIBUTE_FOUND = 1,      // `value` holds the attribute's text or a copy of the default
};

// Reads attribute `name` (its local name, compared exactly) of the i-th node
// `xpath` selects into `value`, a caller-owned BSTR that is null for an empty
// attribute. An element without that attribute gives a copy of `defaultValue`
// when there is one; an element without any attribute is not found even then.
XML_ATTRIBUTE_RESULT ReadXmlElementAttribute(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int i,
                                             const wchar_t* name, const wchar_t* defaultValue, BSTR* value);
