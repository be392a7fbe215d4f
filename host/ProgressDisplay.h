#pragma once
// Shows the feature's progress to a person.
//
// On a terminal: one line redrawn in place,
//   "modemloader [##########          ]  50%  step 10  0:02.4"
// (the bar, the percentage, the number of progress reports so far, the elapsed time), finished
// with a line end when the update ends. Elsewhere: one plain line per change of percentage,
//   "modemloader: 50% (step 10, 2.4 s)"
// Quiet: nothing. Called from the event-delivery thread and the main thread.

#include <chrono>
#include <cstdio>
#include <mutex>
#include <string>

class CProgressDisplay {
public:
    enum class TMode { eTerminal, ePlain, eQuiet };

    CProgressDisplay(FILE* stream, TMode mode, std::string feature);

    void Progress(unsigned percent);
    // Ends the display with a closing line, e.g. "modemloader: update succeeded (2.4 s)".
    void Finish(const std::string& result);

    static std::string Bar(unsigned percent, unsigned width);

private:
    double ElapsedSeconds() const;

    FILE* m_stream;
    TMode m_mode;
    std::string m_feature;
    std::chrono::steady_clock::time_point m_start;
    std::mutex m_mutex;
    unsigned m_steps = 0;
    int m_lastPercent = -1;
    bool m_lineOpen = false;
};
