// XML access against the real MSXML DOM, messages read back from the error log.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "testSupport.h"
#include "xmlAccess.h"

namespace {

const wchar_t kSample[] =
    L"<Tolvane Version=\"2\">"
    L"<Rule Enabled=\"1\" Platform=\"\" xmlns:p=\"urn:omk\" p:Scope=\"local\" enabled=\"0\"><Name>first</Name>"
    L"<Name>second</Name><Descr></Descr><Deep><In>in</In> tail</Deep></Rule>"
    L"<Rule Type=\"T2\"><Name>third</Name></Rule>"
    L"<Rule><Name>fourth</Name></Rule>"
    L"</Tolvane>";

// Runs `body` on a thread of its own, so that its COM state starts clean.
void OnFreshThread(const std::function<void()>& body) {
    std::thread(body).join();
}

// Whether the calling thread still holds a COM initialisation: a fresh call
// then reports S_FALSE instead of S_OK.
bool ComStillInitialised() {
    HRESULT hr = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    if (SUCCEEDED(hr)) CoUninitialize();
    return hr == S_FALSE;
}

std::string U8(BSTR text) {
    return text == nullptr ? "<null>" : omktest::ToUtf8(text);
}

class XmlAccess : public ::testing::Test {
protected:
    void SetUp() override {
        doc = LoadXML(kSample);
        ASSERT_NE(nullptr, doc);
        log.Mark();
    }
    void TearDown() override {
        if (doc != nullptr) doc->Release();
        CoUninitialize();
    }
    // The attribute of the i-th match as text, "<not found>" or "<null>".
    std::string Attribute(const wchar_t* xpath, unsigned int i, const wchar_t* name, const wchar_t* defaultValue) {
        BSTR value = reinterpret_cast<BSTR>(1);
        XML_ATTRIBUTE_RESULT result = ReadXmlElementAttribute(doc, xpath, i, name, defaultValue, &value);
        if (result == XML_ATTRIBUTE_NOT_FOUND) {
            EXPECT_EQ(nullptr, value);
            return "<not found>";
        }
        std::string text = U8(value);
        SysFreeString(value);
        return text;
    }

    omktest::ErrorLog log{L"xmlAccess_test.log"};
    IXMLDOMDocument* doc = nullptr;
};

// True when `text` loads; the document and the apartment are given back either way.
bool Loads(const wchar_t* text) {
    IXMLDOMDocument* doc = LoadXML(text);
    if (doc != nullptr) doc->Release();
    CoUninitialize();
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
    EXPECT_EQ("", log.Since()) << "the caller reports a refused text";
}

TEST(LoadXml, EveryLoadOwesExactlyOneUninitialise) {
    OnFreshThread([] {
        IXMLDOMDocument* doc = LoadXML(L"<a/>");
        ASSERT_NE(nullptr, doc);
        IXMLDOMDocument* second = LoadXML(L"<b/>");  // nested, as rule documents are inside the file's
        ASSERT_NE(nullptr, second);
        second->Release();
        CoUninitialize();
        doc->Release();
        CoUninitialize();
        EXPECT_FALSE(ComStillInitialised());

        // A failed parse still entered the apartment.
        EXPECT_EQ(nullptr, LoadXML(L"<a>"));
        EXPECT_TRUE(ComStillInitialised());
        CoUninitialize();
        EXPECT_FALSE(ComStillInitialised());
    });
}

TEST(LoadXml, SingleThreadedApartmentRefusesTheLoadWithAMessage) {
    omktest::ErrorLog log(L"xmlAccess_test.log");
    OnFreshThread([] {
        ASSERT_EQ(S_OK, CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED));
        EXPECT_EQ(nullptr, LoadXML(L"<a/>"));
        CoUninitialize();
    });
    EXPECT_EQ(std::vector<std::string>{"LoadXML: CoInitializeEx failed 0x80010106"}, log.Messages());
}

// Paths that are not valid XPath are left out: Wine's MSXML can crash compiling
// them, and the parser only ever selects fixed, valid paths.
TEST_F(XmlAccess, CountsSelectedNodes) {
    unsigned int count = 99;
    EXPECT_EQ(1, GetNumInstancesInXml(doc, L"/Tolvane/Rule", &count));
    EXPECT_EQ(3u, count);
    EXPECT_EQ(1, GetNumInstancesInXml(doc, L"/Tolvane/MaxAlertFiles", &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(1, GetNumInstancesInXml(doc, L"/Rule", &count)) << "absolute paths start at the root";
    EXPECT_EQ(0u, count);
    EXPECT_EQ("", log.Since());

    count = 99;
    EXPECT_EQ(0, GetNumInstancesInXml(nullptr, L"/Tolvane/Rule", &count));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(std::vector<std::string>{"GetNumInstancesInXml: doc is null\n/Tolvane/Rule"}, log.Messages());
}

TEST_F(XmlAccess, ElementTextComesFromTheFirstMatchWhateverTheIndex) {
    unsigned int count = 0;
    BSTR text = nullptr;
    ASSERT_EQ(1, ReadXmlElement(doc, L"/Tolvane/Rule/Name", 2, &count, &text));
    EXPECT_EQ("first", U8(text));
    EXPECT_EQ(4u, count);
    SysFreeString(text);

    ASSERT_EQ(1, ReadXmlElement(doc, L"/Tolvane/Rule/Deep", 0, &count, &text));
    EXPECT_EQ("in tail", U8(text)) << "the text of the element and its descendants";
    SysFreeString(text);

    ASSERT_EQ(1, ReadXmlElement(doc, L"/Tolvane/Rule/Descr", 0, &count, &text));
    EXPECT_EQ(nullptr, text) << "an empty element has no text";
    EXPECT_EQ(1u, count);

    count = 99;
    EXPECT_EQ(0, ReadXmlElement(doc, L"/Tolvane/Rule/AlertMsg", 0, &count, &text));
    EXPECT_EQ(0u, count);
    EXPECT_EQ(0, ReadXmlElement(nullptr, L"/Tolvane/Rule/Name", 0, &count, &text));
    EXPECT_EQ(nullptr, text);
    EXPECT_EQ("", log.Since()) << "nothing selected and no document are silent";
}

TEST_F(XmlAccess, IthTreeIsTheWholeElementAndReloadsAsItsOwnDocument) {
    BSTR xml = nullptr;
    ASSERT_EQ(1, ReadIthXmlTree(doc, L"/Tolvane/Rule", 1, &xml));
    IXMLDOMDocument* rule = LoadXML(xml);
    SysFreeString(xml);
    ASSERT_NE(nullptr, rule);
    BSTR value = nullptr;
    EXPECT_EQ(XML_ATTRIBUTE_FOUND, ReadXmlElementAttribute(rule, L"/Rule", 0, L"Type", nullptr, &value));
    EXPECT_EQ("T2", U8(value));
    SysFreeString(value);
    unsigned int count = 0;
    ASSERT_EQ(1, ReadXmlElement(rule, L"/Rule/Name", 0, &count, &value));
    EXPECT_EQ("third", U8(value));
    SysFreeString(value);
    rule->Release();
    CoUninitialize();

    ASSERT_EQ(1, ReadIthXmlTree(doc, L"/Tolvane/Rule", 0, &xml));
    std::string outer = U8(xml);
    SysFreeString(xml);
    EXPECT_EQ(0u, outer.find("<Rule ")) << outer;
    EXPECT_NE(std::string::npos, outer.find("<Name>second</Name>")) << outer;
    EXPECT_EQ("", log.Since());

    EXPECT_EQ(0, ReadIthXmlTree(doc, L"/Tolvane/Rule", 3, &xml));
    EXPECT_EQ(0, ReadIthXmlTree(nullptr, L"/Tolvane/Rule", 0, &xml));
    EXPECT_EQ(nullptr, xml);
    EXPECT_EQ(
        std::vector<std::string>{"ReadIthXmlTree: nodelist->get_item (3) succ 0x1 but node ptr NULL\n/Tolvane/Rule"},
        log.Messages());
}

TEST_F(XmlAccess, AttributesMatchTheLocalNameExactlyAndFallBackToTheDefault) {
    EXPECT_EQ("1", Attribute(L"/Tolvane/Rule", 0, L"Enabled", L"0")) << "not the lower-case one";
    EXPECT_EQ("0", Attribute(L"/Tolvane/Rule", 0, L"enabled", nullptr));
    EXPECT_EQ("local", Attribute(L"/Tolvane/Rule", 0, L"Scope", nullptr)) << "prefix ignored";
    EXPECT_EQ("<not found>", Attribute(L"/Tolvane/Rule", 0, L"p:Scope", nullptr));
    EXPECT_EQ("<null>", Attribute(L"/Tolvane/Rule", 0, L"Platform", L"All")) << "empty is null, not the default";
    EXPECT_EQ("All", Attribute(L"/Tolvane/Rule", 0, L"platform", L"All"));
    EXPECT_EQ("<not found>", Attribute(L"/Tolvane/Rule", 0, L"Type", nullptr));
    EXPECT_EQ("T2", Attribute(L"/Tolvane/Rule", 1, L"Type", nullptr));
    EXPECT_EQ("<not found>", Attribute(L"/Tolvane/Rule", 2, L"Enabled", L"1")) << "no attributes: no default";
    EXPECT_EQ("2", Attribute(L"/Tolvane", 0, L"Version", nullptr));
    EXPECT_EQ("<not found>", Attribute(L"/Tolvane/Rule", 3, L"Type", L"x")) << "one past the end is silent";
    EXPECT_EQ("", log.Since());

    EXPECT_EQ("<not found>", Attribute(L"/Tolvane/Rule", 5, L"Type", L"x"));
    EXPECT_EQ(std::vector<std::string>{"ReadXmlElementAttribute: cannot find instance 5 (only 3 instances exist): "
                                       "/Tolvane/Rule"},
              log.Messages());
}

}  // namespace
