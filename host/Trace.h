#pragma once
// The host's trace: JSON Lines, one object per line, each with "t" (seconds since the trace was
// opened, a float) and "kind":
//   {"t":0.012,"kind":"event","dir":"in","type":3,"id":204,"size":11,"name":"modemloader"}
//     "in" is host to feature, "out" feature to host; "name" is the payload's name (the text of
//     200..204/207, the name field of the 68- and 65-byte records); 206 adds "percent",
//     203/205/208 add "outcome".
//   {"t":..,"kind":"log","category":"Error","channel":"ModemLoader","function":"..","file":"..",
//     "line":N,"text":".."}   (text: the message without its "(" ")" and final line end)
//   {"t":..,"kind":"cmd","line":"echo 0 > /sys/..","status":0}
//   {"t":..,"kind":"mount","device":"/dev/loop3","mountpoint":"/mnt/x","format":2,"status":0}
//   {"t":..,"kind":"umount","mountpoint":"/mnt/x","status":0}
// Written from any thread (event thread, modem-power worker); each line is flushed whole. A
// trace that was never opened writes nothing. A line that cannot be written (a full file system)
// does not stop the update: the first such failure is kept for WriteStatus, and later lines are
// still attempted.

#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <string>

#include "Event.h"
#include "Logging.h"
#include "Status.h"

class CTrace {
public:
    enum class TDirection { eIn, eOut };

    CTrace();
    ~CTrace();
    CTrace(const CTrace&) = delete;
    CTrace& operator=(const CTrace&) = delete;

    // Creates or truncates `path`.
    [[nodiscard]] CStatus Open(const std::string& path);
    bool IsOpen() const { return m_file != nullptr; }
    // Ok while every line went out whole; else why the first one did not.
    CStatus WriteStatus() const;

    void Event(TDirection direction, const TEvent& event);
    void Log(const logging::TLogRecord& record);
    void Command(const std::string& line, int status);
    void Mount(const std::string& device, const std::string& mountPoint, int format, int status);
    void Umount(const std::string& mountPoint, int status);

private:
    void Write(const std::string& kind, nlohmann::ordered_json fields);

    std::chrono::steady_clock::time_point m_start;
    mutable std::mutex m_mutex;
    FILE* m_file = nullptr;
    std::string m_path;
    int m_writeError = 0;  // errno of the first line that could not be written
};
