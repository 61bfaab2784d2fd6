#pragma once

// A GnxLink connected over a pseudo-terminal to an in-process gnxsim receiver.

#include "com/GnxLink.h"
#include "com/TestSupport.h"
#include "sim/PtySimulator.h"

#include <QBuffer>
#include <QTest>

#include <memory>

#include "utils/GpsFormat.h"

struct SimLink
{
    std::unique_ptr<gnxsim::PtySimulator> sim;
    std::unique_ptr<OrviaGonioManager::Com::GnxLink> link;

    // Starts the receiver, connects, identifies it, and forgets the identification's commands.
    bool start(const gnxsim::Options& options, bool identify = true)
    {
        stop();
        sim = std::make_unique<gnxsim::PtySimulator>(options);
        if (!sim->start()) {
            qWarning("gnxsim: %s", qPrintable(sim->errorString()));
            return false;
        }
        link = std::make_unique<OrviaGonioManager::Com::GnxLink>();
        link->openConnection(sim->slavePath());
        if (identify)
            link->readDeviceInfo();
        sim->clearReceived();
        return true;
    }

    void stop()
    {
        if (link)
            link->closeConnection();
        link.reset();
        sim.reset();
    }

    ~SimLink() { stop(); }
};

// GPS formats are one collection for the whole process: start each case from an empty one.
inline void clearGpsFormats()
{
    QByteArray empty("0\n");
    QBuffer buffer(&empty);
    buffer.open(QIODevice::ReadOnly);
    OrviaGonioManager::Utils::GpsFormat::instance()->readGpsFormats(buffer);
}

inline gnxsim::Options simOptions(gnxsim::Model model, gnxsim::Mode mode = gnxsim::Mode::App,
                                  int platforms = 0)
{
    gnxsim::Options o;
    o.model = model;
    o.mode = mode;
    o.platforms = platforms;
    return o;
}

// Runs an operation that must throw; returns its message (empty and a failure when it does not).
template <class F> QString thrownMessage(F f)
{
    try {
        f();
    } catch (const MRL::Utils::Exception& e) {
        return e.message();
    }
    return QString();
}
