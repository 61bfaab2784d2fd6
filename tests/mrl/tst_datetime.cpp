#include "mrl/utils/DateTime.h"

#include <QTest>

using MRL::Utils::DateTime;

class TestDateTime : public QObject
{
    Q_OBJECT

private slots:
    void mjd_data()
    {
        QTest::addColumn<QDateTime>("utc");
        QTest::addColumn<quint64>("mjd");
        QTest::addColumn<double>("seconds");
        QTest::newRow("epoch") << QDateTime(QDate(1970, 1, 1), QTime(0, 0), Qt::UTC) << quint64(40587) << 0.0;
        QTest::newRow("2000-01-01") << QDateTime(QDate(2000, 1, 1), QTime(0, 0), Qt::UTC) << quint64(51544)
                                    << 0.0;
        QTest::newRow("leap day 2024")
            << QDateTime(QDate(2024, 2, 29), QTime(12, 0), Qt::UTC) << quint64(60369) << 43200.0;
        QTest::newRow("day after leap day")
            << QDateTime(QDate(2024, 3, 1), QTime(0, 0), Qt::UTC) << quint64(60370) << 0.0;
        QTest::newRow("last second") << QDateTime(QDate(2026, 11, 22), QTime(23, 59, 59), Qt::UTC)
                                     << quint64(61366) << 86399.0;
        QTest::newRow("last millisecond")
            << QDateTime(QDate(1970, 1, 1), QTime(23, 59, 59, 999), Qt::UTC) << quint64(40587) << 86399.999;
    }

    void mjd()
    {
        QFETCH(QDateTime, utc);
        QFETCH(quint64, mjd);
        QFETCH(double, seconds);
        const DateTime dt(utc);
        QCOMPARE(dt.mjd(), mjd);
        QCOMPARE(dt.secondsOfDay(), seconds);
        // And back again.
        QCOMPARE(DateTime::fromMjd(mjd, seconds).toQDateTime(), utc);
    }

    void ordering()
    {
        const DateTime a = DateTime::fromUtc(2024, 2, 29, 10, 0, 0);
        const DateTime b = DateTime::fromUtc(2024, 2, 29, 10, 0, 1);
        QVERIFY(a < b);
        QVERIFY(b > a);
        QVERIFY(a != b);
        QVERIFY(a == DateTime::fromMjd(a.mjd(), a.secondsOfDay()));
    }

    void metaTypeName()
    {
        DateTime::registerMetaType();
        QVERIFY(QMetaType::fromName("MRL::Utils::DateTime").isValid());
    }
};

QTEST_GUILESS_MAIN(TestDateTime)
#include "tst_datetime.moc"
