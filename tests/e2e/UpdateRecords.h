#pragma once
// What an end-to-end test compares: the host's trace turned into short lines, one per record,
// with the device's directory taken out of paths ("mount movinand.img on mnt ok").
//
// The trace is split in two. The event thread's records (events, the module's and loaders' log
// records, mounts) come in an order the update fixes. The modem power control's records (the
// shell commands on the control pin and the log records of CModemPower) are written by its own
// worker thread, which runs beside the event thread and may still be working when the host
// exits after its result: they are compared on their own, and the ones that may be cut off by
// the exit are allowed to be missing from the end.

#include <nlohmann/json.hpp>
#include <string>
#include <vector>

// "in 200", "out 206 45%", "out 205 outcome 1", "Error Configure: error writing baudrate to
// modem", "mount movinand.img on mnt ok", "umount mnt failed", "cmd echo 0 > control = 0".
std::string RecordLine(const nlohmann::json& record, const std::string& deviceDirectory);

// The event thread's records, in order.
std::vector<std::string> UpdateLines(const std::vector<nlohmann::json>& trace,
                                     const std::string& deviceDirectory);
// The modem power control's records, in order.
std::vector<std::string> PowerLines(const std::vector<nlohmann::json>& trace,
                                    const std::string& deviceDirectory);

// True when `actual` is `certain` followed by a prefix (possibly empty) of `mayFollow`.
bool IsCertainThenPrefix(const std::vector<std::string>& actual,
                         const std::vector<std::string>& certain,
                         const std::vector<std::string>& mayFollow);

// Pieces of the expected event-thread lines of an image-loader update.
namespace expected {
// Init, Prepare with the revision check (`storedRevision`), Install.
std::vector<std::string> PrepareAndInstall(const std::string& storedRevision);
// The device tree says there is an integrated GPRS modem.
std::vector<std::string> ModemInDeviceTree();
std::vector<std::string> SyncAndLoader();  // echo noticed (5%), loader accepted (10%)
// Each progress report of the firmware's chunks, as the host's percentages.
std::vector<std::string> ChunkProgress(std::size_t firmwareBytes);
// The fake loader's twenty ticks: 5% to 100%.
std::vector<std::string> FakeLoaderProgress();
// Completion through the module with a control pin: the revision written (and sources removed).
std::vector<std::string> CompletionWithRevision();
// The event thread's lines of a complete image-loader update from the stored revision "100".
std::vector<std::string> CompleteFlash(std::size_t firmwareBytes);
// The emulator's commands of a complete download of `firmwareBytes`.
nlohmann::json CompleteCommands(std::size_t firmwareBytes);
// Concatenation.
std::vector<std::string> Join(std::initializer_list<std::vector<std::string>> parts);
}  // namespace expected

// For failure messages: the lines one per row.
std::string Listing(const std::vector<std::string>& lines);
