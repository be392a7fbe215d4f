#pragma once
// The command line of modem-sim.

#include <chrono>
#include <string>
#include <vector>

#include "ModemFaults.h"
#include "Status.h"

struct TOptions {
    std::string link;
    std::string control;
    std::string ready;
    std::string loader;
    std::string flashOut;
    unsigned baud = 0;  // 0: as fast as the pseudo-terminal
    bool initiallyOn = false;
    bool nonVolatileFlash = false;
    std::chrono::milliseconds powerOn{100};
    std::chrono::milliseconds bootWindow{2000};
    std::chrono::milliseconds erase{200};
    std::chrono::milliseconds program{5};
    TModemFaults faults;
    std::string trace;
    std::string summary;
    bool help = false;
};

// Parses the arguments after the program name. With "--help" anywhere, only help is set.
[[nodiscard]] CStatus ParseOptions(const std::vector<std::string>& arguments, TOptions& options);

std::string UsageText();
