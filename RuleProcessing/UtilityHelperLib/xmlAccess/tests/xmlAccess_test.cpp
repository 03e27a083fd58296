// XML access against the real MSXML DOM, messages read back from the error log.
#include <gtest/gtest.h>

#include <thread>

#include "testSupport.h"
#include "xmlAccess.h"

namespace {

using Strings = std::vector<std::string>;

const wchar_t kSample[] =
    L"<Tolvane Version=\"2\">"
    L"<Rule xmlns:p=\"urn:omk\" p:Scope=\"local\"><Name>first</Name>"
    L"<Name>second</Name><Descr></Descr><Deep><In>in</In> tail</Deep></Rule>"
    L"<Rule Type=\"T2\"><Name>third</Name></Rule>"
    L"<Rule><Name>fourth</Name></Rule>"
    L"</Tolvane>";

// Whether the calling thread still holds a COM initialisation.
bool ComStillInitialised() {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(hr)) CoUninitialize();
    return hr == S_FALSE;
}

std::string U8(BSTR text) {
    return text == nullptr ? "<null>" : omktest::ToUtf8(text);
}

// The attribute of the i-th match as text, "<not found>" or "<null>".
std::string Attribute(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int i, const wchar_t* name,
                      const wchar_t* defaultValue = nullptr) {
    BSTR value = reinterpret_cast<BSTR>(1);
    if (ReadXmlElementAttribute(doc, xpath, i, name, defaultValue, &value) == XML_ATTRIBUTE_NOT_FOUND) {
        EXPECT_EQ(nullptr, value);
        return "<not found>";
    }
    std::string text = U8(value);
    SysFreeString(value);
    return text;
}

// The outer XML of the i-th match, or "<none>".
std::string Tree(IXMLDOMDocument* doc, const wchar_t* xpath, unsigned int i) {
    BSTR xml = nullptr;
    std::string text = ReadIthXmlTree(doc, xpath, i, &xml) ? U8(xml) : "<none>";
    SysFreeString(xml);
    return text;
}

// The same through a selection of its own, straight from the DOM.
std::string FreshTree(IXMLDOMDocument* doc, const wchar_t* xpath, long i) {
    BSTR path = SysAllocString(xpath);
    IXMLDOMNodeList* list = nullptr;
    EXPECT_EQ(S_OK, doc->selectNodes(path, &list));
    SysFreeString(path);
    IXMLDOMNode* node = nullptr;
    list->get_item(i, &node);
    list->Release();
    BSTR xml = nullptr;
    if (node != nullptr) node->get_xml(&xml);
    if (node != nullptr) node->Release();
    std::string text = node != nullptr ? U8(xml) : "<none>";
    SysFreeString(xml);
    return text;
}

// True when `text` loads; the document and the apartment are given back either
// way. The thread's reused check document finds the same, whatever it held.
bool Loads(const wchar_t* text) {
    IXMLDOMDocument* doc = LoadXML(text);
    ReleaseXML(doc);
    CoUninitialize();
    EXPECT_EQ(doc != nullptr ? 1 : 0, CheckXML(text)) << (text != nullptr ? omktest::ToUtf8(text) : "null");
    return doc != nullptr;
}

TEST(LoadXml, OnlyAWholeWidenedByteOrderMarkIsSkippedAndBadTextIsSilentlyRefused) {
    omktest::ErrorLog log(L"xmlAccess_test.log");
    EXPECT_TRUE(Loads(L"\u00ef\u00bb\u00bf<Tolvane><Rule/></Tolvane>"));
    EXPECT_FALSE(Loads(L"\u00ef\u00bb<Tolvane/>"));
    EXPECT_TRUE(Loads(L"\ufeff<Tolvane/>")) << "a mark kept as one character is accepted as it is";
    for (const wchar_t* text : {L"<Tolvane>", L"", L"not xml at all", L"<a></b>", L"<a/><b/>"}) {
        EXPECT_FALSE(Loads(text)) << omktest::ToUtf8(text);
    }
    EXPECT_FALSE(Loads(nullptr));
    ReleaseThreadXML();
    EXPECT_EQ("", log.Since()) << "the caller reports a refused text";

    std::thread([] {  // a thread of its own, so that its COM state starts clean
        EXPECT_EQ(nullptr, LoadXML(L"<a>"));
        EXPECT_TRUE(ComStillInitialised()) << "a failed parse still entered the apartment";
        CoUninitialize();
        EXPECT_FALSE(ComStillInitialised());
        // The check document holds one apartment entry, however many checks, until given back.
        EXPECT_EQ(1, CheckXML(L"<a/>"));
        EXPECT_EQ(0, CheckXML(L"<a>"));
        ReleaseThreadXML();
        EXPECT_FALSE(ComStillInitialised());
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
        EXPECT_EQ(nullptr, LoadXML(L"<a/>"));
        EXPECT_EQ(0, CheckXML(L"<a/>"));
        CoUninitialize();
    }).join();
    EXPECT_EQ(Strings(2, "LoadXML: CoInitializeEx failed 0x80010106"), log.Messages());
}

// A document loaded again, one released without ReleaseXML and another made
// (likely at its address), more documents than the cache keeps, in turn.
TEST(SelectionReuse, ReadsWhatAFreshSelectionReadsWhateverChangedBetweenCalls) {
    std::thread([] {
        auto text = [](int k) {
            std::wstring xml = L"<Tolvane V=\"" + std::to_wstring(k) + L"\">";
            for (int i = 0; i <= k % 3; ++i) xml += L"<Rule Type=\"" + std::to_wstring(k) + L"." + std::to_wstring(i) + L"\"/>";
            return xml + L"</Tolvane>";
        };
        // Each document's cached path is the one its next check starts with.
        auto expectFresh = [](IXMLDOMDocument* doc) {
            for (const wchar_t* xpath : {L"/Tolvane/Rule", L"/Tolvane", L"/Tolvane/Rule"}) {
                unsigned int found = 0, count = 99;
                for (unsigned int i = 0; i < 3; ++i) {
                    std::string fresh = FreshTree(doc, xpath, static_cast<long>(i));
                    EXPECT_EQ(fresh, Tree(doc, xpath, i)) << omktest::ToUtf8(xpath) << " " << i;
                    found += fresh != "<none>";
                    std::string type = Attribute(doc, xpath, i, L"Type");
                    EXPECT_EQ(fresh.find("<Rule ") == 0, fresh.find("Type=\"" + type + "\"") != std::string::npos);
                }
                EXPECT_EQ(1, GetNumInstancesInXml(doc, xpath, &count));
                EXPECT_EQ(found, count);
            }
        };
        IXMLDOMDocument* reused = nullptr;
        std::vector<IXMLDOMDocument*> held;
        IXMLDOMDocument* outer = LoadXML(L"<Tolvane/>");  // as the rule file's around its rules
        for (int k = 0; k < 6; ++k) {
            EXPECT_EQ(nullptr, ReloadXML(&reused, L"<b>"));
            CoUninitialize();
            ASSERT_NE(nullptr, ReloadXML(&reused, text(k).c_str()));
            expectFresh(reused);
            IXMLDOMDocument* doc = LoadXML(text(k + 10).c_str());
            expectFresh(doc);
            doc->Release();
            CoUninitialize();
            held.push_back(LoadXML(text(k + 20).c_str()));
            for (IXMLDOMDocument* other : held) expectFresh(other);
            expectFresh(reused);
            CoUninitialize();
        }
        for (IXMLDOMDocument* other : held) {
            ReleaseXML(other);
            CoUninitialize();
        }
        ReleaseXML(reused);
        ReleaseXML(outer);
        CoUninitialize();
        EXPECT_FALSE(ComStillInitialised());
    }).join();
}

class XmlAccess : public ::testing::Test {
protected:
    void SetUp() override {
        doc = LoadXML(kSample);
        ASSERT_NE(nullptr, doc);
        log.Mark();
    }
    void TearDown() override {
        ReleaseXML(doc);
        CoUninitialize();
    }

    omktest::ErrorLog log{L"xmlAccess_test.log"};
    IXMLDOMDocument* doc = nullptr;
};

// No invalid XPath: Wine's MSXML can crash compiling one, and the parser
// selects fixed, valid paths only.
TEST_F(XmlAccess, CountsTextsTreesAndAttributesComeFromTheSelection) {
    const struct {
        const wchar_t* xpath;
        unsigned int count;
        const char* text;  // of the first match, whatever index is asked for
    } cases[] = {
        {L"/Tolvane/Rule", 3, "firstsecondin tail"}, {L"/Tolvane/Rule/Name", 4, "first"},
        {L"/Tolvane/Rule/Deep", 1, "in tail"},       {L"/Tolvane/Rule/Descr", 1, "<null>"},
        {L"/Rule", 0, "<read failed>"},
    };
    for (const auto& c : cases) {
        unsigned int count = 99, elementCount = 99;
        EXPECT_EQ(1, GetNumInstancesInXml(doc, c.xpath, &count));
        BSTR text = nullptr;
        std::string read = ReadXmlElement(doc, c.xpath, 2, &elementCount, &text) ? U8(text) : "<read failed>";
        SysFreeString(text);
        EXPECT_EQ(c.text, read) << omktest::ToUtf8(c.xpath);
        EXPECT_EQ(c.count, count);
        EXPECT_EQ(c.count, elementCount);
    }
    std::string outer = Tree(doc, L"/Tolvane/Rule", 1);
    EXPECT_EQ(0u, outer.find("<Rule Type=\"T2\">")) << outer;
    EXPECT_NE(std::string::npos, outer.find("<Name>third</Name>")) << "the whole element: " << outer;
    EXPECT_EQ("local", Attribute(doc, L"/Tolvane/Rule", 0, L"Scope")) << "the local name, prefix ignored";
    EXPECT_EQ("<not found>", Attribute(doc, L"/Tolvane/Rule", 0, L"p:Scope"));
    EXPECT_EQ("2", Attribute(doc, L"/Tolvane", 0, L"Version"));
    unsigned int count = 99;
    BSTR text = nullptr;
    EXPECT_EQ(0, ReadXmlElement(nullptr, L"/Tolvane/Rule/Name", 0, &count, &text));
    EXPECT_EQ("<none>", Tree(nullptr, L"/Tolvane/Rule", 0));
    EXPECT_EQ("<not found>", Attribute(doc, L"/Tolvane/Rule", 3, L"Type", L"x")) << "one past the end";
    EXPECT_EQ("", log.Since()) << "nothing selected, no document and one past the end are silent";
    EXPECT_EQ("<none>", Tree(doc, L"/Tolvane/Rule", 3));
    EXPECT_EQ("<not found>", Attribute(doc, L"/Tolvane/Rule", 5, L"Type", L"x"));
    EXPECT_EQ(0, GetNumInstancesInXml(nullptr, L"/Tolvane/Rule", &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ((Strings{"ReadIthXmlTree: nodelist->get_item (3) succ 0x1 but node ptr NULL\n/Tolvane/Rule",
                       "ReadXmlElementAttribute: cannot find instance 5 (only 3 instances exist): /Tolvane/Rule",
                       "GetNumInstancesInXml: doc is null\n/Tolvane/Rule"}),
              log.Messages());
}

}  // namespace
