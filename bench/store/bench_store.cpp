// The message store's queries on a store of millions of messages, on SQLite and on PostgreSQL: one
// platform over one day, one receiver over one day, and a flash memory stored and stored again.
// OGM_BENCH_STORE_ROWS sets the size (default 10,000,000).
#include "BenchSupport.h"
#include "common/PostgresServer.h"
#include "store/MessageStore.h"
#include "utils/PlatformNumber.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QUrl>

#include <algorithm>
#include <cstdio>
#include <vector>

using OrviaGonioManager::Store::MessageStore;
using Row = OrviaGonioManager::Utils::RxTableModel::Row;

namespace {

constexpr int kPlatforms = 500;
constexpr int kReceivers = 20;
constexpr int kDays = 100;
const QDateTime kStart(QDate(2026, 1, 1), QTime(0, 0), Qt::UTC);
constexpr qint64 kStartMjd = 61041; // 2026-01-01

QString platformOf(int i)
{
    return QString::number(0x10000 + i * 37, 16).toUpper();
}

// The statement that fills the store with rows messages, spread evenly over kDays days, kPlatforms
// platforms and kReceivers receivers; one in three from flash.
QString fillStatement(bool sqlite, qint64 rows)
{
    const double step = double(kDays) * 86400.0 / double(rows);
    const QString t = QStringLiteral("(i * %1)").arg(step, 0, 'f', 9);
    const QString platform = sqlite ? QStringLiteral("printf('%X', 65536 + (i % 500) * 37)")
                                    : QStringLiteral("upper(to_hex(65536 + (i % 500) * 37))");
    const QString deviceTime =
        sqlite
            ? QStringLiteral("strftime('%Y-%m-%dT%H:%M:%fZ', '2026-01-01', '+' || %1 || ' seconds')").arg(t)
            : QStringLiteral("timestamptz '2026-01-01 00:00:00+00' + make_interval(secs => %1)").arg(t);
    const QString numbers = sqlite ? QStringLiteral("WITH RECURSIVE n(i) AS (SELECT 0 UNION ALL SELECT i + 1 "
                                                    "FROM n WHERE i < %1) SELECT")
                                         .arg(rows - 1)
                                   : QStringLiteral("SELECT");
    const QString from =
        sqlite ? QStringLiteral("FROM n") : QStringLiteral("FROM generate_series(0, %1) AS i").arg(rows - 1);
    return QStringLiteral(
               "INSERT INTO messages (receiver_id, origin, platform, platform_id, platform_index, mjd, "
               "seconds_of_day, device_time, arrival_time, frequency, flag_bit2, flag_bit1, flag_bit0, "
               "direction, "
               "v1_flash_value, band, extra_code, level, period, gnx_latitude, gnx_longitude, gnx_direction, "
               "payload, favourite, with_average, record_key) %1 "
               "(i / 7) % 20 + 1, CASE WHEN i % 3 = 0 THEN 'flash' ELSE 'live' END, %2, %2, 1, "
               "%3 + CAST(FLOOR(%4 / 86400) AS BIGINT), %4 - FLOOR(%4 / 86400) * 86400, %5, %5, 401668827, "
               "0, 1, 1, "
               "i % 360, 0, 1, 2, -120, 170, 43.59, 1.23, 249, 'A43AB0525B2EAEA5', 0, 0, "
               "CASE WHEN i % 3 = 0 THEN CAST(i AS TEXT) END %6")
        .arg(numbers, platform)
        .arg(kStartMjd)
        .arg(t, deviceTime, from);
}

bool exec(QSqlQuery& q, const QString& sql)
{
    if (q.exec(sql))
        return true;
    std::fprintf(stderr, "bench_store: %s\n%s\n", qPrintable(q.lastError().text()),
                 qPrintable(sql.left(300)));
    return false;
}

bool fill(const QString& url, bool sqlite, qint64 rows)
{
    QSqlDatabase db;
    if (sqlite) {
        db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("fill"));
        db.setDatabaseName(url);
    } else {
        const QUrl u(url);
        db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), QStringLiteral("fill"));
        db.setHostName(u.host());
        db.setPort(u.port());
        db.setUserName(u.userName());
        db.setDatabaseName(u.path().mid(1));
    }
    bool ok = db.open();
    {
        QSqlQuery q(db);
        if (sqlite)
            ok = ok && exec(q, QStringLiteral("PRAGMA journal_mode = WAL")) &&
                 exec(q, QStringLiteral("PRAGMA synchronous = OFF"));
        ok = ok && db.transaction();
        for (int r = 1; ok && r <= kReceivers; ++r)
            ok = exec(q, QStringLiteral("INSERT INTO receivers (serial_number, first_seen, last_seen) VALUES "
                                        "('0099-%1', '2026-01-01T00:00:00.000Z', '2026-01-01T00:00:00.000Z')")
                             .arg(400 + r));
        ok = ok && exec(q, fillStatement(sqlite, rows)) && db.commit();
        // As PostgreSQL's autovacuum would soon after a load; SQLite is left as the store leaves it.
        if (ok && !sqlite)
            ok = exec(q, QStringLiteral("ANALYZE messages"));
    }
    db.close();
    db = QSqlDatabase();
    QSqlDatabase::removeDatabase(QStringLiteral("fill"));
    return ok;
}

// What the store takes on disk: the SQLite file with its log, or the PostgreSQL database.
qint64 diskBytes(const QString& url, bool sqlite)
{
    if (sqlite)
        return QFileInfo(url).size() + QFileInfo(url + QStringLiteral("-wal")).size();
    qint64 bytes = 0;
    {
        const QUrl u(url);
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), QStringLiteral("size"));
        db.setHostName(u.host());
        db.setPort(u.port());
        db.setUserName(u.userName());
        db.setDatabaseName(u.path().mid(1));
        if (db.open()) {
            QSqlQuery q(db);
            if (q.exec(QStringLiteral("SELECT pg_database_size(current_database())")) && q.next())
                bytes = q.value(0).toLongLong();
        }
    }
    QSqlDatabase::removeDatabase(QStringLiteral("size"));
    return bytes;
}

struct Figures
{
    double first = 0;
    double median = 0;
    double worst = 0;
    size_t rows = 0;
};

template <typename F> Figures timed(int runs, F query)
{
    std::vector<double> ms;
    Figures f;
    for (int i = 0; i < runs; ++i) {
        QElapsedTimer t;
        t.start();
        f.rows += query(i);
        ms.push_back(msSince(t));
    }
    f.first = ms.front();
    f.rows /= size_t(runs);
    std::sort(ms.begin(), ms.end());
    f.median = ms[ms.size() / 2];
    f.worst = ms.back();
    return f;
}

void print(const char* engine, const char* what, const Figures& f)
{
    std::printf("%-10s %-34s first %7.1f ms  median %7.1f ms  worst %7.1f ms  (%zu rows)\n", engine, what,
                f.first, f.median, f.worst, f.rows);
}

// A flash memory of a GNX234 filled to the last record.
std::vector<Row> flashMemory()
{
    std::vector<Row> rows;
    for (int i = 0; i < 61428; ++i) {
        Row row;
        row.flash = true;
        auto& m = row.message;
        m.platformIndex = -1;
        m.mjd = quint64(kStartMjd + kDays + i / 5000);
        m.secondsOfDay = double((i * 17) % 86400);
        m.platformId = platformOf(i % kPlatforms).rightJustified(7, QLatin1Char('0'));
        m.frequency = 401668827;
        m.direction = quint16(i % 360);
        m.level = -120;
        m.extraCode = 2;
        m.gnxLatitude = 43.59;
        m.gnxLongitude = 1.23;
        m.payload = QByteArray::fromHex("A43AB0525B2EAEA5");
        row.byNumber.platform = OrviaGonioManager::Utils::PlatformNumber::shortest(m.platformId);
        rows.push_back(row);
    }
    return rows;
}

void run(const char* engine, const QString& url, bool sqlite, qint64 rows)
{
    QString error;
    {
        auto created = MessageStore::open(url, &error);
        if (!created) {
            std::fprintf(stderr, "bench_store: %s\n", qPrintable(error));
            return;
        }
    }
    QElapsedTimer load;
    load.start();
    if (!fill(url, sqlite, rows))
        return;
    auto store = MessageStore::open(url, &error);
    if (!store) {
        std::fprintf(stderr, "bench_store: %s\n", qPrintable(error));
        return;
    }
    std::printf("%-10s %lld messages loaded in %.0f s, %.0f bytes a message on disk, indexes included\n",
                engine, rows, msSince(load) / 1000.0, double(diskBytes(url, sqlite)) / double(rows));
    // Each run another platform on another day, so that no run finds the last one's pages warm.
    print(engine, "one platform over one day", timed(25, [&](int i) {
              MessageStore::Query q;
              q.platform = platformOf((i * 97) % kPlatforms).rightJustified(7, QLatin1Char('0'));
              q.from = kStart.addDays((i * 13) % kDays);
              q.to = q.from.addDays(1);
              return store->query(q).size();
          }));
    print(engine, "one receiver over one day", timed(10, [&](int i) {
              MessageStore::Query q;
              q.receiver = QStringLiteral("0099-%1").arg(401 + (i * 7) % kReceivers);
              q.from = kStart.addDays((i * 17 + 5) % kDays);
              q.to = q.from.addDays(1);
              return store->query(q).size();
          }));
    const std::vector<Row> flash = flashMemory();
    int added = 0;
    print(engine, "a full flash memory stored", timed(1, [&](int) {
              added = store->addBatch(QStringLiteral("0099-401"), flash, &error);
              return size_t(std::max(0, added));
          }));
    int again = 0;
    print(engine, "the same memory stored again", timed(1, [&](int) {
              again = store->addBatch(QStringLiteral("0099-401"), flash, &error);
              return size_t(std::max(0, again));
          }));
    std::printf("%-10s flash: %d of %zu added, then %d%s%s\n", engine, added, flash.size(), again,
                error.isEmpty() ? "" : ": ", qPrintable(error));
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const qint64 rows = qEnvironmentVariableIsSet("OGM_BENCH_STORE_ROWS")
                            ? qEnvironmentVariable("OGM_BENCH_STORE_ROWS").toLongLong()
                            : 10000000;
    QTemporaryDir dir;
    run("SQLite", dir.filePath(QStringLiteral("bench.sqlite")), true, rows);
    const QString missing = TestSupport::PostgresServer::missing();
    if (!missing.isEmpty()) {
        std::printf("PostgreSQL: not run: %s\n", qPrintable(missing));
        return 0;
    }
    TestSupport::PostgresServer postgres;
    QString error;
    if (!postgres.start(&error) || !postgres.createDatabase(QStringLiteral("bench"), &error)) {
        std::printf("PostgreSQL: not run: %s\n", qPrintable(error));
        return 0;
    }
    run("PostgreSQL", postgres.url(QStringLiteral("bench")), false, rows);
    return 0;
}
