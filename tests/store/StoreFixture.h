#pragma once

// What the message store's tests share: messages to store, a new store on each engine (an SQLite
// file in a temporary directory, a database on a PostgreSQL server the test starts), and the
// database opened beside the store, as another program would.
#include "common/PostgresServer.h"
#include "store/MessageStore.h"
#include "utils/PlatformNumber.h"

#include <QTemporaryDir>
#include <QtTest>

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

inline void compareRows(const Row& a, const Row& b)
{
    const auto& m = a.message;
    const auto& n = b.message;
    QCOMPARE(a.flash, b.flash);
    QCOMPARE(m.platformIndex, n.platformIndex);
    QCOMPARE(m.mjd, n.mjd);
    QCOMPARE(m.secondsOfDay, n.secondsOfDay);
    QCOMPARE(m.platformId, n.platformId);
    QCOMPARE(m.frequency, n.frequency);
    QCOMPARE(m.flagBit2, n.flagBit2);
    QCOMPARE(m.flagBit1, n.flagBit1);
    QCOMPARE(m.flagBit0, n.flagBit0);
    QCOMPARE(m.direction, n.direction);
    QCOMPARE(m.v1FlashValue, n.v1FlashValue);
    QCOMPARE(m.band, n.band);
    QCOMPARE(m.extraCode, n.extraCode);
    QCOMPARE(m.level, n.level);
    QCOMPARE(m.period, n.period);
    QCOMPARE(m.gnxLatitude, n.gnxLatitude);
    QCOMPARE(m.gnxLongitude, n.gnxLongitude);
    QCOMPARE(m.gnxDirection, n.gnxDirection);
    QCOMPARE(m.payload, n.payload);
    QCOMPARE(a.index, b.index);
    QCOMPARE(a.withAverage, b.withAverage);
    QCOMPARE(a.byNumber.platform, b.byNumber.platform);
    QCOMPARE(a.byNumber.label, b.byNumber.label);
    QCOMPARE(a.byNumber.favourite, b.byNumber.favourite);
    QCOMPARE(a.byNumber.payloadPosition, b.byNumber.payloadPosition);
    QCOMPARE(a.byNumber.payloadLatitude, b.byNumber.payloadLatitude);
    QCOMPARE(a.byNumber.payloadLongitude, b.byNumber.payloadLongitude);
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
        QCOMPARE(store.addMqttBatch(QStringLiteral("0099-430"), {message(QStringLiteral("33BBA"), 60, false)},
                                    {QStringLiteral("hill-3")}, {QStringLiteral("1b9556ab7e8e7a44")}, {1},
                                    &error),
                 1);
        QCOMPARE(store.addMqttBatch(QStringLiteral("0099-430"), {message(QStringLiteral("33BBA"), 90, false)},
                                    {QStringLiteral("hill-3")}, {QStringLiteral("1b9556ab7e8e7a44")}, {4},
                                    &error),
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
