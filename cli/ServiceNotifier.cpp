#include "cli/ServiceNotifier.h"

#include <systemd/sd-daemon.h>

namespace OrviaGonioManager::Cli {

ServiceNotifier::ServiceNotifier(QObject* parent) : QObject(parent)
{
    uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) <= 0 || usec == 0)
        return;
    // From the event loop: a loop that hangs stops feeding it, and systemd restarts the station.
    watchdog_.setInterval(int(qMax<uint64_t>(usec / 2000, 1)));
    connect(&watchdog_, &QTimer::timeout, this, [] { sd_notify(0, "WATCHDOG=1"); });
    watchdog_.start();
    sd_notify(0, "WATCHDOG=1");
}

ServiceNotifier::~ServiceNotifier()
{
    if (ready_)
        sd_notify(0, "STOPPING=1");
}

void ServiceNotifier::ready()
{
    if (ready_)
        return;
    ready_ = true;
    sd_notify(0, "READY=1");
}

void ServiceNotifier::status(const QString& text)
{
    if (text == status_)
        return;
    status_ = text;
    sd_notify(0, QByteArray("STATUS=" + text.toUtf8()).constData());
}

} // namespace OrviaGonioManager::Cli
