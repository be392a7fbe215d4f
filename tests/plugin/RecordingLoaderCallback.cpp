#include "RecordingLoaderCallback.h"

void CRecordingLoaderCallback::Progress(unsigned int remaining, unsigned int total) {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_remaining.push_back(remaining);
    }
    Record("Progress(" + std::to_string(remaining) + "," + std::to_string(total) + ")");
}

void CRecordingLoaderCallback::Completed(int result) {
    Record("Completed(" + std::to_string(result) + ")");
}

void CRecordingLoaderCallback::Aborted() { Record("Aborted()"); }

std::vector<std::string> CRecordingLoaderCallback::Calls() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_calls;
}

std::vector<unsigned int> CRecordingLoaderCallback::ProgressRemaining() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_remaining;
}

int CRecordingLoaderCallback::CompletedCount() const {
    int count = 0;
    for (const std::string& call : Calls()) {
        count += call.rfind("Completed(", 0) == 0;
    }
    return count;
}

void CRecordingLoaderCallback::Record(const std::string& call) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_calls.push_back(call);
}
