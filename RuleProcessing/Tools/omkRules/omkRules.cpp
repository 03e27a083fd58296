// omk-rules: tools for rule authors, built on the service's own parser,
// platform filter, plugin loaders, engine and alert writer.
//   omk-rules check   what the service would make of a rule file
//   omk-rules replay  collector events run through the engine in a sandbox
#include <windows.h>

#include <stdio.h>

#include <string>
#include <vector>

#include <CLI/CLI.hpp>

#include "replay.h"
#include "ruleCheck.h"
#include "toolSupport.h"

namespace {

void AddMachineOptions(CLI::App* command, std::string* model, std::string* chassis) {
    command->add_option("--model", *model, "the machine's model text (default: this machine's)");
    command->add_option("--chassis", *chassis, "the machine's chassis class (default: this machine's)")
        ->check(CLI::IsMember({"desktop", "laptop", "unknown"}));
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
    SetConsoleOutputCP(CP_UTF8);
    std::vector<std::string> arguments;
    for (int i = 0; i < argc; ++i) arguments.push_back(Utf8(argv[i]));
    std::vector<const char*> utf8Argv;
    for (const std::string& argument : arguments) utf8Argv.push_back(argument.c_str());

    CLI::App app{"Checks rule files and replays collector events as the rules processor would."};
    app.name("omk-rules");
    app.require_subcommand(1);

    CHECK_OPTIONS check;
    CLI::App* checkCommand = app.add_subcommand(
        "check", "What the service would make of a rule file: each rule accepted or dropped and why, the settings, "
                 "the configuration blocks, the plugins, and whether it would start. Exit code 0 it would start, "
                 "1 it would not, 2 usage error or unreadable file.");
    checkCommand->add_option("--rules", check.rules, "the rule file (default: the installed insvcAlerts.xml)");
    AddMachineOptions(checkCommand, &check.model, &check.chassis);
    checkCommand->add_option("--rule-plugin", check.rulePlugins,
                             "a rule plugin, NAME or NAME=DLL (default: the registered ones)");
    checkCommand->add_option("--action-plugin", check.actionPlugins,
                             "an action plugin, NAME or NAME=DLL (default: the registered ones)");
    checkCommand->add_flag("--json", check.json, "print one JSON document");

    REPLAY_OPTIONS replay;
    CLI::App* replayCommand = app.add_subcommand(
        "replay", "Runs the events of an events file (one JSON object per line) through the engine in a sandbox "
                  "with a virtual clock. Exit code 0 all replayed (and as --expect says), 1 the engine did not start, "
                  "an event faulted or timed out, or the result differs, 2 usage error or unreadable file.");
    replayCommand->add_option("--rules", replay.rules, "the rule file")->required();
    replayCommand->add_option("--events", replay.events, "the events file")->required();
    replayCommand->add_option("--out", replay.out,
                              "an empty or new folder for the data folders (default: a temporary one, removed)");
    replayCommand->add_option("--clock", replay.clock, "the virtual clock's start, e.g. 2024-03-03T14:05:09Z (default: now)");
    AddMachineOptions(replayCommand, &replay.model, &replay.chassis);
    replayCommand->add_option("--rule-plugin", replay.rulePlugins, "a rule plugin, NAME=DLL (default: the registered ones)");
    replayCommand->add_option("--action-plugin", replay.actionPlugins,
                              "an action plugin, NAME=DLL (default: the registered ones)");
    replayCommand->add_option("--expect", replay.expect, "a golden result (--json output) to compare with");
    replayCommand->add_option("--timeout", replay.timeoutSeconds, "seconds an event may take (default 30)")
        ->check(CLI::Range(1u, 86400u));
    replayCommand->add_flag("--strict", replay.strict, "replay nothing when a line of the events file is bad");
    replayCommand->add_flag("--json", replay.json, "print one JSON document");

    // The replay's child process (see replay.h); not for people.
    REPLAY_OPTIONS worker;
    CLI::App* workerCommand = app.add_subcommand("replay-worker", "")->group("");
    workerCommand->add_option("--rules", worker.rules)->required();
    workerCommand->add_option("--out", worker.out)->required();
    workerCommand->add_option("--utc-offset", worker.utcOffsetMinutes);
    AddMachineOptions(workerCommand, &worker.model, &worker.chassis);
    workerCommand->add_option("--rule-plugin", worker.rulePlugins);
    workerCommand->add_option("--action-plugin", worker.actionPlugins);

    try {
        app.parse(static_cast<int>(utf8Argv.size()), utf8Argv.data());
    } catch (const CLI::ParseError& e) {
        int code = app.exit(e);
        return code == 0 ? OMK_EXIT_OK : OMK_EXIT_USAGE;
    }
    if (*checkCommand) return RunCheck(check);
    if (*replayCommand) return RunReplay(replay);
    return RunReplayWorker(worker);
}
