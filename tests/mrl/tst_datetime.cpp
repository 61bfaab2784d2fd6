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
        const auto row = [](const char* name, const char* utc, quint64 mjd, double seconds) {
            QTest::newRow(name) << QDateTime::fromString(utc, Qt::ISODateWithMs) << mjd << seconds;
        };
        row("epoch", "1970-01-01T00:00:00Z", 40587, 0.0);
        row("2000-01-01", "2000-01-01T00:00:00Z", 51544, 0.0);
        row("leap day 2024", "2024-02-29T12:00:00Z", 60369, 43200.0);
        row("day after leap day", "2024-03-01T00:00:00Z", 60370, 0.0);
        row("last second", "2026-11-22T23:59:59Z", 61366, 86399.0);
        row("last millisecond", "1970-01-01T23:59:59.999Z", 40587, 86399.999);
    }

    // Each way in gives the same instant, and the way out gives the time back.
    void mjd()
    {
        QFETCH(QDateTime, utc);
        QFETCH(quint64, mjd);
        QFETCH(double, seconds);
        const DateTime dt(utc);
        QCOMPARE(dt.mjd(), mjd);
        QCOMPARE(dt.secondsOfDay(), seconds);
        QCOMPARE(DateTime::fromMjd(mjd, seconds).toQDateTime(), utc);
        const QDate d = utc.date();
        const QTime t = utc.time();
        QVERIFY(DateTime::fromUtc(d.year(), d.month(), d.day(), t.hour(), t.minute(),
                                  t.second() + t.msec() / 1000.0) == dt);
        QVERIFY(dt < DateTime(utc.addMSecs(1)));
    }

    void metaTypeName()
    {
        DateTime::registerMetaType();
        QVERIFY(QMetaType::fromName("MRL::Utils::DateTime").isValid());
    }
};

QTEST_GUILESS_MAIN(TestDateTime)
#include "tst_datetime.moc"
