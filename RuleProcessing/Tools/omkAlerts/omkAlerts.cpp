// omk-alerts: shows, exports and follows the alerts the rules processor
// stored in its alert database, and checks the product's health. For the
// people who support machines running the product: it reads the database
// read-only, so it works as a standard user and while the service runs.
// `omk-alerts --help` lists the commands; README.md describes them.
#include <windows.h>

#include <exception>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "alertOutput.h"
#include "commands.h"
#include "omkErrors.h"
#include "storedAlert.h"

namespace {

using omkalerts::Options;

CLI::Option* AddDb(CLI::App* command, Options& options) {
    return command->add_option("--db", options.db,
                               "Read this alert database file (a copy from another machine, say) instead of the "
                               "product's own");
}

int Run(int argc, char** argv) {
    Options options;
    CLI::App app{"Shows, exports and follows the alerts the Orlemark rules processor stored, and checks its health.",
                 "omk-alerts"};
    app.require_subcommand(1, 1);
    app.set_help_all_flag("--help-all", "Print the help of every command");

    CLI::App* list = app.add_subcommand("list", "One line per stored alert, newest first");
    AddDb(list, options);
    list->add_option("--since", options.since, "Only alerts created at or after TIME (UTC: 2024-05-01T12:00:00Z)");
    list->add_option("--rule", options.rule, "Only alerts of the rule with this RuleGuid");
    list->add_option("--limit", options.limit, "At most N alerts");
    list->add_flag("--json", options.json, "One JSON array of alert objects");

    CLI::App* show = app.add_subcommand("show", "A stored alert's fields and its XML as stored");
    AddDb(show, options);
    show->add_option("what", options.what,
                     "The alert's creation time (as list shows it, or a FILETIME number) or AlertId")
        ->required();

    CLI::App* exportCommand = app.add_subcommand("export", "Every stored alert, newest first, as JSON, CSV or XML");
    AddDb(exportCommand, options);
    exportCommand->add_option("--format", options.format, "json, csv or xml")
        ->required()
        ->check(CLI::IsMember({"json", "csv", "xml"}));
    exportCommand->add_option("--since", options.since, "Only alerts created at or after TIME (UTC)");
    exportCommand->add_option("--output", options.output, "Write into FILE instead of standard output");

    CLI::App* follow =
        app.add_subcommand("follow", "Prints each alert as the service stores it, until Ctrl+C (or Ctrl+Break)");
    AddDb(follow, options);
    follow->add_flag("--json", options.json, "One JSON object per line");
    follow->add_option("--count", options.limit, "End after N alerts (for a script that waits for the next one)");

    CLI::App* doctor = app.add_subcommand(
        "doctor",
        "Checks the service, the database, unstored alert files, the plugins; exit code 1 when any needs attention");
    AddDb(doctor, options);
    doctor->add_option("--data", options.data,
                       "The product data folder to look in (holding Archive, Data and Log), when the service's "
                       "differs from this process's");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        return app.exit(e) == 0 ? omkalerts::kExitOk : omkalerts::kExitUsage;
    }
    if (list->parsed()) return omkalerts::ListCommand(options);
    if (show->parsed()) return omkalerts::ShowCommand(options);
    if (exportCommand->parsed()) return omkalerts::ExportCommand(options);
    if (follow->parsed()) return omkalerts::FollowCommand(options);
    return omkalerts::DoctorCommand(options);
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    OMK_SetErrorLogName(L"omk-alerts.txt");
    // The XML access layer enters the multithreaded apartment at each load;
    // held here for the whole run, so that the loads do not start COM anew.
    const HRESULT com = CoInitializeEx(nullptr, COINIT_MULTITHREADED);
    std::vector<std::string> utf8;
    for (int i = 0; i < argc; ++i) utf8.push_back(Utf8(argv[i]));
    std::vector<char*> args;
    for (std::string& arg : utf8) args.push_back(&arg[0]);
    int result = omkalerts::kExitNoDatabase;
    try {
        result = Run(argc, args.data());
    } catch (const std::exception& e) {
        omkalerts::Complain(std::string("failed: ") + e.what());
    }
    if (!omkalerts::StdOut().Flush()) result = omkalerts::kExitNoDatabase;
    if (SUCCEEDED(com)) CoUninitialize();
    return result;
}
