#pragma once
// Records a loader's call-backs in order as text: "Progress(95,100)", "Completed(1)",
// "Aborted()". Thread-safe.

#include <mutex>
#include <string>
#include <vector>

#include "LoaderCallback.h"

class CRecordingLoaderCallback : public ILoaderCallback {
public:
    void Progress(unsigned int remaining, unsigned int total) override;
    void Completed(int result) override;
    void Aborted() override;

    std::vector<std::string> Calls() const;
    std::vector<unsigned int> ProgressRemaining() const;  // first arguments of Progress, in order
    int CompletedCount() const;

private:
    void Record(const std::string& call);

    mutable std::mutex m_mutex;
    std::vector<std::string> m_calls;
    std::vector<unsigned int> m_remaining;
};
