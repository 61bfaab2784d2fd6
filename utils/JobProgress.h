#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QString>

#include <functional>

namespace OrviaGonioManager::Utils {

// A long job made of several device requests: counts what is done of what there is to do, logs
// every tenth of the way, estimates the time left, and carries a cancel request that the job
// honours between two requests. A job begun inside another one is part of it: only the outer job
// is reported, and a cancel stops both.
class JobProgress : public QObject
{
    Q_OBJECT

public:
    explicit JobProgress(QObject* parent = nullptr);

    // title names the job in texts ("Flash read"), unit what is counted ("bytes"). A job that is
    // not cancellable runs to its end or fails: cancel() leaves it alone.
    void begin(const QString& title, qint64 total, const QString& unit, bool cancellable = true);
    // Records what is done, then gives the front end its chance to take a cancel request. False
    // once the job is to stop.
    bool advance(qint64 done);
    // Logs where a cancelled job stopped; the job is over.
    void end();

    void cancel();
    bool isCancelled() const { return cancelled_; }
    bool isRunning() const { return depth_ > 0; }
    bool isCancellable() const { return cancellable_; }
    QString title() const { return title_; }
    QString unit() const { return unit_; }
    // -1 until something is done.
    qint64 msLeft() const;

    // Run by advance(), between two requests: where a window lets its Cancel button through.
    void setCheckpoint(std::function<void()> checkpoint) { checkpoint_ = std::move(checkpoint); }

signals:
    void sigStarted(QString title, qint64 total, QString unit);
    void sigProgress(qint64 done, qint64 total);
    void sigFinished();
    // The user asked to stop: the job stops once the request under way is answered.
    void sigCancelRequested();

private:
    int depth_ = 0;
    bool cancelled_ = false;
    bool cancellable_ = true;
    QString title_;
    QString unit_;
    qint64 total_ = 0;
    qint64 done_ = 0;
    int loggedTenths_ = 0;
    QElapsedTimer clock_;
    std::function<void()> checkpoint_;
};

// Begins a job for the lifetime of a scope and ends it however the scope is left.
class JobScope
{
public:
    JobScope(JobProgress& job, const QString& title, qint64 total, const QString& unit,
             bool cancellable = true)
        : job_(job)
    {
        job_.begin(title, total, unit, cancellable);
    }
    ~JobScope() { job_.end(); }
    JobScope(const JobScope&) = delete;
    JobScope& operator=(const JobScope&) = delete;

private:
    JobProgress& job_;
};

} // namespace OrviaGonioManager::Utils
