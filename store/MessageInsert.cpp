#include "store/MessageInsert.h"

#include "mrl/utils/DateTime.h"
#include "store/MessageStore.h"
#include "store/StoreConnection.h"
#include "utils/PlatformNumber.h"

#include <QSqlDriver>
#include <QSqlError>
#include <QSqlField>
#include <QSqlQuery>

#include <sqlite3.h>

#include <cmath>

namespace OrviaGonioManager::Store {

using Utils::RxTableModel;

namespace {

// Rows one PostgreSQL statement carries: one round trip to the server per chunk.
constexpr int kRowsPerStatement = 200;

QString insertHead()
{
    return QStringLiteral("INSERT INTO messages (%1) VALUES ")
        .arg(MessageInsert::columns().join(QStringLiteral(", ")));
}

} // namespace

// Where the values of a row go: bound to SQLite's statement, or written into PostgreSQL's text.
class MessageInsert::Values
{
public:
    virtual ~Values() = default;
    virtual void row() = 0;
    virtual void number(qint64 value) = 0;
    virtual void real(double value) = 0;
    virtual void text(const QString& value) = 0;
    virtual void null() = 0;
    void textOrNull(const QString& value) { value.isEmpty() ? null() : text(value); }
};

namespace {

// SQLite's own prepared statement, through the connection Qt SQL opened: binding each value
// through Qt SQL costs half a microsecond, and so did parsing them out of a statement's text.
class SqliteValues : public MessageInsert::Values
{
public:
    SqliteValues(sqlite3* db, QString* error) : db_(db)
    {
        QString marks =
            QStringLiteral("?, ").repeated(MessageInsert::columns().size() - 1) + QLatin1Char('?');
        const QByteArray sql =
            (insertHead() + QLatin1Char('(') + marks + QStringLiteral(") ON CONFLICT DO NOTHING")).toUtf8();
        if (sqlite3_prepare_v2(db_, sql.constData(), int(sql.size()), &statement_, nullptr) != SQLITE_OK)
            *error = QString::fromUtf8(sqlite3_errmsg(db_));
    }
    ~SqliteValues() override { sqlite3_finalize(statement_); }
    bool ready() const { return statement_ != nullptr; }

    void row() override
    {
        sqlite3_reset(statement_);
        index_ = 0;
    }
    void number(qint64 value) override { sqlite3_bind_int64(statement_, ++index_, value); }
    void real(double value) override
    {
        if (std::isfinite(value))
            sqlite3_bind_double(statement_, ++index_, value);
        else
            null();
    }
    void text(const QString& value) override
    {
        const QByteArray utf8 = value.toUtf8();
        sqlite3_bind_text(statement_, ++index_, utf8.constData(), int(utf8.size()), SQLITE_TRANSIENT);
    }
    void null() override { sqlite3_bind_null(statement_, ++index_); }

    // Runs the row; the rows it added, or -1 with error.
    int step(QString* error)
    {
        if (sqlite3_step(statement_) != SQLITE_DONE) {
            *error = QString::fromUtf8(sqlite3_errmsg(db_));
            sqlite3_reset(statement_);
            return -1;
        }
        return sqlite3_changes(db_);
    }

private:
    sqlite3* db_;
    sqlite3_stmt* statement_ = nullptr;
    int index_ = 0;
};

// Many rows a statement, their texts quoted by the driver itself.
class TextValues : public MessageInsert::Values
{
public:
    explicit TextValues(const QSqlDriver* driver)
        : driver_(driver), field_(QStringLiteral("text"), QMetaType(QMetaType::QString)), head_(insertHead())
    {
        begin();
    }
    void begin()
    {
        sql_ = head_;
        anyRow_ = false;
    }
    void row() override
    {
        sql_ += anyRow_ ? QStringLiteral("), (") : QStringLiteral("(");
        anyRow_ = true;
        first_ = true;
    }
    void number(qint64 value) override
    {
        separate();
        sql_ += QString::number(value);
    }
    void real(double value) override
    {
        separate();
        // Seventeen digits give back the very double.
        sql_ += std::isfinite(value) ? QString::number(value, 'g', 17) : QStringLiteral("NULL");
    }
    void text(const QString& value) override
    {
        separate();
        field_.setValue(value);
        sql_ += driver_->formatValue(field_);
    }
    void null() override
    {
        separate();
        sql_ += QStringLiteral("NULL");
    }
    QString end() const { return sql_ + QStringLiteral(") ON CONFLICT DO NOTHING"); }

private:
    void separate()
    {
        if (!first_)
            sql_ += QStringLiteral(", ");
        first_ = false;
    }

    const QSqlDriver* driver_;
    QSqlField field_;
    QString head_;
    QString sql_;
    bool anyRow_ = false;
    bool first_ = true;
};

sqlite3* sqliteHandle(const QSqlDatabase& db)
{
    const QVariant handle = db.driver()->handle();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "sqlite3*") != 0)
        return nullptr;
    return *static_cast<sqlite3* const*>(handle.constData());
}

} // namespace

const QStringList& MessageInsert::columns()
{
    static const QStringList names{
        QStringLiteral("receiver_id"),
        QStringLiteral("origin"),
        QStringLiteral("platform"),
        QStringLiteral("platform_id"),
        QStringLiteral("platform_index"),
        QStringLiteral("mjd"),
        QStringLiteral("seconds_of_day"),
        QStringLiteral("device_time"),
        QStringLiteral("arrival_time"),
        QStringLiteral("frequency"),
        QStringLiteral("flag_bit2"),
        QStringLiteral("flag_bit1"),
        QStringLiteral("flag_bit0"),
        QStringLiteral("direction"),
        QStringLiteral("v1_flash_value"),
        QStringLiteral("band"),
        QStringLiteral("extra_code"),
        QStringLiteral("level"),
        QStringLiteral("period"),
        QStringLiteral("gnx_latitude"),
        QStringLiteral("gnx_longitude"),
        QStringLiteral("gnx_direction"),
        QStringLiteral("payload"),
        QStringLiteral("payload_latitude"),
        QStringLiteral("payload_longitude"),
        QStringLiteral("label"),
        QStringLiteral("favourite_slot"),
        QStringLiteral("favourite"),
        QStringLiteral("with_average"),
        QStringLiteral("station"),
        QStringLiteral("boot"),
        QStringLiteral("seq"),
        QStringLiteral("record_key"),
    };
    return names;
}

MessageInsert::MessageInsert(QSqlDatabase db, StoreSchema::Engine engine) : db_(db), engine_(engine)
{
    if (engine_ == StoreSchema::Engine::Sqlite) {
        sqlite3* handle = sqliteHandle(db_);
        if (!handle) {
            error_ = QStringLiteral("the SQLite driver gives no handle to its database");
            return;
        }
        auto values = std::make_unique<SqliteValues>(handle, &error_);
        if (values->ready())
            values_ = std::move(values);
    } else {
        values_ = std::make_unique<TextValues>(db_.driver());
    }
}

MessageInsert::~MessageInsert() = default;

bool MessageInsert::add(qint64 receiver, const RxTableModel::Row& row, const QString& now,
                        const QString* station, const QString* boot, const qint64* seq)
{
    if (!values_)
        return false;
    const Com::OrviaRxMessage_t& m = row.message;
    const RxTableModel::Row::ByNumber& n = row.byNumber;
    Values& v = *values_;
    v.row();
    v.number(receiver);
    v.text(row.flash ? QStringLiteral("flash") : QStringLiteral("live"));
    v.text(Utils::PlatformNumber::shortest(m.platformId));
    v.text(m.platformId);
    v.number(m.platformIndex);
    v.number(qint64(m.mjd));
    v.real(m.secondsOfDay);
    v.text(MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay)
               .toQDateTime()
               .toUTC()
               .toString(Qt::ISODateWithMs));
    v.text(now);
    v.number(qint64(m.frequency));
    v.number(int(m.flagBit2));
    v.number(int(m.flagBit1));
    v.number(int(m.flagBit0));
    v.number(int(m.direction));
    v.number(int(m.v1FlashValue));
    v.number(int(m.band));
    v.number(int(m.extraCode));
    v.number(m.level);
    v.number(qint64(m.period));
    v.real(m.gnxLatitude);
    v.real(m.gnxLongitude);
    v.number(qint64(m.gnxDirection));
    // Not NULL for no bytes: the column is NOT NULL.
    v.text(QString::fromLatin1(m.payload.toHex().toUpper()));
    n.payloadPosition ? v.real(n.payloadLatitude) : v.null();
    n.payloadPosition ? v.real(n.payloadLongitude) : v.null();
    v.textOrNull(n.label);
    v.textOrNull(row.index);
    v.number(int(n.favourite));
    v.number(int(row.withAverage));
    station ? v.textOrNull(*station) : v.null();
    boot ? v.textOrNull(*boot) : v.null();
    seq ? v.number(*seq) : v.null();
    row.flash ? v.text(MessageStore::recordKey(m)) : v.null();
    if (engine_ == StoreSchema::Engine::Sqlite) {
        const int changed = static_cast<SqliteValues&>(v).step(&error_);
        if (changed < 0)
            return false;
        added_ += changed;
        return true;
    }
    return ++pending_ < kRowsPerStatement || flushText();
}

bool MessageInsert::finish()
{
    return values_ && (engine_ == StoreSchema::Engine::Sqlite || pending_ == 0 || flushText());
}

bool MessageInsert::flushText()
{
    auto& text = static_cast<TextValues&>(*values_);
    QSqlQuery q(db_);
    const bool ok = q.exec(text.end());
    if (ok)
        added_ += std::max(0, q.numRowsAffected());
    else
        error_ = StoreConnection::sqlText(q.lastError());
    text.begin();
    pending_ = 0;
    return ok;
}

} // namespace OrviaGonioManager::Store
