// modemloader-host: loads a feature plug-in and acts as its update controller.
// See docs/modemloader-host.md and `modemloader-host --help`.

#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <exception>
#include <memory>
#include <string>

#include "CommandLine.h"
#include "ConsoleLog.h"
#include "FilePermissions.h"
#include "HostConfig.h"
#include "IniProperties.h"
#include "InstalledBackend.h"
#include "LinuxCmdHandler.h"
#include "LinuxEventBroker.h"
#include "LinuxFileHandler.h"
#include "LinuxSerialPortFactory.h"
#include "PluginLibrary.h"
#include "ProcessThreads.h"
#include "ProgressDisplay.h"
#include "StopSignals.h"
#include "Trace.h"
#include "TracingCmdHandler.h"
#include "TracingEventBroker.h"
#include "TracingFileHandler.h"
#include "TracingLog.h"
#include "UpdateController.h"

namespace {
constexpr char kProgram[] = "modemloader-host";
constexpr char kExpectedFeatureType[] = "modemloader";
// Longer than the longest a power worker runs on after its attempt was given up: the rest of
// its acknowledge wait (1.3 s), 1 s, and a switch-off pulse of 6 s and 1 s.
constexpr std::chrono::milliseconds kFeatureThreadsGrace(15000);

int HostError(const std::string& message) {
    std::fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
    return CUpdateController::eHostError;
}

void ReportError(const std::string& message) {
    std::fprintf(stderr, "%s: %s\n", kProgram, message.c_str());
}

CStatus LoadFeaturePlugin(const std::string& path, std::unique_ptr<CPluginLibrary>& plugin) {
    if (CStatus status = CPluginLibrary::Open(path, plugin); !status) {
        return status;
    }
    const std::string type = plugin->FeatureType();
    if (type != kExpectedFeatureType) {
        plugin.reset();
        return CStatus::Failure("plug-in " + path + ": a feature of type '" + type + "', not '" +
                                kExpectedFeatureType + "'");
    }
    return CStatus::Ok();
}

// A configuration or plug-in that anyone but root or the invoking user could change is refused
// before it is read or loaded (FilePermissions.h), unless the command line says otherwise.
CStatus CheckTrusted(const THostOptions& options, const std::string& role,
                     const std::string& path) {
    if (options.insecurePermissions) {
        return CStatus::Ok();
    }
    return CFilePermissions::CheckTrusted(role, path, ::getuid());
}

int Info(const THostOptions& options) {
    if (CStatus status = CheckTrusted(options, "plug-in", *options.pluginPath); !status) {
        return HostError(status.Message());
    }
    std::unique_ptr<CPluginLibrary> plugin;
    if (CStatus status = CPluginLibrary::Open(*options.pluginPath, plugin); !status) {
        return HostError(status.Message());
    }
    std::printf("plugin: %s\nfeature type: %s\nentry points: %s, %s\n", plugin->Path().c_str(),
                plugin->FeatureType().c_str(), kFeatureTypeSymbol, kFeatureCreate2Symbol);
    // Any feature plug-in may be inspected (one built against the platform SDK, say); only
    // `update` insists on a modem loader.
    return 0;
}

class CNoInterfaces : public IInterfaceBroker {};

int Update(const THostOptions& options) {
    // Before any thread starts, so that every thread keeps SIGINT and SIGTERM blocked and only
    // the stop-signal watcher reads them.
    CStopSignals::Block();
    if (CStatus status = CheckTrusted(options, "configuration", options.configPath); !status) {
        return HostError(status.Message());
    }
    CIniProperties properties;
    if (CStatus status = properties.Load(options.configPath); !status) {
        return HostError("configuration " + status.Message());
    }
    THostConfig config;
    if (CStatus status = CHostConfig::Read(properties, options.configPath, config); !status) {
        return HostError("configuration " + status.Message());
    }
    if (options.pluginPath) {
        config.pluginPath = *options.pluginPath;
    }
    if (options.feature) {
        config.feature = *options.feature;
    }
    if (options.tickMs) {
        config.tickMs = *options.tickMs;
    }
    if (config.pluginPath.empty()) {
        return HostError("no plug-in: give --plugin PATH or [host] plugin in " +
                         options.configPath);
    }
    if (config.feature.empty() || config.feature.size() >= kControllerNameSize) {
        return HostError("feature name '" + config.feature + "' must have 1 to " +
                         std::to_string(kControllerNameSize - 1) + " characters");
    }

    if (CStatus status = CheckTrusted(options, "plug-in", config.pluginPath); !status) {
        return HostError(status.Message());
    }

    CTrace trace;
    if (!options.tracePath.empty()) {
        if (CStatus status = trace.Open(options.tracePath); !status) {
            return HostError(status.Message());
        }
    }
    const bool toStderr = config.log == THostConfig::TLogTarget::eStderr ||
                          config.log == THostConfig::TLogTarget::eBoth;
    const bool toSyslog = config.log == THostConfig::TLogTarget::eSyslog ||
                          config.log == THostConfig::TLogTarget::eBoth;
    std::unique_ptr<CConsoleLog> console;
    if (toStderr || toSyslog) {
        console = std::make_unique<CConsoleLog>(toStderr ? stderr : nullptr, toSyslog);
    }
    CTracingLog log(trace, console.get());
    CInstalledLog installedLog(&log);

    CLinuxFileHandler fileHandler(config.fsTypes);
    CTracingFileHandler tracingFileHandler(fileHandler, trace);
    CInstalledFileHandler installedFileHandler(&tracingFileHandler);
    CLinuxCmdHandler cmdHandler;
    CTracingCmdHandler tracingCmdHandler(cmdHandler, trace);
    CInstalledCmdHandler installedCmdHandler(&tracingCmdHandler);
    CLinuxSerialPortFactory serialPorts(std::chrono::milliseconds(config.serialReadTimeoutMs),
                                        &ReportError);
    CInstalledSerialPorts installedSerialPorts(&serialPorts);

    std::unique_ptr<CPluginLibrary> plugin;
    if (CStatus status = LoadFeaturePlugin(config.pluginPath, plugin); !status) {
        return HostError(status.Message());
    }

    // The host's own threads, before the broker's and the feature's: whatever runs beyond them
    // once the broker is stopped belongs to the feature.
    // The stop-signal watcher, started once the controller exists, is the host's too.
    const std::size_t hostThreads = CProcessThreads::Count() + 1;
    CEventBroker broker(std::chrono::milliseconds(config.tickMs), &ReportError);
    if (CStatus status = broker.Start(); !status) {
        return HostError(status.Message());
    }
    CTracingEventBroker featureBroker(broker, trace);
    const CProgressDisplay::TMode mode = options.quiet ? CProgressDisplay::TMode::eQuiet
                                         : ::isatty(STDOUT_FILENO) == 1
                                             ? CProgressDisplay::TMode::eTerminal
                                             : CProgressDisplay::TMode::ePlain;
    CProgressDisplay progress(stdout, mode, config.feature);
    CUpdateController controller(broker, config.feature, trace, progress);
    // After the controller, so that its watcher has ended before the controller goes.
    CStopSignals stopSignals;
    if (CStatus status =
            stopSignals.Start([&controller](int signal) { return controller.Stop(signal); });
        !status) {
        return HostError(status.Message());
    }

    CNoInterfaces interfaces;
    std::unique_ptr<IFeatureModule2> module(
        plugin->Create(config.feature, interfaces, featureBroker, properties));
    if (!module) {
        return HostError("plug-in " + config.pluginPath + ": FeatureCreate2 made no module");
    }

    CUpdateController::TSettings settings;
    settings.timeout = std::chrono::duration<double>(options.timeoutSeconds);
    if (options.abortAfterMs) {
        settings.abortAfter = std::chrono::milliseconds(*options.abortAfterMs);
    }
    std::string summary;
    const CUpdateController::TExitCode result = controller.Run(settings, summary);
    // A trace that could not be written does not change the update's outcome, but whoever reads
    // it must know that lines are missing.
    if (CStatus status = trace.WriteStatus(); !status) {
        ReportError(status.Message() + "; the trace is incomplete");
    }

    // No delivery may run while the module goes, and none after: the module leaves its Init
    // subscription behind on purpose, so the broker must be stopped before the module is deleted.
    // This path leaves through _Exit, which writes no coverage counters: the coverage report
    // leaves it out, and HostProgramTest's time-out test checks what it does.
    // GCOVR_EXCL_START
    if (result == CUpdateController::eTimedOut) {
        // The feature may be inside a delivery that never returns (the image loader polls a
        // modem that never answers its loader download): the broker cannot be stopped nor the
        // module deleted, so the host leaves without waiting for them. The trace is flushed
        // line by line already.
        progress.Finish(summary);
        ReportError(summary);
        std::fflush(stdout);
        std::fflush(stderr);
        std::_Exit(result);
    }
    // GCOVR_EXCL_STOP
    broker.Stop();
    // A feature's threads work on the module object (the modem loader's power worker of a
    // given-up attempt still switches the modem off), so it is deleted once they have ended.
    if (!CProcessThreads::AwaitAtMost(hostThreads, kFeatureThreadsGrace)) {
        ReportError("the feature's threads still run after " +
                    std::to_string(kFeatureThreadsGrace.count()) +
                    " ms; deleting the module regardless");
    }
    module.reset();

    progress.Finish(summary);
    return result;
}
}  // namespace

int main(int argc, char** argv) {
    try {
        THostOptions options;
        if (CStatus status = CCommandLine::Parse(argc, argv, options); !status) {
            std::fprintf(stderr, "%s: %s (see %s --help)\n", kProgram, status.Message().c_str(),
                         kProgram);
            return CUpdateController::eHostError;
        }
        switch (options.command) {
            case THostOptions::TCommand::eHelp:
                std::fputs(CCommandLine::Usage().c_str(), stdout);
                return 0;
            case THostOptions::TCommand::eInfo:
                return Info(options);
            case THostOptions::TCommand::eUpdate:
                return Update(options);
        }
    } catch (const std::exception& exception) {
        return HostError(std::string("internal error: ") + exception.what());
    }
    return CUpdateController::eHostError;
}
