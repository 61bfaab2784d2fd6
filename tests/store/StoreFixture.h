#pragma once

// What the message store's tests share: messages to store, a new store on each engine (an SQLite
// file in a temporary directory, a database on a PostgreSQL server the test starts), and the
// database opened beside the store, as another program would.
#include "common/PostgresServer.h"
#include "store/MessageStore.h"
#include "utils/PlatformNumber.h"

#include <QSqlRecord>
#include <QTemporaryDir>
#include <QtTest>

#include <tuple>

using OrviaGonioManager::Store::MessageStore;
using Row = OrviaGonioManager::Utils::RxTableModel::Row;

// A message on 2026-11-23 (MJD 61367), seconds into the day.
inline Row message(const QString& platformId, double seconds, bool flash, quint16 direction = 104)
{
    Row row;
    row.flash = flash;
    auto& m = row.message;
    m.platformIndex = flash ? -1 : 2;
    m.mjd = 61367;
    m.secondsOfDay = seconds;
    m.platformId = platformId;
    m.frequency = 401668827;
    m.flagBit0 = true;
    m.flagBit1 = true;
    m.direction = direction;
    m.v1FlashValue = -3;
    m.band = 1;
    m.extraCode = 2;
    m.level = -120;
    m.period = 170;
    m.gnxLatitude = 43.59000000000001;
    m.gnxLongitude = 1.2301;
    m.gnxDirection = 249;
    m.payload = QByteArray::fromHex("A43AB0525B2EAEA5");
    row.byNumber.platform = OrviaGonioManager::Utils::PlatformNumber::shortest(platformId);
    return row;
}

// Every field the store keeps, to compare a row with what came back.
inline auto fields(const Row& r)
{
    const auto& m = r.message;
    return std::make_tuple(r.flash, m.platformIndex, m.mjd, m.secondsOfDay, m.platformId, m.frequency,
                           m.flagBit2, m.flagBit1, m.flagBit0, m.direction, m.v1FlashValue, m.band,
                           m.extraCode, m.level, m.period, m.gnxLatitude, m.gnxLongitude, m.gnxDirection,
                           m.payload, r.index, r.withAverage, r.byNumber.platform, r.byNumber.label,
                           r.byNumber.favourite, r.byNumber.payloadPosition, r.byNumber.payloadLatitude,
                           r.byNumber.payloadLongitude);
}

inline QDateTime at(int hour, int minute = 0)
{
    return QDateTime(QDate(2026, 11, 23), QTime(hour, minute), Qt::UTC);
}

// The store's database opened beside the store, as another program would.
inline QSqlDatabase rawDatabase(const QString& engine, const QString& url, const QString& connection)
{
    if (engine == QLatin1String("sqlite")) {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), connection);
        db.setDatabaseName(url);
        return db;
    }
    const QUrl u(url);
    QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QPSQL"), connection);
    db.setHostName(u.host());
    db.setPort(u.port());
    db.setUserName(u.userName());
    db.setDatabaseName(u.path().mid(1));
    return db;
}

// The statements run there in turn: the rows of the last, columns joined by spaces. The first that
// fails stops them and leaves itself and its reason in *error, empty otherwise.
inline QStringList rawExec(const QString& engine, const QString& url, const QStringList& statements,
                           QString* error)
{
    QStringList rows;
    error->clear();
    {
        QSqlDatabase db = rawDatabase(engine, url, QStringLiteral("raw"));
        if (!db.open())
            *error = db.lastError().text();
        QSqlQuery q(db);
        for (const QString& s : statements) {
            if (!error->isEmpty())
                break;
            if (!q.exec(s))
                *error = s + QLatin1Char('\n') + q.lastError().text();
            rows.clear();
            while (q.next()) {
                QStringList columns;
                for (int i = 0; i < q.record().count(); ++i)
                    columns << q.value(i).toString();
                rows << columns.join(QLatin1Char(' '));
            }
        }
    }
    QSqlDatabase::removeDatabase(QStringLiteral("raw"));
    return rows;
}

class StoreFixture
{
protected:
    // Starts PostgreSQL when it can run here.
    void startServers()
    {
        QVERIFY(dir_.isValid());
        postgresMissing_ = TestSupport::PostgresServer::missing();
        if (postgresMissing_.isEmpty()) {
            postgres_ = std::make_unique<TestSupport::PostgresServer>();
            QString error;
            QVERIFY2(postgres_->start(&error), qPrintable(error));
        }
    }

    static void engines()
    {
        QTest::addColumn<QString>("engine");
        QTest::newRow("sqlite") << QStringLiteral("sqlite");
        QTest::newRow("postgresql") << QStringLiteral("postgresql");
    }

    // A new empty store of the row's engine; "" when PostgreSQL cannot run here (the test skips).
    QString newStore()
    {
        QFETCH(QString, engine);
        const QString name = QStringLiteral("store%1").arg(++stores_);
        if (engine == QLatin1String("sqlite"))
            return dir_.filePath(name + QStringLiteral(".sqlite"));
        if (!postgres_)
            return {};
        QString error;
        if (!postgres_->createDatabase(name, &error))
            qFatal("cannot create database %s: %s", qPrintable(name), qPrintable(error));
        return postgres_->url(name);
    }

    std::unique_ptr<MessageStore> openNew()
    {
        const QString url = newStore();
        if (url.isEmpty())
            return nullptr;
        QString error;
        auto store = MessageStore::open(url, &error);
        if (!store)
            qWarning("%s", qPrintable(error));
        return store;
    }

    // The rows the queries of docs/store.md find.
    void fill(MessageStore& store)
    {
        QString error;
        std::vector<Row> rows{
            message(QStringLiteral("002A1B3"), 81530, true), message(QStringLiteral("2A1B3"), 81530.5, false),
            message(QStringLiteral("33BBA"), 3600, false), message(QStringLiteral("2308281"), 7200, true)};
        QCOMPARE(store.addBatch(QStringLiteral("0099-429"), rows, &error), 4);
        // seq 1 and 4 through MQTT.
        for (const auto& [seconds, seq] : {std::pair{60, 1}, {90, 4}})
            QCOMPARE(store.addMqttBatch(QStringLiteral("0099-430"),
                                        {message(QStringLiteral("33BBA"), seconds, false)},
                                        {QStringLiteral("hill-3")}, {QStringLiteral("1b9556ab7e8e7a44")},
                                        {qint64(seq)}, &error),
                     1);
    }

    QTemporaryDir dir_;
    std::unique_ptr<TestSupport::PostgresServer> postgres_;
    QString postgresMissing_;
    int stores_ = 0;
};

#define OPEN_NEW(store)                                                                                      \
    auto store = openNew();                                                                                  \
    if (!store && !postgres_)                                                                                \
        QSKIP(qPrintable(postgresMissing_));                                                                 \
    QVERIFY(store)
