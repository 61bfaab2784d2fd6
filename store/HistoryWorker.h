#pragma once

#include "store/HistoryExport.h"
#include "store/MessageStore.h"

#include <QMetaType>
#include <QObject>

#include <memory>
#include <vector>

namespace OrviaGonioManager::Store {

// The History's database work away from the window's thread: it lives in a thread of its own,
// opens its own MessageStore there (a store is used only in the thread that opened it), and
// answers each request with a signal.
class HistoryWorker : public QObject
{
    Q_OBJECT

public:
    struct Opened
    {
        QString url; // as it may be shown
        QStringList receivers;
        QString error; // empty when the store opened
    };
    struct Queried
    {
        quint64 id = 0;
        // Oldest first; shared, so that the window takes them without a copy.
        std::shared_ptr<std::vector<Utils::RxTableModel::Row>> rows;
        bool more = false; // the limit cut the answer short
        QString error;
    };
    struct Saved
    {
        quint64 id = 0;
        QString fileName;
        qint64 rows = 0;
        QString error;
    };

    explicit HistoryWorker(QObject* parent = nullptr);
    ~HistoryWorker() override;

    // Called in the worker's thread (QMetaObject::invokeMethod).
    void open(const QString& url);
    // query.limit rows at most; more says whether there were others.
    void query(quint64 id, MessageStore::Query query);
    void save(quint64 id, const QString& fileName, HistoryExport::Format format,
              const std::vector<Utils::RxTableModel::Row>& rows, Com::GnxLink::CoordType_t coordType);

signals:
    void sigOpened(const OrviaGonioManager::Store::HistoryWorker::Opened& opened);
    void sigQueried(const OrviaGonioManager::Store::HistoryWorker::Queried& queried);
    void sigSaved(const OrviaGonioManager::Store::HistoryWorker::Saved& saved);

private:
    std::unique_ptr<MessageStore> store_;
    QString error_; // why there is no store
};

} // namespace OrviaGonioManager::Store

Q_DECLARE_METATYPE(OrviaGonioManager::Store::HistoryWorker::Opened)
Q_DECLARE_METATYPE(OrviaGonioManager::Store::HistoryWorker::Queried)
Q_DECLARE_METATYPE(OrviaGonioManager::Store::HistoryWorker::Saved)
