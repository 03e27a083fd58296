// XML access over the platform's DOM (MSXML through COM) for the rule parser:
// make a document from wide text, count what an XPath selects, read the text of
// the first selected element, the outer XML of the i-th one, and one attribute.
// Every failure is logged with its HRESULT and the path; nothing throws.
// Callers run on the start-up thread only.
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
