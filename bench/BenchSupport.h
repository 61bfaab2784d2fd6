#pragma once

#include "app/Settings.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>
#include <memory>
#include <unistd.h>

// Benchmarks run in a scratch directory (the settings file is looked for relative to the working
// directory) with a quiet link: no debug traces, no keep-alive traffic on the wire.
inline std::unique_ptr<QTemporaryDir> enterBenchSandbox()
{
    auto dir = std::make_unique<QTemporaryDir>();
    QDir(dir->path()).mkdir(QStringLiteral("run"));
    QDir::setCurrent(dir->filePath(QStringLiteral("run")));
    // The user's own preferences and kept messages stay as they are: a window here keeps its
    // messages in the sandbox.
    qputenv("XDG_CONFIG_HOME", dir->filePath(QStringLiteral("config")).toLocal8Bit());
    qputenv("XDG_DATA_HOME", dir->filePath(QStringLiteral("data")).toLocal8Bit());
    auto& settings = OrviaGonioManager::Utils::Settings::instance();
    settings.printAtCmdDebugInfo = false;
    settings.printUartDebugInfo = false;
    settings.keepAlivePeriodMs = 0;
    return dir;
}

// A window connects only with a GPS formats file at hand: an empty one, beside the sandbox's run
// directory, spares it the message box a missing one brings.
inline bool writeEmptyFormats(const QTemporaryDir& sandbox)
{
    QDir(sandbox.path()).mkdir(QStringLiteral("Data"));
    QFile formats(sandbox.filePath(QStringLiteral("Data/format.vtl")));
    return formats.open(QIODevice::WriteOnly) && formats.write("0\n") == 2;
}

inline double msSince(const QElapsedTimer& t)
{
    return double(t.nsecsElapsed()) / 1e6;
}

// Resident memory of this process, in MB.
inline double residentMb()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    if (!statm.open(QIODevice::ReadOnly))
        return 0.0;
    return statm.readAll().split(' ').value(1).toDouble() * double(sysconf(_SC_PAGESIZE)) / 1e6;
}
