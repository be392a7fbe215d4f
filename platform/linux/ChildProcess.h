#pragma once
// Runs a program as a child process to its end: the simulated device's tools (mkfs.ext4,
// debugfs, the modem emulator's host), the host program under test, the benchmarks' runs.
// Its output is captured, or left on our own standard output and error for a person to watch;
// standard output can also be a pseudo-terminal, for programs that behave differently on a
// terminal (the terminal's output processing then turns "\n" into "\r\n"). A child that outlives
// its time-out is killed, so a hung program fails its caller instead of stalling it. Standard
// input is /dev/null.

#include <chrono>
#include <string>
#include <vector>

struct TChildOptions {
    std::chrono::milliseconds timeout{30000};
    bool captureOutput = true;                  // false: the child writes to our stdout and stderr
    bool stdoutOnTerminal = false;              // with captureOutput: stdout is a pseudo-terminal
    std::vector<std::string> extraEnvironment;  // "NAME=value", added to (or replacing) ours
    std::string workingDirectory;               // empty: ours
};

struct TChildResult {
    bool started = false;   // false: the program could not be run (see error)
    bool timedOut = false;  // killed after the time-out
    int exitCode = -1;      // the exit status when it exited normally, else -1
    int signal = 0;         // the signal that ended it, else 0
    std::string out;        // everything written to standard output, when captured
    std::string err;        // everything written to standard error, when captured
    std::string error;      // why it could not be run
    double seconds = 0;     // from start to end
};

class CChildProcess {
public:
    // Runs `arguments` (the program first; looked up in PATH when it has no slash) to its end.
    static TChildResult Run(const std::vector<std::string>& arguments,
                            const TChildOptions& options = TChildOptions());
};

// For failure messages: how it ended, and both streams.
std::string Describe(const TChildResult& result);

// Whether `program` is found in PATH (`command -v`), for callers that check their tools first.
bool IsInPath(const std::string& program);

// The environment of this process with `extra` ("NAME=value") added or replacing.
std::vector<std::string> MergedEnvironment(const std::vector<std::string>& extra);
