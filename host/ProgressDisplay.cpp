#include "ProgressDisplay.h"

#include <algorithm>

namespace {
constexpr unsigned kBarWidth = 20;
}

CProgressDisplay::CProgressDisplay(FILE* stream, TMode mode, std::string feature)
    : m_stream(stream),
      m_mode(mode),
      m_feature(std::move(feature)),
      m_start(std::chrono::steady_clock::now()) {}

std::string CProgressDisplay::Bar(unsigned percent, unsigned width) {
    const unsigned filled = std::min(percent, 100u) * width / 100;
    return "[" + std::string(filled, '#') + std::string(width - filled, ' ') + "]";
}

double CProgressDisplay::ElapsedSeconds() const {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
}

void CProgressDisplay::Progress(unsigned percent) {
    std::lock_guard<std::mutex> lock(m_mutex);
    ++m_steps;
    const double elapsed = ElapsedSeconds();
    if (m_mode == TMode::eTerminal) {
        const int minutes = static_cast<int>(elapsed / 60);
        std::fprintf(m_stream, "\r%s %s %3u%%  step %u  %d:%04.1f", m_feature.c_str(),
                     Bar(percent, kBarWidth).c_str(), percent, m_steps, minutes,
                     elapsed - minutes * 60);
        m_lineOpen = true;
        std::fflush(m_stream);
    } else if (m_mode == TMode::ePlain && static_cast<int>(percent) != m_lastPercent) {
        std::fprintf(m_stream, "%s: %u%% (step %u, %.1f s)\n", m_feature.c_str(), percent, m_steps,
                     elapsed);
        std::fflush(m_stream);
    }
    m_lastPercent = static_cast<int>(percent);
}

void CProgressDisplay::Finish(const std::string& result) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_mode == TMode::eQuiet) {
        return;
    }
    if (m_lineOpen) {
        std::fputc('\n', m_stream);
        m_lineOpen = false;
    }
    std::fprintf(m_stream, "%s: %s (%.1f s)\n", m_feature.c_str(), result.c_str(),
                 ElapsedSeconds());
    std::fflush(m_stream);
}
