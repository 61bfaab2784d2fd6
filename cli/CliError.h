#pragma once

#include <QString>

namespace OrviaGonioManager::Cli {

// The exit codes, as --help documents them.
enum ExitCode
{
    EXIT_DONE = 0,
    EXIT_DEVICE = 1, // the device answered with an error, or a request timed out
    EXIT_USAGE = 2,  // usage, or a bad input file
    EXIT_PORT = 3,   // no receiver, several, or the port cannot be opened
    EXIT_STREAM = 4, // the MQTT broker refused the station, or the spool cannot be written
    EXIT_STORE = 5,  // the message store cannot be opened or written, or it failed its check
};

// A failure that ends the program with its code; the message goes to standard error.
struct CliError
{
    CliError(ExitCode code, const QString& message, int line = 0, const QString& field = {})
        : code(code), message(message), line(line), field(field)
    {}

    ExitCode code;
    QString message;
    int line = 0;  // of the input file, when there is one
    QString field; // of that line, or the option
};

} // namespace OrviaGonioManager::Cli
