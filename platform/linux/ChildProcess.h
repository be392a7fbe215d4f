#pragma once
// The one owner of child processes in this tree. A CChildProcess starts a program in the
// background (Start) and owns it: it signals it, waits for it with a time-out and, when destroyed
// with the child still running, kills and reaps it, so that no child outlives its owner.
//
// CChildProcess::Run runs a program as a child process to its end: the simulated device's tools
// (mkfs.ext4, debugfs, the modem emulator's host), the host program under test, the benchmarks'
// runs. Its output is captured, or left on our own standard output and error for a person to watch;
// standard output can also be a pseudo-terminal, for programs that behave differently on a
// terminal (the terminal's output processing then turns "\n" into "\r\n"). A child that outlives
// its time-out is killed, so a hung program fails its caller instead of stalling it. Standard
// input is /dev/null.

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include "Status.h"
#include "UniqueFd.h"

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

// How a background child is started.
struct TStartOptions {
    bool inputFromNull = true;     // standard input is /dev/null; false: ours
    std::string outputPath;        // standard output (and error, unless errorPath) to this file,
                                   // created or truncated; empty: ours
    std::string errorPath;         // standard error to this file; empty: as standard output
    bool ownProcessGroup = false;  // the child leads a process group; Signal reaches it whole
    std::vector<std::string> extraEnvironment;  // "NAME=value", added to (or replacing) ours
};

// How a background child ended.
struct TChildExit {
    int exitCode = -1;  // the exit status when it exited normally, else -1
    int signal = 0;     // the signal that ended it, else 0
    rusage usage{};     // its resource usage, and that of the children it waited for
};

class CChildProcess {
public:
    CChildProcess() = default;
    // Kills (SIGKILL, to its group when it leads one) and reaps a child still running.
    ~CChildProcess();
    CChildProcess(const CChildProcess&) = delete;
    CChildProcess& operator=(const CChildProcess&) = delete;

    // Starts `arguments` (the program first; looked up in PATH when it has no slash) and returns
    // once the program has replaced the child: a program that cannot be run is a failure here.
    [[nodiscard]] CStatus Start(const std::vector<std::string>& arguments,
                                const TStartOptions& options = TStartOptions());
    // Runs `body` in a copy of this process (fork without exec), which ends with _exit(body()):
    // no destructor and no exit handler of the copy runs, as when a process dies.
    [[nodiscard]] CStatus StartCopy(const std::function<int()>& body);
    bool IsRunning() const { return m_pid > 0; }
    pid_t Pid() const { return m_pid; }

    // Sends `signal` to the child, or to its process group when it leads one. False when there
    // is no child or the signal could not be sent.
    bool Signal(int signal) const;
    // Reaps the child if it has ended: then its end, and the child is no longer running.
    std::optional<TChildExit> TryReap();
    // Waits up to `timeout` for the child's end and reaps it; none if it is still running.
    std::optional<TChildExit> Wait(std::chrono::milliseconds timeout);
    // Waits for the child's end however long it takes, and reaps it.
    TChildExit WaitToEnd();

    // Runs `arguments` (the program first; looked up in PATH when it has no slash) to its end.
    static TChildResult Run(const std::vector<std::string>& arguments,
                            const TChildOptions& options = TChildOptions());

private:
    std::optional<TChildExit> Reap(bool block);

    pid_t m_pid = -1;
    bool m_ownProcessGroup = false;
    CUniqueFd m_processFd;  // readable once the child has ended
};

// For failure messages: how it ended, and both streams.
std::string Describe(const TChildResult& result);

// Whether `program` is found in PATH (`command -v`), for callers that check their tools first.
bool IsInPath(const std::string& program);

// The environment of this process with `extra` ("NAME=value") added or replacing.
std::vector<std::string> MergedEnvironment(const std::vector<std::string>& extra);
