// Shared set-up of the alert file tests: a scratch alert folder, the error
// log, a known service tag and the allocation count to come back to.
#pragma once

#include <gtest/gtest.h>

#include <string.h>

#include <string>

#include "conventions.h"
#include "testSupport.h"
#include "xmlLog.h"

namespace alerttest {

// The bytes a new alert file starts with for service tag ABC1234.
inline std::string NewFileHead() {
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\r\n<TolvaneAlerts>\r\n<ServiceTag>ABC1234</ServiceTag>";
}
// The bytes xmlLogClose writes.
inline std::string CloseTail() {
    return "\t</Alert>\r\n</TolvaneAlerts>\r\n";
}

class AlertFileTest : public ::testing::Test {
protected:
    omktest::TempFolder folder;
    omktest::ErrorLog log{L"alerts_test.txt"};
    int allocStart = 0;
    wchar_t savedTag[OMK_SERVICE_TAG_CHARS];

    void SetUp() override {
        memcpy(savedTag, g_serviceTag, sizeof(savedTag));
        wcscpy(g_serviceTag, L"ABC1234");
        allocStart = g_allocCount;
    }
    void TearDown() override {
        EXPECT_EQ(allocStart, g_allocCount) << "every handle is freed and counted back";
        memcpy(g_serviceTag, savedTag, sizeof(savedTag));
    }

    std::wstring Path(const wchar_t* name = L"a.xml") const { return folder.File(name); }
    std::string Bytes(const wchar_t* name = L"a.xml") const { return omktest::ReadFileBytes(Path(name)); }
    XMLLOG_HANDLE* Open(const wchar_t* name = L"a.xml") { return xmlLogOpen(folder.Path().c_str(), nullptr, name); }
};

}  // namespace alerttest
