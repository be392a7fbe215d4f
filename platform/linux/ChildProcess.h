#pragma once
// Runs a program as a child process for end-to-end tests: captures its stdout and stderr and its
// exit status, and kills it when it outlives a time-out (so a hang fails the test instead of
// stalling it). Standard output can be a pseudo-terminal instead of a pipe, for programs that
// behave differently on a terminal; the terminal's output processing then turns "\n" into
// "\r\n". Standard input is /dev/null.

#include <chrono>
#include <string>
#include <vector>

struct TChildOptions {
    std::chrono::milliseconds timeout{30000};
    bool stdoutOnTerminal = false;
    std::vector<std::string> extraEnvironment;  // "NAME=value", added to (or replacing) ours
    std::string workingDirectory;               // empty: ours
};

struct TChildResult {
    bool started = false;   // false: the program could not be run (see error)
    bool timedOut = false;  // killed after the time-out
    int exitCode = -1;      // the exit status when it exited normally, else -1
    int signal = 0;         // the signal that ended it, else 0
    std::string out;        // everything written to standard output
    std::string err;        // everything written to standard error
    std::string error;      // why it could not be run
};

class CChildProcess {
public:
    // Runs `arguments` (the program first; looked up in PATH when it has no slash) to its end.
    static TChildResult Run(const std::vector<std::string>& arguments,
                            const TChildOptions& options = TChildOptions());
};

// For failure messages: exit status, and both streams.
std::string Describe(const TChildResult& result);
