// omk-rules replay: collector events of an events file handed to the real
// engine (Tolvane_Init, the service's ITolvane object, Tolvane_HandleEvents,
// the plugins, the alert writer and the alert database) in a sandbox, with a
// virtual clock; the result compared with a golden file on request.
//
// The engine runs in a child process of the tool, `omk-rules replay-worker`,
// fed one event at a time over a pipe. A plugin that faults there ends that
// process only: the tool reports the fault and goes on with the next event in
// a new one (started again from the rule file; trigger counts start again).
// A plugin that never returns is ended the same way after --timeout. Guarding
// the calls inside one process could not do the second: a thread stuck in a
// plugin cannot be stopped safely.
#pragma once

#include <string>
#include <vector>

struct REPLAY_OPTIONS {
    std::string rules;
    std::string events;
    std::string out;    // empty: a new temporary folder, removed at the end
    std::string clock;  // ISO 8601; empty: now
    std::string model;
    std::string chassis;
    std::vector<std::string> rulePlugins;  // NAME=DLL; none: the registry
    std::vector<std::string> actionPlugins;
    std::string expect;
    unsigned int timeoutSeconds = 30;
    bool strict = false;
    bool json = false;
    // Given by the tool to its worker only.
    int utcOffsetMinutes = 0;
};

// Prints the result; 0 when every event was replayed (and matches --expect),
// 1 when the engine did not start, an event faulted or timed out, or the
// result differs, 2 for a usage error, an unreadable file or (--strict) a bad
// line of the events file.
int RunReplay(const REPLAY_OPTIONS& options);

// The child process: the engine in the sandbox `options.out`, events in on
// standard input, results out on standard output, one JSON object per line.
int RunReplayWorker(const REPLAY_OPTIONS& options);
