#pragma once
// A picture of one line-rate update, drawn with gnuplot: above, the firmware bytes the modem
// received over time beside the line's limit (a straight line at its byte rate from the first
// firmware byte); below, the completed percentage the host was told (206) over the time since it
// sent Install. The two panels keep their own clocks (the modem's and the host's), since the two
// processes share none.

#include <string>

#include "Status.h"
#include "UpdateBenchmark.h"

class CProgressPlot {
public:
    // Writes `pngPath`; its data and script go to `scratchFolder`.
    [[nodiscard]] static CStatus Write(const TUpdateMeasurement& run, double lineBytesPerSecond,
                                       const std::string& title, const std::string& pngPath,
                                       const std::string& scratchFolder);
};
