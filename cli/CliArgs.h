#pragma once

#include <QString>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace OrviaGonioManager::Cli {

// What the parser found for the command that runs: its options, its parents' options and its
// positional arguments, by name ("output", "file").
class CliArgs
{
public:
    explicit CliArgs(const CLI::App& command);

    // The command (or one of its parents) has this option.
    bool has(const QString& name) const;
    bool isSet(const QString& name) const;
    // The last value given, else the default, else an empty text.
    QString value(const QString& name) const;

private:
    const CLI::Option* find(const QString& name) const;

    const CLI::App& command_;
};

} // namespace OrviaGonioManager::Cli
