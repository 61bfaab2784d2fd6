#pragma once

#include <QElapsedTimer>
#include <QObject>

#include <cstdio>

namespace OrviaGonioManager::Utils {
class JobProgress;
}

namespace OrviaGonioManager::Cli {

// A job's progress on standard error: a bar redrawn in place on a terminal, plain lines (one a
// tenth of the way) otherwise. Each shows what is done, the rate and the time left. No stream:
// nothing shown.
class ProgressPrinter : public QObject
{
    Q_OBJECT

public:
    ProgressPrinter(Utils::JobProgress& job, FILE* stream, QObject* parent = nullptr);

private:
    void show(qint64 done, qint64 total);

    Utils::JobProgress& job_;
    FILE* stream_;
    bool terminal_;
    int lastTenth_ = -1;
    QElapsedTimer clock_;
};

} // namespace OrviaGonioManager::Cli
