#pragma once
// The command line of the programs built on the simulated device (modemloader-demo,
// modemloader-bench), parsed with CLI11: help asked for, a wrong command line with CLI11's
// message, or the grammar's options filled in.

#include <CLI/CLI.hpp>
#include <string>

enum class TParsedArguments { eOptions, eHelp, eError };

// `help` is set with eHelp, `error` with eError.
inline TParsedArguments ParseArguments(CLI::App& app, int argc, char** argv, std::string& help,
                                       std::string& error) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        help = app.help();
        return TParsedArguments::eHelp;
    } catch (const CLI::ParseError& parseError) {
        error = parseError.what();
        return TParsedArguments::eError;
    }
    return TParsedArguments::eOptions;
}
