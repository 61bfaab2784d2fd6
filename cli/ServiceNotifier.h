#pragma once

#include <QObject>
#include <QTimer>

namespace OrviaGonioManager::Cli {

// Tells systemd how a station is, when it runs as a notify service: READY once it runs, STATUS
// on each change, WATCHDOG from the event loop at half the unit's interval, STOPPING at the end.
// Without NOTIFY_SOCKET every call does nothing.
class ServiceNotifier : public QObject
{
    Q_OBJECT

public:
    explicit ServiceNotifier(QObject* parent = nullptr);
    ~ServiceNotifier() override;

    void ready();
    void status(const QString& text);

private:
    QTimer watchdog_;
    bool ready_ = false;
    QString status_;
};

} // namespace OrviaGonioManager::Cli
