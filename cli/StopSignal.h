#pragma once

#include <QObject>

class QSocketNotifier;

namespace OrviaGonioManager::Cli {

// SIGINT and SIGTERM turned into a Qt signal, through a pipe that the handler writes to.
class StopSignal : public QObject
{
    Q_OBJECT

public:
    explicit StopSignal(QObject* parent = nullptr);
    ~StopSignal() override;

signals:
    void sigStop();

private:
    QSocketNotifier* notifier_ = nullptr;
};

} // namespace OrviaGonioManager::Cli
