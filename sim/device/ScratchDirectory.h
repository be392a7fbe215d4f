#pragma once
// A fresh directory under /tmp that holds one simulated device; removed with everything in it
// when the object goes. The owner makes sure nothing is mounted inside it by then.

#include <string>

#include "Status.h"

class CScratchDirectory {
public:
    CScratchDirectory() = default;
    ~CScratchDirectory();
    CScratchDirectory(const CScratchDirectory&) = delete;
    CScratchDirectory& operator=(const CScratchDirectory&) = delete;

    // Makes the directory from `prefix` ("/tmp/modemloader-device-").
    [[nodiscard]] CStatus Make(const std::string& prefix);
    const std::string& Path() const { return m_path; }
    std::string Join(const std::string& name) const { return m_path + "/" + name; }

    // Writes `content` to Path()/name, replacing it.
    [[nodiscard]] CStatus WriteFile(const std::string& name, const std::string& content) const;

private:
    std::string m_path;
};

// The whole content of `path`.
[[nodiscard]] CStatus ReadWholeFile(const std::string& path, std::string& content);
