#pragma once
// The figures of the benchmark table, measured one after another: the line-rate update (figure 1,
// whose runs also give the CPU figures 3a and 3b and the plot), the tick-limited update (2), the
// 64 MiB update for memory (4a, 4b), the archive copy against cp (5), the footprint (6) and what
// each update system adds to an update (7). Each is measured `runs` times; progress lines go to
// stderr as the runs finish.

#include <cstddef>
#include <set>
#include <string>

#include "ResultTable.h"
#include "Status.h"

struct TBenchOptions {
    std::string output = ".";  // where results.md and the plot go
    unsigned runs = 3;
    std::set<int> figures{1, 2, 3, 4, 5, 6, 7};
    // The armhf build's plug-in for the target's footprint row (6b); none when empty.
    std::string targetPlugin;
    bool help = false;
};

class CBenchFigures {
public:
    static constexpr char kPlotFile[] = "line-rate-progress.png";

    explicit CBenchFigures(const TBenchOptions& options) : m_options(options) {}

    // Measures every figure asked for; stops at the first that cannot be measured.
    [[nodiscard]] CStatus Run();

    const CResultTable& Table() const { return m_table; }
    // Markdown for below the table (the plug-in's libraries).
    const std::string& Notes() const { return m_notes; }
    bool Plotted() const { return m_plotted; }

private:
    bool Wanted(int figure) const { return m_options.figures.count(figure) != 0; }
    std::string RunLabel(unsigned run) const;

    CStatus LineRate();
    CStatus TickLimited();
    CStatus Memory();
    CStatus ArchiveCopy();
    CStatus Footprint();
    CStatus UpdateSystems();
    // Row 6b, compared with the x86-64 plug-in's stripped size.
    CStatus TargetFootprint(std::size_t nativeStrippedBytes);

    const TBenchOptions& m_options;
    CResultTable m_table;
    std::string m_notes;
    bool m_plotted = false;
};
