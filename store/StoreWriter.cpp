#include "store/StoreWriter.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QMutex>
#include <QThread>
#include <QTimer>
#include <QUrl>

#include <atomic>
#include <utility>

namespace OrviaGonioManager::Store {

using Utils::RxTableModel;

namespace {

// A store that could not be opened is tried again at most this often: a server that does not
// answer must not hold every batch up for its connection time-out.
constexpr qint64 kReopenMs = 5000;

} // namespace

// What the thread shares with its owner, which may go first (see finish()).
struct StoreWriter::Shared
{
    QMutex mutex;
    StoreWriter* owner = nullptr;
    std::atomic<qint64> handed{0};
    std::atomic<qint64> settled{0};
    std::atomic<qint64> dropped{0};

    // Runs f in the owner's thread, unless the owner has gone by then: so that a signal sent
    // before its receiver could connect, right after the owner was made, is not lost.
    template <typename F> void toOwner(F f)
    {
        QMutexLocker lock(&mutex);
        if (owner)
            QMetaObject::invokeMethod(
                owner, [o = owner, f] { f(*o); }, Qt::QueuedConnection);
    }
};

struct StoreWriter::Worker
{
    Worker(const QString& url, Batching batching, std::shared_ptr<Shared> shared)
        : url(url), batching(batching), shared(std::move(shared))
    {}

    // In the thread, first of all.
    void start()
    {
        timer = std::make_unique<QTimer>();
        timer->setSingleShot(true);
        timer->setInterval(batching.delayMs);
        QObject::connect(timer.get(), &QTimer::timeout, timer.get(), [this] { commit(); });
        open();
    }

    void fail(const QString& text)
    {
        if (text == failure)
            return;
        failure = text;
        shared->toOwner([text](StoreWriter& w) { emit w.failed(text); });
    }

    bool open()
    {
        if (store)
            return true;
        if (sinceOpen.isValid() && sinceOpen.elapsed() < kReopenMs)
            return false;
        sinceOpen.start();
        QString error;
        store = MessageStore::open(url, &error);
        if (!store) {
            fail(error);
            return false;
        }
        return true;
    }

    void add(const QString& serial, std::vector<RxTableModel::Row>&& rows)
    {
        if (rows.empty())
            return;
        pendingRows += qint64(rows.size());
        if (!pending.empty() && pending.back().first == serial) {
            auto& to = pending.back().second;
            to.insert(to.end(), std::make_move_iterator(rows.begin()), std::make_move_iterator(rows.end()));
        } else {
            pending.emplace_back(serial, std::move(rows));
        }
        if (pendingRows >= batching.maxRows)
            commit();
        else if (!timer->isActive())
            timer->start();
    }

    void note(const MessageStore::Receiver& receiver)
    {
        receivers.push_back(receiver);
        if (open())
            noteReceivers();
    }

    void noteReceivers()
    {
        for (const MessageStore::Receiver& r : receivers) {
            QString error;
            if (!store->noteReceiver(r, &error))
                fail(error);
        }
        receivers.clear();
    }

    void commit()
    {
        timer->stop();
        if (pending.empty())
            return;
        auto batches = std::move(pending);
        pending.clear();
        pendingRows = 0;
        const bool opened = open();
        if (opened)
            noteReceivers();
        for (auto& [serial, rows] : batches) {
            const int count = int(rows.size());
            QString error;
            const int added = store ? store->addBatch(serial, rows, &error) : -1;
            if (added >= 0) {
                failure.clear();
                shared->toOwner([added, count](StoreWriter& w) { emit w.stored(added, count - added); });
            } else {
                if (store) {
                    fail(error);
                    // Opened again for the next batch: a server may have restarted.
                    store.reset();
                    sinceOpen.invalidate();
                }
                shared->dropped += count;
            }
            shared->settled += count;
        }
    }

    // Last of all, in the thread: the store is closed where it was opened.
    void close()
    {
        commit();
        store.reset();
        timer.reset();
    }

    const QString url;
    const Batching batching;
    const std::shared_ptr<Shared> shared;
    std::unique_ptr<MessageStore> store;
    std::unique_ptr<QTimer> timer;
    QElapsedTimer sinceOpen;                                                 // since the last attempt
    std::vector<std::pair<QString, std::vector<RxTableModel::Row>>> pending; // in the order handed
    qint64 pendingRows = 0;
    std::vector<MessageStore::Receiver> receivers; // to note once the store is open
    QString failure;                               // the last one reported while failures go on
};

StoreWriter::StoreWriter(const QString& url, QObject* parent) : StoreWriter(url, Batching(), parent) {}

StoreWriter::StoreWriter(const QString& url, Batching batching, QObject* parent)
    : QObject(parent), url_(url), shared_(std::make_shared<Shared>())
{
    shared_->owner = this;
    thread_ = new QThread;
    thread_->setObjectName(QStringLiteral("message store"));
    context_ = new QObject;
    context_->moveToThread(thread_);
    worker_ = new Worker(url, batching, shared_);
    connect(thread_, &QThread::finished, this, [this] { emit finished(); });
    thread_->start();
    post([](Worker& w) { w.start(); });
}

StoreWriter::~StoreWriter()
{
    if (!isFinished())
        finish(kFinishMs);
    if (thread_ && thread_->isFinished()) {
        delete context_;
        delete thread_;
    }
}

void StoreWriter::post(std::function<void(Worker&)> job)
{
    QMetaObject::invokeMethod(
        context_, [worker = worker_, job = std::move(job)] { job(*worker); }, Qt::QueuedConnection);
}

void StoreWriter::add(const QString& receiverSerial, std::vector<RxTableModel::Row> rows)
{
    if (finishing_ || rows.empty())
        return;
    shared_->handed += qint64(rows.size());
    // Shared, so that the queued job may be copied.
    auto handed = std::make_shared<std::vector<RxTableModel::Row>>(std::move(rows));
    post([receiverSerial, handed](Worker& w) { w.add(receiverSerial, std::move(*handed)); });
}

void StoreWriter::noteReceiver(const MessageStore::Receiver& receiver)
{
    if (!finishing_)
        post([receiver](Worker& w) { w.note(receiver); });
}

void StoreWriter::flush()
{
    if (!finishing_)
        post([](Worker& w) { w.commit(); });
}

void StoreWriter::finishLater()
{
    if (finishing_)
        return;
    finishing_ = true;
    // The worker goes with its last job: nothing here may use it after this.
    QThread* thread = thread_;
    post([thread](Worker& w) {
        w.close();
        delete &w;
        thread->quit();
    });
    worker_ = nullptr;
}

bool StoreWriter::finish(int timeoutMs)
{
    finishLater();
    if (!thread_)
        return false; // left to end alone already
    if (thread_->wait(QDeadlineTimer(timeoutMs)))
        return true;
    // Still committing (a server that does not answer): it goes on alone, without this object,
    // and ends with the program.
    {
        QMutexLocker lock(&shared_->mutex);
        shared_->owner = nullptr;
    }
    disconnect(thread_, nullptr, this, nullptr);
    thread_ = nullptr;
    context_ = nullptr;
    return false;
}

QString StoreWriter::shownUrl() const
{
    if (!url_.contains(QLatin1String("://")))
        return url_;
    return QUrl(url_).toString(QUrl::RemovePassword);
}

bool StoreWriter::isFinished() const
{
    return !thread_ || thread_->isFinished();
}

qint64 StoreWriter::handedRows() const
{
    return shared_->handed.load();
}

qint64 StoreWriter::settledRows() const
{
    return shared_->settled.load();
}

qint64 StoreWriter::droppedRows() const
{
    return shared_->dropped.load();
}

} // namespace OrviaGonioManager::Store
