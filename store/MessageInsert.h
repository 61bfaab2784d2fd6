#pragma once

#include "store/StoreSchema.h"
#include "utils/RxTableModel.h"

#include <QSqlDatabase>
#include <QString>
#include <QStringList>

#include <memory>

namespace OrviaGonioManager::Store {

// Writes message rows into the messages table, inside the caller's transaction, as fast as each
// engine takes them: a flash memory of 61,428 records is one batch. Rows already kept (the same
// flash record, the same seq) are skipped by the table's own keys.
class MessageInsert
{
public:
    // The message columns in the order rows are written and the store reads them back.
    static const QStringList& columns();

    MessageInsert(QSqlDatabase db, StoreSchema::Engine engine);
    ~MessageInsert();
    MessageInsert(const MessageInsert&) = delete;
    MessageInsert& operator=(const MessageInsert&) = delete;

    // station, boot and seq for a message that came through MQTT, else null. False on failure.
    bool add(qint64 receiver, const Utils::RxTableModel::Row& row, const QString& now, const QString* station,
             const QString* boot, const qint64* seq);
    // Writes what is still held back. False on failure.
    bool finish();
    // Rows the table took: those not kept before.
    int added() const { return added_; }
    QString error() const { return error_; }

    class Values;

private:
    bool flushText();

    QSqlDatabase db_;
    StoreSchema::Engine engine_;
    std::unique_ptr<Values> values_;
    int pending_ = 0;
    int added_ = 0;
    QString error_;
};

} // namespace OrviaGonioManager::Store
