// omk-rules check: what the service would make of a rule file on a machine
// of a given identity with given plugins, told by the service's own start-up
// steps (Tolvane_LoadDefinitions) without running any plugin code.
#pragma once

#include <string>
#include <vector>

struct CHECK_OPTIONS {
    std::string rules;  // empty: the installed rule file
    std::string model;
    std::string chassis;
    std::vector<std::string> rulePlugins;  // NAME or NAME=DLL; none: the registry
    std::vector<std::string> actionPlugins;
    bool json = false;
};

// Prints the report; returns 0 (would start), 1 (would not) or 2 (usage
// error or unreadable rule file).
int RunCheck(const CHECK_OPTIONS& options);
