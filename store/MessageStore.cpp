#include "store/MessageStore.h"

#include "mrl/utils/DateTime.h"
#include "utils/PlatformNumber.h"

#include <QAtomicInteger>
#include <QCryptographicHash>
#include <QDir>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QStandardPaths>
#include <QUrl>

namespace OrviaGonioManager::Store {

using StoreSchema::Engine;
using Utils::RxTableModel;

namespace {

const char* const kUsage = "a file path, sqlite:PATH or postgresql://user@host:port/database";

// The message columns in the order add() binds them and query() reads them.
const char* const kColumns[] = {
    "receiver_id",       "origin",        "platform",       "platform_id",
    "platform_index",    "mjd",           "seconds_of_day", "device_time",
    "arrival_time",      "frequency",     "flag_bit2",      "flag_bit1",
    "flag_bit0",         "direction",     "v1_flash_value", "band",
    "extra_code",        "level",         "period",         "gnx_latitude",
    "gnx_longitude",     "gnx_direction", "payload",        "payload_latitude",
    "payload_longitude", "label",         "favourite_slot", "favourite",
    "with_average",      "station",       "boot",           "seq",
    "record_key",
};

QString newConnectionName()
{
    static QAtomicInteger<quint64> counter;
    return QStringLiteral("ogm-messagestore-%1").arg(counter.fetchAndAddRelaxed(1));
}

QString sqlText(const QSqlError& e)
{
    const QString text = e.text().trimmed();
    return text.isEmpty() ? QStringLiteral("unknown database error") : text;
}

// The URL with any password taken out, also from text that is not a valid URL.
QString withoutPassword(const QString& url)
{
    static const QRegularExpression password(QStringLiteral("^([A-Za-z][A-Za-z0-9+.-]*://[^:@/]*):[^@/]*@"));
    QString shown = url;
    shown.replace(password, QStringLiteral("\\1@"));
    return shown;
}

QVariant nullDouble()
{
    return QVariant(QMetaType(QMetaType::Double));
}

QVariant textOrNull(const QString& text)
{
    return text.isEmpty() ? QVariant(QMetaType(QMetaType::QString)) : QVariant(text);
}

void removeConnection(const QString& name)
{
    {
        QSqlDatabase db = QSqlDatabase::database(name, false);
        if (db.isOpen())
            db.close();
    }
    QSqlDatabase::removeDatabase(name);
}

bool openSqlite(const QString& connection, const QString& path, QString* error)
{
    const QFileInfo file(path);
    if (!QSqlDatabase::isDriverAvailable(QStringLiteral("QSQLITE"))) {
        *error = QStringLiteral("%1: cannot open it: the Qt SQLite driver (QSQLITE, Debian package "
                                "libqt6sql6-sqlite) is not installed")
                     .arg(path);
        return false;
    }
    if (!file.dir().exists()) {
        *error = QStringLiteral("%1: cannot make the store: the directory %2 does not exist")
                     .arg(path, QDir::toNativeSeparators(file.absolutePath()));
        return false;
    }
    if (file.exists() && (!file.isFile() || !file.isWritable())) {
        *error = file.isFile() ? QStringLiteral("%1: the file is read-only: the store writes to it").arg(path)
                               : QStringLiteral("%1: not a file").arg(path);
        return false;
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection);
    db.setDatabaseName(path);
    // The window and gnxctl may use one file at once.
    db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=5000"));
    if (!db.open()) {
        *error = QStringLiteral("%1: cannot open: %2").arg(path, sqlText(db.lastError()));
        return false;
    }
    QSqlQuery q(db);
    for (const char* pragma : {"PRAGMA foreign_keys = ON", "PRAGMA journal_mode = WAL"}) {
        if (!q.exec(QString::fromLatin1(pragma))) {
            *error = QStringLiteral("%1: not a message store: %2").arg(path, sqlText(q.lastError()));
            return false;
        }
    }
    return true;
}

bool openPostgres(const QString& connection, const QString& text, const QString& shown, QString* error)
{
    const QUrl url(text, QUrl::StrictMode);
    const QString database = url.path().mid(1);
    if (!url.isValid() || url.host().isEmpty() || database.isEmpty() || database.contains(QLatin1Char('/'))) {
        *error = QStringLiteral("%1: not a PostgreSQL URL: expected postgresql://user@host:port/database")
                     .arg(shown);
        return false;
    }
    if (!QSqlDatabase::isDriverAvailable(QStringLiteral("QPSQL"))) {
        *error = QStringLiteral("%1: cannot connect: the Qt PostgreSQL driver (QPSQL, Debian package "
                                "libqt6sql6-psql) is not installed")
                     .arg(shown);
        return false;
    }
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), connection);
    db.setHostName(url.host());
    db.setPort(url.port(5432));
    db.setDatabaseName(database);
    db.setUserName(url.userName());
    // Without one in the URL, libpq looks in PGPASSWORD and ~/.pgpass.
    db.setPassword(url.password());
    db.setConnectOptions(QStringLiteral("connect_timeout=10"));
    if (!db.open()) {
        *error = QStringLiteral("%1: cannot connect: %2").arg(shown, sqlText(db.lastError()));
        return false;
    }
    QSqlQuery q(db);
    // Notices ("relation already exists") are not ours to show.
    q.exec(QStringLiteral("SET client_min_messages = warning"));
    return true;
}

// Commits what went well, rolls back what did not; false, with the reason in failure, when the
// transaction is lost.
bool finishTransaction(QSqlDatabase& db, bool ok, QString& failure)
{
    if (ok && db.commit())
        return true;
    if (ok)
        failure = sqlText(db.lastError());
    db.rollback();
    return false;
}

} // namespace

MessageStore::MessageStore(const QString& connection, const QString& shown, Engine engine)
    : connection_(connection), shown_(shown), engine_(engine)
{}

MessageStore::~MessageStore()
{
    removeConnection(connection_);
}

std::unique_ptr<MessageStore> MessageStore::open(const QString& url, QString* error)
{
    *error = QString();
    const QString text = url.trimmed();
    const QString shown = withoutPassword(text);
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
    const bool opened = engine == Engine::Sqlite ? openSqlite(connection, named, error)
                                                 : openPostgres(connection, text, shown, error);
    if (!opened || !store->migrate(error))
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

bool MessageStore::migrate(QString* error)
{
    QSqlDatabase db = QSqlDatabase::database(connection_, false);
    QSqlQuery q(db);
    int version = 0;
    const QStringList tables = db.tables();
    if (tables.contains(QLatin1String("schema_version"))) {
        if (!q.exec(QStringLiteral("SELECT MAX(version) FROM schema_version")) || !q.next()) {
            *error =
                QStringLiteral("%1: cannot read the schema version: %2").arg(shown_, sqlText(q.lastError()));
            return false;
        }
        version = q.value(0).toInt();
    } else if (!tables.isEmpty()) {
        // Someone else's database: better refused than written into.
        *error = QStringLiteral("%1: not a message store: it has tables but no schema_version").arg(shown_);
        return false;
    }
    if (version > StoreSchema::kLatest) {
        *error = QStringLiteral("%1: the store has schema version %2, newer than version %3 that this "
                                "program knows: open it with a newer Orvia Gonio Manager")
                     .arg(shown_)
                     .arg(version)
                     .arg(StoreSchema::kLatest);
        return false;
    }
    for (int next = version + 1; next <= StoreSchema::kLatest; ++next) {
        bool ok = db.transaction();
        QString failure = sqlText(db.lastError());
        QStringList statements = StoreSchema::migration(next, engine_);
        statements << QStringLiteral("UPDATE schema_version SET version = %1").arg(next);
        for (int i = 0; ok && i < statements.size(); ++i) {
            ok = q.exec(statements[i]);
            if (!ok)
                failure = sqlText(q.lastError());
        }
        q.finish();
        if (!finishTransaction(db, ok, failure)) {
            *error = QStringLiteral("%1: cannot bring the schema to version %2: %3")
                         .arg(shown_)
                         .arg(next)
                         .arg(failure);
            return false;
        }
    }
    return true;
}

QString MessageStore::timeText(const QDateTime& time)
{
    return time.toUTC().toString(Qt::ISODateWithMs);
}

QString MessageStore::recordKey(const Com::OrviaRxMessage_t& m)
{
    // Fixed formats, so that one record gives one key on any machine and in any locale.
    const QString canonical = QStringLiteral("%1|%2|%3|%4|%5|%6%7%8|%9|%10|%11|%12|%13|%14|%15|%16|%17|%18")
                                  .arg(m.platformIndex)
                                  .arg(m.mjd)
                                  .arg(m.secondsOfDay, 0, 'f', 3)
                                  .arg(m.platformId)
                                  .arg(m.frequency)
                                  .arg(int(m.flagBit2))
                                  .arg(int(m.flagBit1))
                                  .arg(int(m.flagBit0))
                                  .arg(m.direction)
                                  .arg(m.v1FlashValue)
                                  .arg(m.band)
                                  .arg(m.extraCode)
                                  .arg(m.level)
                                  .arg(m.period)
                                  .arg(m.gnxLatitude, 0, 'f', 6)
                                  .arg(m.gnxLongitude, 0, 'f', 6)
                                  .arg(m.gnxDirection)
                                  .arg(QString::fromLatin1(m.payload.toHex().toUpper()));
    return QString::fromLatin1(
        QCryptographicHash::hash(canonical.toUtf8(), QCryptographicHash::Sha1).toHex());
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
        *error = sqlText(q.lastError());
        return -1;
    }
    q.prepare(QStringLiteral("SELECT id FROM receivers WHERE serial_number = ?"));
    q.addBindValue(serial);
    if (!q.exec() || !q.next()) {
        *error = sqlText(q.lastError());
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
            failure = sqlText(q.lastError());
    }
    if (ok && !db.commit()) {
        ok = false;
        failure = sqlText(db.lastError());
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
    int added = 0;
    bool ok = db.transaction();
    if (!ok)
        failure = sqlText(db.lastError());
    const qint64 receiver = ok ? receiverId(receiverSerial, now, &failure) : -1;
    ok = ok && receiver >= 0;
    QSqlQuery q(db);
    if (ok) {
        QStringList names;
        for (const char* column : kColumns)
            names << QString::fromLatin1(column);
        const QString marks = QStringLiteral("?, ").repeated(names.size() - 1) + QStringLiteral("?");
        ok = q.prepare(QStringLiteral("INSERT INTO messages (%1) VALUES (%2) ON CONFLICT DO NOTHING")
                           .arg(names.join(QStringLiteral(", ")), marks));
        if (!ok)
            failure = sqlText(q.lastError());
    }
    for (size_t i = 0; ok && i < rows.size(); ++i) {
        const RxTableModel::Row& row = rows[i];
        const Com::OrviaRxMessage_t& m = row.message;
        const RxTableModel::Row::ByNumber& n = row.byNumber;
        const bool mqtt = seqs != nullptr;
        q.addBindValue(receiver);
        q.addBindValue(row.flash ? QStringLiteral("flash") : QStringLiteral("live"));
        q.addBindValue(Utils::PlatformNumber::shortest(m.platformId));
        q.addBindValue(m.platformId);
        q.addBindValue(m.platformIndex);
        q.addBindValue(qint64(m.mjd));
        q.addBindValue(m.secondsOfDay);
        q.addBindValue(timeText(MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toQDateTime()));
        q.addBindValue(now);
        q.addBindValue(qint64(m.frequency));
        q.addBindValue(int(m.flagBit2));
        q.addBindValue(int(m.flagBit1));
        q.addBindValue(int(m.flagBit0));
        q.addBindValue(int(m.direction));
        q.addBindValue(int(m.v1FlashValue));
        q.addBindValue(int(m.band));
        q.addBindValue(int(m.extraCode));
        q.addBindValue(m.level);
        q.addBindValue(qint64(m.period));
        q.addBindValue(m.gnxLatitude);
        q.addBindValue(m.gnxLongitude);
        q.addBindValue(qint64(m.gnxDirection));
        // Not NULL for no bytes: the column is NOT NULL.
        const QString payload = QString::fromLatin1(m.payload.toHex().toUpper());
        q.addBindValue(payload.isEmpty() ? QStringLiteral("") : payload);
        q.addBindValue(n.payloadPosition ? QVariant(n.payloadLatitude) : nullDouble());
        q.addBindValue(n.payloadPosition ? QVariant(n.payloadLongitude) : nullDouble());
        q.addBindValue(textOrNull(n.label));
        q.addBindValue(textOrNull(row.index));
        q.addBindValue(int(n.favourite));
        q.addBindValue(int(row.withAverage));
        q.addBindValue(mqtt ? textOrNull(stations->at(int(i))) : textOrNull({}));
        q.addBindValue(mqtt ? textOrNull(boots->at(int(i))) : textOrNull({}));
        q.addBindValue(mqtt ? QVariant(seqs->at(i)) : QVariant(QMetaType(QMetaType::LongLong)));
        q.addBindValue(row.flash ? QVariant(recordKey(m)) : textOrNull({}));
        ok = q.exec();
        if (ok)
            added += std::max(0, q.numRowsAffected());
        else
            failure = sqlText(q.lastError());
    }
    q.finish();
    if (!finishTransaction(db, ok, failure)) {
        *error = QStringLiteral("%1: cannot store the messages: %2").arg(shown_, failure);
        return -1;
    }
    return added;
}

std::vector<RxTableModel::Row> MessageStore::query(const Query& query, QString* error) const
{
    QStringList names;
    for (const char* column : kColumns)
        names << QStringLiteral("m.") + QString::fromLatin1(column);
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
            *error = QStringLiteral("%1: cannot read the messages: %2").arg(shown_, sqlText(q.lastError()));
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

QStringList MessageStore::receivers(QString* error) const
{
    QStringList serials;
    QSqlQuery q(QSqlDatabase::database(connection_, false));
    if (!q.exec(QStringLiteral("SELECT serial_number FROM receivers ORDER BY serial_number"))) {
        if (error)
            *error = QStringLiteral("%1: cannot read the receivers: %2").arg(shown_, sqlText(q.lastError()));
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
            c.problems << QStringLiteral("%1: %2").arg(sql, sqlText(q.lastError()));
    };
    qint64 version = 0;
    number(QStringLiteral("SELECT MAX(version) FROM schema_version"), &version);
    c.schemaVersion = int(version);
    number(QStringLiteral("SELECT COUNT(*) FROM receivers"), &c.receivers);
    number(QStringLiteral("SELECT COUNT(*) FROM messages"), &c.messages);
    number(QStringLiteral("SELECT COUNT(*) FROM messages WHERE origin = 'live'"), &c.liveMessages);
    number(QStringLiteral("SELECT COUNT(*) FROM messages WHERE origin = 'flash'"), &c.flashMessages);
    if (engine_ == Engine::Sqlite) {
        if (!q.exec(QStringLiteral("PRAGMA integrity_check"))) {
            c.problems << QStringLiteral("integrity check: %1").arg(sqlText(q.lastError()));
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

} // namespace OrviaGonioManager::Store
