// The commands of omk-alerts. Each returns the process exit code.
#pragma once

#include <string>

namespace omkalerts {

enum ExitCode {
    kExitOk = 0,
    kExitAttention = 1,  // done, but something needs attention (a record that is no XML, a doctor finding)
    kExitUsage = 2,      // a bad command line
    kExitNoDatabase = 3  // the database cannot be read (missing, empty, corrupt, locked), or the output written
};

// Options as given on the command line (UTF-8); empty or 0 when not given.
struct Options {
    std::string db;
    std::string since;
    std::string rule;
    unsigned int limit = 0;  // list --limit, follow --count
    bool json = false;
    std::string what;  // show: a creation time or an AlertId
    std::string format;
    std::string output;
    std::string data;  // doctor: the product data folder to look in
};

int ListCommand(const Options& options);
int ShowCommand(const Options& options);
int ExportCommand(const Options& options);
int FollowCommand(const Options& options);
int DoctorCommand(const Options& options);

}  // namespace omkalerts
