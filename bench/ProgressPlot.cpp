#include "ProgressPlot.h"

#include <fstream>

#include "ChildProcess.h"

namespace {
constexpr int kInstallRequest = 204;
constexpr int kProgressReport = 206;

// Seconds of the host's Install request on its trace clock; -1 when it is missing.
double InstallSeconds(const THostRun& host) {
    for (const nlohmann::json& line : host.trace) {
        if (line.value("kind", "") == "event" && line.value("id", 0) == kInstallRequest) {
            return line.value("t", 0.0);
        }
    }
    return -1;
}
}  // namespace

CStatus CProgressPlot::Write(const TUpdateMeasurement& run, double lineBytesPerSecond,
                             const std::string& title, const std::string& pngPath,
                             const std::string& scratchFolder) {
    const std::string bytesData = scratchFolder + "/modem-bytes.dat";
    const std::string percentData = scratchFolder + "/host-percent.dat";
    const std::string script = scratchFolder + "/progress.gnuplot";
    {
        std::ofstream bytes(bytesData);
        bytes << "# seconds since the first firmware byte, KiB received by the modem\n";
        for (const auto& [seconds, received] : run.transfer.progress) {
            bytes << seconds << " " << static_cast<double>(received) / 1024 << "\n";
        }
        std::ofstream percent(percentData);
        percent << "# seconds since Install, completed percent reported (206)\n";
        const double install = InstallSeconds(run.host);
        for (const nlohmann::json& line : run.host.trace) {
            if (line.value("kind", "") == "event" && line.value("id", 0) == kProgressReport) {
                percent << line.value("t", 0.0) - install << " " << line.value("percent", 0)
                        << "\n";
            }
        }
        if (!bytes || !percent) {
            return CStatus::Failure("writing the plot's data under " + scratchFolder);
        }
    }
    const double kibPerSecond = lineBytesPerSecond / 1024;
    std::ofstream commands(script);
    commands << "set terminal pngcairo size 900,700 font 'sans,10'\n"
             << "set output '" << pngPath << "'\n"
             << "set multiplot layout 2,1 title '" << title << "'\n"
             << "set grid\n"
             << "set key left top\n"
             << "set xrange [0:*]\n"
             << "set xlabel 'seconds since the first firmware byte (modem clock)'\n"
             << "set ylabel 'KiB received by the modem'\n"
             // The limit first and broad, so that a transfer running at it stays visible on it.
             << "plot " << kibPerSecond
             << " * x with lines lw 6 lc rgb '#c0c0c0' title 'line limit "
             << static_cast<long>(lineBytesPerSecond) << " B/s', '" << bytesData
             << "' using 1:2 with lines lw 2 lc rgb '#9400d3' title 'firmware received'\n"
             << "set xlabel 'seconds since Install (host clock)'\n"
             << "set ylabel 'completed % (event 206)'\n"
             << "set yrange [0:105]\n"
             << "plot '" << percentData
             << "' using 1:2 with steps lw 2 title 'progress reported to the host'\n"
             << "unset multiplot\n";
    commands.close();
    if (!commands) {
        return CStatus::Failure("writing " + script);
    }
    const TChildResult plotted = CChildProcess::Run({"gnuplot", script});
    if (plotted.exitCode != 0) {
        return CStatus::Failure("gnuplot " + script + ": " + Describe(plotted));
    }
    return CStatus::Ok();
}
