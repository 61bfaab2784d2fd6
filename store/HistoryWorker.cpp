#include "store/HistoryWorker.h"

namespace OrviaGonioManager::Store {

HistoryWorker::HistoryWorker(QObject* parent) : QObject(parent)
{
    qRegisterMetaType<Opened>();
    qRegisterMetaType<Queried>();
    qRegisterMetaType<Saved>();
}

HistoryWorker::~HistoryWorker() = default;

void HistoryWorker::open(const QString& url)
{
    store_.reset(); // its connection goes before the next one comes
    Opened o;
    // Looking writes nothing: a read-only file opens, and no store is made where there was none.
    store_ = MessageStore::open(url, &o.error, MessageStore::Access::ReadOnly);
    if (store_) {
        o.url = store_->shownUrl();
        o.receivers = store_->receivers(&o.error);
    } else {
        o.url = url;
    }
    error_ = o.error;
    emit sigOpened(o);
}

void HistoryWorker::query(quint64 id, MessageStore::Query query)
{
    Queried q;
    q.id = id;
    if (!store_) {
        q.error = error_.isEmpty() ? QStringLiteral("No message store is open") : error_;
        emit sigQueried(q);
        return;
    }
    const int limit = query.limit;
    if (limit > 0)
        query.limit = limit + 1; // one more tells whether the limit cut the answer
    q.rows = std::make_shared<std::vector<Utils::RxTableModel::Row>>(store_->query(query, &q.error));
    if (limit > 0 && q.rows->size() > size_t(limit)) {
        q.rows->resize(size_t(limit));
        q.more = true;
    }
    emit sigQueried(q);
}

void HistoryWorker::save(quint64 id, const QString& fileName, HistoryExport::Format format,
                         const std::vector<Utils::RxTableModel::Row>& rows,
                         Com::GnxLink::CoordType_t coordType)
{
    Saved s;
    s.id = id;
    s.fileName = fileName;
    s.rows = qint64(rows.size());
    HistoryExport::save(fileName, format, rows, coordType, &s.error);
    emit sigSaved(s);
}

} // namespace OrviaGonioManager::Store
