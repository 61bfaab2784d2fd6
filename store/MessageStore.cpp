#include "store/MessageStore.h"

#include "store/MessageInsert.h"
#include "store/StoreConnection.h"

#include "mrl/utils/DateTime.h"
#include "utils/PlatformNumber.h"

#include <QAtomicInteger>
#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlDriver>
#include <QSqlError>
#include <QSqlField>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QStandardPaths>
#include <QUrl>

namespace OrviaGonioManager::Store {

using StoreSchema::Engine;
using Utils::RxTableModel;

namespace {

// The PostgreSQL advisory lock under which a store's schema is read and brought up to date.
constexpr qint64 kSchemaLock = 0x4f474d53; // "OGMS"

const char* const kUsage = "a file path, sqlite:PATH or postgresql://user@host:port/database";

QString newConnectionName()
{
    static QAtomicInteger<quint64> counter;
    return QStringLiteral("ogm-messagestore-%1").arg(counter.fetchAndAddRelaxed(1));
}

QVariant textOrNull(const QString& text)
{
    return text.isEmpty() ? QVariant(QMetaType(QMetaType::QString)) : QVariant(text);
}

// Commits what went well, rolls back what did not; false, with the reason in failure, when the
// transaction is lost.
bool finishTransaction(QSqlDatabase& db, bool ok, QString& failure)
{
    if (ok && db.commit())
        return true;
    if (ok)
        failure = StoreConnection::sqlText(db.lastError());
    db.rollback();
    return false;
}

} // namespace

MessageStore::MessageStore(const QString& connection, const QString& shown, Engine engine)
    : connection_(connection), shown_(shown), engine_(engine)
{}

MessageStore::~MessageStore()
{
    StoreConnection::remove(connection_);
}

std::unique_ptr<MessageStore> MessageStore::open(const QString& url, QString* error, Access access)
{
    *error = QString();
    const QString text = url.trimmed();
    const QString shown = StoreConnection::withoutPassword(text);
    static const QRegularExpression scheme(QStringLiteral("^([A-Za-z][A-Za-z0-9+.-]*)://"));
    const QString schemeName = scheme.match(text).captured(1).toLower();
    Engine engine = Engine::Sqlite;
    QString path;
    if (text.isEmpty()) {
        *error = QStringLiteral("no store given: %1").arg(QLatin1String(kUsage));
        return nullptr;
    } else if (schemeName == QLatin1String("postgresql") || schemeName == QLatin1String("postgres")) {
        engine = Engine::Postgres;
    } else if (text.startsWith(QLatin1String("sqlite:"))) {
        path = text.mid(7);
        if (path.startsWith(QLatin1String("//")))
            path = QUrl(text).toLocalFile();
    } else if (!schemeName.isEmpty()) {
        *error = QStringLiteral("%1: not a store URL: %2").arg(shown, QLatin1String(kUsage));
        return nullptr;
    } else {
        path = text;
    }
    if (engine == Engine::Sqlite && path.isEmpty()) {
        *error = QStringLiteral("%1: no file named: %2").arg(shown, QLatin1String(kUsage));
        return nullptr;
    }

    const QString connection = newConnectionName();
    const QString named = engine == Engine::Sqlite ? QDir::toNativeSeparators(path) : shown;
    std::unique_ptr<MessageStore> store(new MessageStore(connection, named, engine));
    const bool opened =
        engine == Engine::Sqlite
            ? StoreConnection::openSqlite(connection, named, access == Access::ReadOnly, error)
            : StoreConnection::openPostgres(connection, text, shown, access == Access::ReadOnly, error);
    if (!opened || !store->migrate(access, error))
        return nullptr;
    return store;
}

QString MessageStore::defaultUrl()
{
    // The generic location, not the application's: the window and gnxctl have different names.
    const QString dir = QStandardPaths::writableLocation(QStandardPaths::GenericDataLocation) +
                        QStringLiteral("/orvia-gonio-manager");
    QDir().mkpath(dir);
    return dir + QStringLiteral("/messages.sqlite");
}

bool MessageStore::migrate(Access access, QString* error)
{
    QSqlDatabase db = QSqlDatabase::database(connection_, false);
    QSqlQuery q(db);
    const bool writing = access == Access::ReadWrite;
    // One opener at a time reads the version and brings the schema up to date: two programs
    // opening a new store at once would otherwise both make its tables.
    if (writing) {
        const bool locked =
            engine_ == Engine::Sqlite
                ? q.exec(QStringLiteral("BEGIN IMMEDIATE"))
                : db.transaction() &&
                      q.exec(QStringLiteral("SELECT pg_advisory_xact_lock(%1)").arg(kSchemaLock));
        if (!locked) {
            *error = QStringLiteral("%1: cannot open the store for writing: %2")
                         .arg(shown_, StoreConnection::sqlText(q.lastError()));
            db.rollback();
            return false;
        }
    }
    // Whatever ends this opening before its commit leaves the store as it was.
    const auto fail = [&](const QString& text) {
        *error = text;
        q.finish();
        if (writing)
            db.rollback();
        return false;
    };
    int version = 0;
    const QStringList tables = db.tables();
    if (tables.contains(QLatin1String("schema_version"))) {
        if (!q.exec(QStringLiteral("SELECT MAX(version) FROM schema_version")) || !q.next())
            return fail(QStringLiteral("%1: cannot read the schema version: %2")
                            .arg(shown_, StoreConnection::sqlText(q.lastError())));
        version = q.value(0).toInt();
    } else if (!tables.isEmpty()) {
        // Someone else's database: better refused than written into.
        return fail(
            QStringLiteral("%1: not a message store: it has tables but no schema_version").arg(shown_));
    }
    if (version > StoreSchema::kLatest)
        return fail(QStringLiteral("%1: the store has schema version %2, newer than version %3 that this "
                                   "program knows: open it with a newer Orvia Gonio Manager")
                        .arg(shown_)
                        .arg(version)
                        .arg(StoreSchema::kLatest));
    if (!writing) {
        if (version < StoreSchema::kLatest)
            return fail(version == 0
                            ? QStringLiteral("%1: not a message store: it is empty").arg(shown_)
                            : QStringLiteral("%1: the store has schema version %2, older than version "
                                             "%3: open it once for writing to bring it up to date")
                                  .arg(shown_)
                                  .arg(version)
                                  .arg(StoreSchema::kLatest));
        return true;
    }
    // Every version's statements in the one transaction: a store is at one version or the next.
    QString failure;
    bool ok = true;
    int next = version + 1;
    for (; ok && next <= StoreSchema::kLatest; ++next) {
        QStringList statements = StoreSchema::migration(next, engine_);
        statements << QStringLiteral("UPDATE schema_version SET version = %1").arg(next);
        for (int i = 0; ok && i < statements.size(); ++i) {
            ok = q.exec(statements[i]);
            if (!ok)
                failure = StoreConnection::sqlText(q.lastError());
        }
    }
    q.finish();
    if (!finishTransaction(db, ok, failure)) {
        *error = QStringLiteral("%1: cannot bring the schema to version %2: %3")
                     .arg(shown_)
                     .arg(ok ? StoreSchema::kLatest : next - 1)
                     .arg(failure);
        return false;
    }
    return true;
}

QString MessageStore::timeText(const QDateTime& time)
{
    return time.toUTC().toString(Qt::ISODateWithMs);
}

QString MessageStore::recordKey(const Com::OrviaRxMessage_t& m)
{
    // Fixed formats, so that one record gives one key on any machine and in any locale; built in
    // one buffer, as a flash memory asks for tens of thousands at once.
    QByteArray canonical;
    canonical.reserve(160);
    const auto number = [&](auto value) { canonical += QByteArray::number(value) + '|'; };
    const auto fixed = [&](double value, int decimals) {
        canonical += QByteArray::number(value, 'f', decimals) + '|';
    };
    number(m.platformIndex);
    number(qulonglong(m.mjd));
    fixed(m.secondsOfDay, 3);
    canonical += m.platformId.toUtf8() + '|';
    number(qulonglong(m.frequency));
    canonical += char('0' + int(m.flagBit2));
    canonical += char('0' + int(m.flagBit1));
    canonical += char('0' + int(m.flagBit0));
    canonical += '|';
    number(int(m.direction));
    number(int(m.v1FlashValue));
    number(int(m.band));
    number(int(m.extraCode));
    number(m.level);
    number(qulonglong(m.period));
    fixed(m.gnxLatitude, 6);
    fixed(m.gnxLongitude, 6);
    number(qulonglong(m.gnxDirection));
    canonical += m.payload.toHex().toUpper();
    return QString::fromLatin1(QCryptographicHash::hash(canonical, QCryptographicHash::Sha1).toHex());
}

qint64 MessageStore::receiverId(const QString& serial, const QString& now, QString* error)
{
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    q.prepare(QStringLiteral("INSERT INTO receivers (serial_number, first_seen, last_seen) VALUES (?, ?, ?) "
                             "ON CONFLICT (serial_number) DO UPDATE SET last_seen = excluded.last_seen"));
    q.addBindValue(serial);
    q.addBindValue(now);
    q.addBindValue(now);
    if (!q.exec()) {
        *error = StoreConnection::sqlText(q.lastError());
        return -1;
    }
    q.prepare(QStringLiteral("SELECT id FROM receivers WHERE serial_number = ?"));
    q.addBindValue(serial);
    if (!q.exec() || !q.next()) {
        *error = StoreConnection::sqlText(q.lastError());
        return -1;
    }
    return q.value(0).toLongLong();
}

bool MessageStore::noteReceiver(const Receiver& r, QString* error)
{
    QSqlDatabase db = QSqlDatabase::database(connection_, false);
    QString failure;
    bool ok = db.transaction() &&
              receiverId(r.serialNumber, timeText(QDateTime::currentDateTimeUtc()), &failure) >= 0;
    if (ok) {
        QSqlQuery q(db);
        q.prepare(
            QStringLiteral("UPDATE receivers SET model = COALESCE(?, model), application_version = "
                           "COALESCE(?, application_version), fpga_version = COALESCE(?, fpga_version), "
                           "bootloader_version = COALESCE(?, bootloader_version) WHERE serial_number = ?"));
        for (const QString& value : {r.model, r.applicationVersion, r.fpgaVersion, r.bootloaderVersion})
            q.addBindValue(textOrNull(value));
        q.addBindValue(r.serialNumber);
        ok = q.exec();
        if (!ok)
            failure = StoreConnection::sqlText(q.lastError());
    }
    if (ok && !db.commit()) {
        ok = false;
        failure = StoreConnection::sqlText(db.lastError());
    }
    if (!ok) {
        db.rollback();
        *error = QStringLiteral("%1: cannot note receiver %2: %3").arg(shown_, r.serialNumber, failure);
    }
    return ok;
}

int MessageStore::addBatch(const QString& receiverSerial, const std::vector<RxTableModel::Row>& rows,
                           QString* error)
{
    return add(receiverSerial, rows, nullptr, nullptr, nullptr, error);
}

int MessageStore::addMqttBatch(const QString& receiverSerial, const std::vector<RxTableModel::Row>& rows,
                               const QStringList& stations, const QStringList& boots,
                               const std::vector<qint64>& seqs, QString* error)
{
    if (size_t(stations.size()) != rows.size() || size_t(boots.size()) != rows.size() ||
        seqs.size() != rows.size()) {
        *error = QStringLiteral("%1: cannot store the messages: stations, boots and seqs do not match "
                                "the messages one to one")
                     .arg(shown_);
        return -1;
    }
    return add(receiverSerial, rows, &stations, &boots, &seqs, error);
}

int MessageStore::add(const QString& receiverSerial, const std::vector<RxTableModel::Row>& rows,
                      const QStringList* stations, const QStringList* boots, const std::vector<qint64>* seqs,
                      QString* error)
{
    if (receiverSerial.trimmed().isEmpty()) {
        *error = QStringLiteral("%1: cannot store the messages: no receiver serial number").arg(shown_);
        return -1;
    }
    QSqlDatabase db = QSqlDatabase::database(connection_, false);
    const QString now = timeText(QDateTime::currentDateTimeUtc());
    QString failure;
    bool ok = db.transaction();
    if (!ok)
        failure = StoreConnection::sqlText(db.lastError());
    const qint64 receiver = ok ? receiverId(receiverSerial, now, &failure) : -1;
    ok = ok && receiver >= 0;
    QSqlQuery q(db);
    // Every row this batch adds has a higher key: the flash records among them are linked below.
    qint64 lastBefore = 0;
    if (ok) {
        ok = q.exec(QStringLiteral("SELECT COALESCE(MAX(id), 0) FROM messages")) && q.next();
        if (ok)
            lastBefore = q.value(0).toLongLong();
        else
            failure = StoreConnection::sqlText(q.lastError());
    }
    bool anyFlash = false;
    QDateTime firstLive;
    QDateTime lastLive;
    MessageInsert insert(db, engine_);
    for (size_t i = 0; ok && i < rows.size(); ++i) {
        const RxTableModel::Row& row = rows[i];
        const bool mqtt = seqs != nullptr;
        const QString station = mqtt ? stations->at(int(i)) : QString();
        const QString boot = mqtt ? boots->at(int(i)) : QString();
        ok = insert.add(receiver, row, now, mqtt ? &station : nullptr, mqtt ? &boot : nullptr,
                        mqtt ? &seqs->at(i) : nullptr);
        if (row.flash) {
            anyFlash = true;
        } else {
            const QDateTime at =
                MRL::Utils::DateTime::fromMjd(row.message.mjd, row.message.secondsOfDay).toQDateTime();
            if (!firstLive.isValid() || at < firstLive)
                firstLive = at;
            if (!lastLive.isValid() || at > lastLive)
                lastLive = at;
        }
    }
    ok = ok && insert.finish();
    if (!ok && failure.isEmpty())
        failure = insert.error();
    const int added = insert.added();
    if (ok && added > 0 && anyFlash)
        ok = linkFlashCopies(QStringLiteral("id > ? AND live_id IS NULL"), {lastBefore}, &failure);
    // Flash records read before the live messages they copy: rare, but the link goes both ways.
    if (ok && added > 0 && firstLive.isValid())
        ok = linkFlashCopies(
            QStringLiteral("receiver_id = ? AND live_id IS NULL AND device_time >= ? AND device_time <= ?"),
            {receiver, timeText(firstLive.addSecs(-1)), timeText(lastLive.addSecs(1))}, &failure);
    if (!finishTransaction(db, ok, failure)) {
        *error = QStringLiteral("%1: cannot store the messages: %2").arg(shown_, failure);
        return -1;
    }
    return added;
}

bool MessageStore::linkFlashCopies(const QString& which, const QVariantList& values, QString* failure)
{
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    bool ok = q.prepare(StoreSchema::linkFlashCopies(which));
    for (const QVariant& value : values)
        q.addBindValue(value);
    ok = ok && q.exec();
    if (!ok)
        *failure = StoreConnection::sqlText(q.lastError());
    return ok;
}

std::vector<RxTableModel::Row> MessageStore::query(const Query& query, QString* error) const
{
    QStringList names;
    for (const QString& column : MessageInsert::columns())
        names << QStringLiteral("m.") + column;
    QStringList where;
    QVariantList values;
    if (!query.receiver.isEmpty()) {
        where << QStringLiteral("r.serial_number = ?");
        values << query.receiver;
    }
    if (!query.platform.isEmpty()) {
        where << QStringLiteral("m.platform = ?");
        values << Utils::PlatformNumber::shortest(query.platform);
    }
    if (query.origin != Query::Origin::Any) {
        where << QStringLiteral("m.origin = ?");
        values << (query.origin == Query::Origin::Flash ? QStringLiteral("flash") : QStringLiteral("live"));
    }
    if (query.from.isValid()) {
        where << QStringLiteral("m.device_time >= ?");
        values << timeText(query.from);
    }
    if (query.to.isValid()) {
        where << QStringLiteral("m.device_time < ?");
        values << timeText(query.to);
    }
    QString sql = QStringLiteral("SELECT %1 FROM messages m JOIN receivers r ON r.id = m.receiver_id")
                      .arg(names.join(QStringLiteral(", ")));
    if (!where.isEmpty())
        sql += QStringLiteral(" WHERE ") + where.join(QStringLiteral(" AND "));
    sql += QStringLiteral(" ORDER BY m.device_time, m.id");
    if (query.limit > 0)
        sql += QStringLiteral(" LIMIT %1").arg(query.limit);

    std::vector<RxTableModel::Row> rows;
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    q.setForwardOnly(true);
    bool ok = q.prepare(sql);
    for (const QVariant& value : values)
        q.addBindValue(value);
    ok = ok && q.exec();
    if (!ok) {
        if (error)
            *error = QStringLiteral("%1: cannot read the messages: %2")
                         .arg(shown_, StoreConnection::sqlText(q.lastError()));
        return rows;
    }
    while (q.next()) {
        RxTableModel::Row row;
        Com::OrviaRxMessage_t& m = row.message;
        RxTableModel::Row::ByNumber& n = row.byNumber;
        row.flash = q.value(1).toString() == QLatin1String("flash");
        n.platform = q.value(2).toString();
        m.platformId = q.value(3).toString();
        m.platformIndex = q.value(4).toInt();
        m.mjd = quint64(q.value(5).toLongLong());
        m.secondsOfDay = q.value(6).toDouble();
        m.frequency = quint32(q.value(9).toLongLong());
        m.flagBit2 = q.value(10).toInt() != 0;
        m.flagBit1 = q.value(11).toInt() != 0;
        m.flagBit0 = q.value(12).toInt() != 0;
        m.direction = quint16(q.value(13).toInt());
        m.v1FlashValue = qint16(q.value(14).toInt());
        m.band = qint16(q.value(15).toInt());
        m.extraCode = qint16(q.value(16).toInt());
        m.level = q.value(17).toInt();
        m.period = quint32(q.value(18).toLongLong());
        m.gnxLatitude = q.value(19).toDouble();
        m.gnxLongitude = q.value(20).toDouble();
        m.gnxDirection = quint32(q.value(21).toLongLong());
        m.payload = QByteArray::fromHex(q.value(22).toString().toLatin1());
        n.payloadPosition = !q.value(23).isNull() && !q.value(24).isNull();
        n.payloadLatitude = n.payloadPosition ? q.value(23).toDouble() : 0.0;
        n.payloadLongitude = n.payloadPosition ? q.value(24).toDouble() : 0.0;
        n.label = q.value(25).toString();
        row.index = q.value(26).toString();
        n.favourite = q.value(27).toInt() != 0;
        row.withAverage = q.value(28).toInt() != 0;
        // The table's Label and payload columns as the tools beside it show them: by number.
        row.label = n.label;
        row.payloadPosition = n.payloadPosition;
        row.payloadLatitude = n.payloadLatitude;
        row.payloadLongitude = n.payloadLongitude;
        rows.push_back(std::move(row));
    }
    return rows;
}

qint64 MessageStore::latestSeq(const QString& receiverSerial, QString* boot) const
{
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    q.prepare(QStringLiteral("SELECT m.seq, m.boot FROM messages m JOIN receivers r ON r.id = m.receiver_id "
                             "WHERE r.serial_number = ? AND m.seq IS NOT NULL ORDER BY m.seq DESC LIMIT 1"));
    q.addBindValue(receiverSerial);
    if (!q.exec() || !q.next())
        return 0;
    *boot = q.value(1).toString();
    return q.value(0).toLongLong();
}

QStringList MessageStore::receivers(QString* error) const
{
    QStringList serials;
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    if (!q.exec(QStringLiteral("SELECT serial_number FROM receivers ORDER BY serial_number"))) {
        if (error)
            *error = QStringLiteral("%1: cannot read the receivers: %2")
                         .arg(shown_, StoreConnection::sqlText(q.lastError()));
        return serials;
    }
    while (q.next())
        serials << q.value(0).toString();
    return serials;
}

MessageStore::Check MessageStore::check() const
{
    Check c;
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    const auto number = [&](const QString& sql, qint64* out) {
        if (q.exec(sql) && q.next())
            *out = q.value(0).toLongLong();
        else
            c.problems << QStringLiteral("%1: %2").arg(sql, StoreConnection::sqlText(q.lastError()));
    };
    qint64 version = 0;
    number(QStringLiteral("SELECT MAX(version) FROM schema_version"), &version);
    c.schemaVersion = int(version);
    number(QStringLiteral("SELECT COUNT(*) FROM receivers"), &c.receivers);
    number(QStringLiteral("SELECT COUNT(*) FROM messages"), &c.messages);
    number(QStringLiteral("SELECT COUNT(*) FROM messages WHERE origin = 'live'"), &c.liveMessages);
    number(QStringLiteral("SELECT COUNT(*) FROM messages WHERE origin = 'flash'"), &c.flashMessages);
    number(QStringLiteral("SELECT COUNT(*) FROM messages WHERE live_id IS NOT NULL"), &c.linkedFlashMessages);
    findGaps(c);
    if (engine_ == Engine::Sqlite) {
        if (!q.exec(QStringLiteral("PRAGMA integrity_check"))) {
            c.problems << QStringLiteral("integrity check: %1").arg(StoreConnection::sqlText(q.lastError()));
        } else {
            while (q.next()) {
                if (q.value(0).toString() != QLatin1String("ok"))
                    c.problems << QStringLiteral("integrity check: %1").arg(q.value(0).toString());
            }
        }
        if (q.exec(QStringLiteral("PRAGMA foreign_key_check")) && q.next())
            c.problems << QStringLiteral("a message names a receiver the store does not have");
    }
    for (QString& problem : c.problems)
        problem = QStringLiteral("%1: %2").arg(shown_, problem);
    c.ok = c.problems.isEmpty();
    return c;
}

void MessageStore::findGaps(Check& c) const
{
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    q.setForwardOnly(true);
    const QString sql = QStringLiteral(
        "SELECT r.serial_number, g.previous + 1, g.seq - 1 FROM"
        " (SELECT receiver_id, seq, LAG(seq, 1, 0) OVER (PARTITION BY receiver_id ORDER BY seq) AS previous"
        "  FROM messages WHERE seq IS NOT NULL) g"
        " JOIN receivers r ON r.id = g.receiver_id"
        " WHERE g.seq > g.previous + 1 ORDER BY r.serial_number, g.seq");
    if (!q.exec(sql)) {
        c.problems << QStringLiteral("gaps in seq: %1").arg(StoreConnection::sqlText(q.lastError()));
        return;
    }
    while (q.next()) {
        const qint64 first = q.value(1).toLongLong();
        const qint64 last = q.value(2).toLongLong();
        c.missingSeqs += last - first + 1;
        if (c.gaps.size() >= 100)
            continue;
        c.gaps << (first == last
                       ? QStringLiteral("receiver %1: seq %2 missing").arg(q.value(0).toString()).arg(first)
                       : QStringLiteral("receiver %1: seq %2 to %3 missing (%4)")
                             .arg(q.value(0).toString())
                             .arg(first)
                             .arg(last)
                             .arg(last - first + 1));
    }
}

} // namespace OrviaGonioManager::Store
