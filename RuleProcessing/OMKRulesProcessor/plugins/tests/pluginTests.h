// What the plugin loader tests share: a fresh error log, a scratch folder for
// copies of the signed test plugins, and the allocation balance check.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testPlugins.h"
#include "testSupport.h"

class PluginTest : public ::testing::Test {
protected:
    PluginTest();
    void TearDown() override;

    // Copies a built test plugin into the scratch folder under another name
    // (the signature does not cover the name) and returns the copy's path.
    std::wstring Copy(const wchar_t* builtName, const std::wstring& asName);
    // The scratch folder's path of `name`.
    std::wstring Scratch(const std::wstring& name) const { return folder_.File(name); }
    std::vector<std::string> Messages() const { return log_.Messages(); }

    omktest::ErrorLog log_;
    omktest::TempFolder folder_;
    int allocBefore_;
};

// UTF-8 of a wide text, for comparing with logged messages.
std::string U8(const std::wstring& text);

// True when a module of that path is loaded in this process.
bool IsLoaded(const std::wstring& path);
