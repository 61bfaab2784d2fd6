#pragma once

#include "sim/Device.h"

#include <QElapsedTimer>
#include <QMutex>

namespace gnxsim {

// What the API side and the emulator thread share; every member is guarded by mutex.
struct SimulatorShared
{
    explicit SimulatorShared(const Options& options) : device(options) { clock.start(); }

    // Runs the device clock up to now. Call with the mutex held.
    void sync()
    {
        const qint64 now = clock.elapsed();
        device.advance(now - lastSync);
        lastSync = now;
    }
    // Writes the state file when something changed since the last save. Call with the mutex held.
    bool save(QString* error, bool force = false);
    bool load(QString* error);

    mutable QMutex mutex;
    Device device;
    QElapsedTimer clock;
    qint64 lastSync = 0;
    QString slavePath;
    QString statePath;
    quint64 savedRevision = 0;
};

} // namespace gnxsim
