#include "cli/ProgressPrinter.h"

#include "utils/JobProgress.h"

#include <QString>

#include <unistd.h>

namespace OrviaGonioManager::Cli {

ProgressPrinter::ProgressPrinter(Utils::JobProgress& job, FILE* stream, QObject* parent)
    : QObject(parent), job_(job), stream_(stream), terminal_(stream && ::isatty(fileno(stream)) != 0)
{
    connect(&job, &Utils::JobProgress::sigStarted, this, [this] {
        lastTenth_ = -1;
        clock_.start();
    });
    connect(&job, &Utils::JobProgress::sigProgress, this, &ProgressPrinter::show);
    connect(&job, &Utils::JobProgress::sigFinished, this, [this] {
        if (terminal_ && lastTenth_ >= 0)
            std::fputc('\n', stream_);
    });
}

void ProgressPrinter::show(qint64 done, qint64 total)
{
    if (!stream_)
        return; // quiet
    const int tenth = total > 0 ? int(done * 10 / total) : 0;
    if (!terminal_ && tenth == lastTenth_)
        return;
    lastTenth_ = tenth;
    const qint64 msLeft = job_.msLeft();
    const double rate = clock_.elapsed() > 0 ? double(done) * 1000.0 / double(clock_.elapsed()) : 0.0;
    const QString left = msLeft < 0 ? QStringLiteral("?") : QString::number((msLeft + 999) / 1000);
    QString text = QStringLiteral("%1: %2 of %3 %4, %5 %4/s, %6 s left")
                       .arg(job_.title())
                       .arg(done)
                       .arg(total)
                       .arg(job_.unit())
                       .arg(rate, 0, 'f', 0)
                       .arg(left);
    if (terminal_) {
        const int width = 30;
        const int filled = total > 0 ? int(done * width / total) : 0;
        text = QStringLiteral("\r[") + QString(filled, QLatin1Char('#')) +
               QString(width - filled, QLatin1Char(' ')) + QStringLiteral("] ") + text;
        std::fputs(text.toLocal8Bit().constData(), stream_);
    } else {
        std::fputs((text + QLatin1Char('\n')).toLocal8Bit().constData(), stream_);
    }
    std::fflush(stream_);
}

} // namespace OrviaGonioManager::Cli
