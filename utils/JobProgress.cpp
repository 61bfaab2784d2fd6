#include "utils/JobProgress.h"

#include <QDebug>

namespace OrviaGonioManager::Utils {

JobProgress::JobProgress(QObject* parent) : QObject(parent) {}

void JobProgress::begin(const QString& title, qint64 total, const QString& unit, bool cancellable)
{
    if (depth_++ > 0)
        return;
    cancelled_ = false;
    cancellable_ = cancellable;
    title_ = title;
    unit_ = unit;
    total_ = qMax<qint64>(total, 0);
    done_ = 0;
    loggedTenths_ = 0;
    clock_.start();
    emit sigStarted(title_, total_, unit_);
}

bool JobProgress::advance(qint64 done)
{
    if (depth_ == 1) {
        done_ = qBound<qint64>(0, done, total_);
        emit sigProgress(done_, total_);
        const int tenths = total_ > 0 ? int(done_ * 10 / total_) : 0;
        if (tenths > loggedTenths_) {
            loggedTenths_ = tenths;
            qInfo().noquote() << QStringLiteral("%1: %2% (%3 of %4 %5)")
                                     .arg(title_)
                                     .arg(tenths * 10)
                                     .arg(done_)
                                     .arg(total_)
                                     .arg(unit_);
        }
    }
    if (checkpoint_ && cancellable_ && !cancelled_)
        checkpoint_();
    return !cancelled_;
}

void JobProgress::end()
{
    if (depth_ == 0 || --depth_ > 0)
        return;
    if (cancelled_)
        qInfo().noquote()
            << QStringLiteral("%1 cancelled after %2 of %3 %4").arg(title_).arg(done_).arg(total_).arg(unit_);
    emit sigFinished();
}

void JobProgress::cancel()
{
    if (depth_ == 0 || !cancellable_ || cancelled_)
        return;
    cancelled_ = true;
    qInfo().noquote() << QStringLiteral("%1: cancelling once the request under way is answered (%2 of %3 %4)")
                             .arg(title_)
                             .arg(done_)
                             .arg(total_)
                             .arg(unit_);
    emit sigCancelRequested();
}

qint64 JobProgress::msLeft() const
{
    if (done_ <= 0 || depth_ == 0)
        return -1;
    return clock_.elapsed() * (total_ - done_) / done_;
}

} // namespace OrviaGonioManager::Utils
