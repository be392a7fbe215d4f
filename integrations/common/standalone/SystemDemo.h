#pragma once
// What the update systems' demos share (modemloader-mender-demo, modemloader-swupdate-demo,
// modemloader-rauc-demo): their options, their failure line, the command lines they show, their
// device and its checks, and the interactive shell a --shell opens on the simulated device and
// the system's folder.

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "SimulatedDevice.h"
#include "Status.h"

// Parses the demo's options, `--help` and, where `shell` is given, `--shell`. Returns the exit
// status when the program is to end at once: 0 after printing `usage` for --help, 2 for an
// unknown option (usage on stderr); none to go on, with `*shell` set for --shell.
std::optional<int> ParseDemoOptions(int argc, char** argv, const std::string& program,
                                    const char* usage, bool* shell);

// Prints "PROGRAM: MESSAGE" on stderr and returns the demo's failure status, 1.
int DemoFailure(const std::string& program, const std::string& message);

// The arguments joined by blanks, for showing what is run.
std::string CommandLine(const std::vector<std::string>& arguments);

// Prints `banner`, puts `variables` (name, value) into our environment and runs an interactive
// /bin/sh on our own standard input (a person, or commands piped in), which CChildProcess would
// replace with /dev/null. Returns 0 once the shell has ended, or the failure status when it
// could not be run.
int RunDemoShell(const std::string& program, const std::string& banner,
                 const std::vector<std::pair<std::string, std::string>>& variables);

// Makes the demo's device once nothing is missing for it nor for the update system
// (`systemPrerequisite`, empty or why the system cannot run): the storage records revision 100,
// and the device's own configuration offers that revision too, so that only the update system's
// revision (124) makes the host flash. `firmwareBytes`: the firmware's size, 0 for the device's
// default.
[[nodiscard]] CStatus MakeDemoDevice(const std::string& systemPrerequisite,
                                     std::unique_ptr<CSimulatedDevice>& device,
                                     std::size_t firmwareBytes = 0);

// Prints the "=== checks" heading and whether the modem's flash equals the firmware and the
// storage records revision 124; true when both hold.
bool ReportFlashAndRevision(const CSimulatedDevice& device);
