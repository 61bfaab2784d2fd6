#pragma once

#include "store/MessageStore.h"
#include "utils/RxTableModel.h"

#include <QObject>
#include <QString>

#include <functional>
#include <memory>
#include <vector>

class QThread;

namespace OrviaGonioManager::Store {

// Keeps messages in a message store from a thread of its own, so that the thread that hands them
// over never waits on the disk or the network. The store is opened in that thread; rows are
// committed in batches, when enough have come or a short while after the first of a batch. A
// failure is reported once until a commit works again; the rows of a failed commit are dropped
// (the caller still has them), so that a store that cannot be written does not grow the memory.
class StoreWriter : public QObject
{
    Q_OBJECT

public:
    struct Batching
    {
        int delayMs = 200;  // a row waits at most this long for the next commit...
        int maxRows = 2000; // ...or less once this many wait
    };
    // How long the destructor waits for the last commit.
    static constexpr int kFinishMs = 10000;

    // Starts the thread and opens the store there (MessageStore::open's URL).
    explicit StoreWriter(const QString& url, QObject* parent = nullptr);
    StoreWriter(const QString& url, Batching batching, QObject* parent = nullptr);
    // finish(kFinishMs) when not finished yet.
    ~StoreWriter() override;
    StoreWriter(const StoreWriter&) = delete;
    StoreWriter& operator=(const StoreWriter&) = delete;

    QString url() const { return url_; }
    // The URL as it may be shown: no password.
    QString shownUrl() const;

    // Queued: returns at once. Rows handed after finish() began are not kept.
    void add(const QString& receiverSerial, std::vector<Utils::RxTableModel::Row> rows);
    void noteReceiver(const MessageStore::Receiver& receiver);
    // Commits what waits now rather than at the end of the delay.
    void flush();

    // Commits what was handed, closes the store and ends the thread, waiting at most timeoutMs.
    // True when the thread has ended; false when it still works (it is then left to end alone).
    bool finish(int timeoutMs);
    // As finish() without waiting: finished() says when the thread has ended.
    void finishLater();
    bool isFinished() const;

    // Rows handed over, and rows done with: committed (new or already kept) or dropped by a failure.
    qint64 handedRows() const;
    qint64 settledRows() const;
    qint64 droppedRows() const;

signals:
    // Sent in this object's thread, never before the event loop has run after its making.
    // One per commit of one receiver's rows: how many were new, how many the store already had.
    void stored(int added, int duplicates);
    // What failed, naming the store: once per run of failures.
    void failed(const QString& message);
    // The thread has ended (after finish() or finishLater()).
    void finished();

private:
    struct Shared;
    struct Worker;
    void post(std::function<void(Worker&)> job);

    QString url_;
    std::shared_ptr<Shared> shared_; // with the thread, which may outlive this object
    QThread* thread_ = nullptr;
    QObject* context_ = nullptr; // lives in the thread: queued jobs run on it
    Worker* worker_ = nullptr;   // used in the thread only
    bool finishing_ = false;
};

} // namespace OrviaGonioManager::Store
