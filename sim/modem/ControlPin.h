#pragma once
// The modem's control pin as the emulator sees it: a file whose first character the host sets
// with "echo 0 > FILE" or "echo 1 > FILE" through a shell. The directory is watched with inotify
// (the shell truncates, writes and closes; a file replaced by rename is seen as well), and the
// file is read again after every event that concerns it. An empty or unexpected content, as
// between the shell's truncation and its write, leaves the level as it was.

#include <optional>
#include <string>

#include "Status.h"
#include "UniqueFd.h"

class CControlPin {
public:
    // Starts watching `path`; a missing file is created released ("1"), so that the host finds
    // its control pin present.
    [[nodiscard]] CStatus Open(const std::string& path);

    // Readable when the pin may have changed.
    int WatchDescriptor() const { return m_watch.Get(); }

    char Level() const { return m_level; }

    // Consumes the pending notifications; the new level if it changed.
    std::optional<char> Changed();

private:
    std::optional<char> ReadLevel() const;

    std::string m_path;
    std::string m_name;
    CUniqueFd m_watch;
    char m_level = '1';
};
