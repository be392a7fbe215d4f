#pragma once
// Runs a program of the simulated device (the host, mkfs.ext4, debugfs) as a child process to
// its end. Its output is captured, or left on our own standard output and error for a person to
// watch. A child that outlives its time-out is killed, so a hung program fails the caller
// instead of stalling it. Standard input is /dev/null.

#include <chrono>
#include <string>
#include <vector>

struct TProgramOptions {
    std::chrono::milliseconds timeout{60000};
    bool captureOutput = true;                  // false: the child writes to our stdout/stderr
    std::vector<std::string> extraEnvironment;  // "NAME=value", added to or replacing ours
};

struct TProgramResult {
    bool started = false;  // false: it could not be run (see error)
    bool killed = false;   // killed after the time-out
    int exitCode = -1;     // its exit status when it exited normally, else -1
    int signal = 0;        // the signal that ended it, else 0
    std::string out;
    std::string err;
    std::string error;
    double seconds = 0;  // from start to end
};

class CProgramRun {
public:
    // `arguments`: the program (searched in PATH when it has no slash), then its arguments.
    static TProgramResult Run(const std::vector<std::string>& arguments,
                              const TProgramOptions& options = TProgramOptions());
};

// "exit code N" or "killed by signal N", and the streams, for error messages.
std::string DescribeRun(const TProgramResult& result);
// The environment of this process with `extra` ("NAME=value") added or replacing.
std::vector<std::string> MergedEnvironment(const std::vector<std::string>& extra);
