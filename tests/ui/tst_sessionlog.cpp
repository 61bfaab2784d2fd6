#include "mrl/utils/Exception.h"
#include "ui/SessionLog.h"

#include <QTemporaryDir>
#include <QTest>

using OrviaGonioManager::Ui::SessionLog;

class TestSessionLog : public QObject
{
    Q_OBJECT

private:
    static QByteArray contents(const QString& path)
    {
        QFile f(path);
        f.open(QIODevice::ReadOnly);
        return f.readAll();
    }

private slots:
    void sessionsAreSeparatedAndFlushed()
    {
        QTemporaryDir dir;
        const QString logs = dir.filePath("Logs"); // created on demand
        SessionLog log;
        log.open(logs, "0012-345");
        QCOMPARE(log.filePath(), logs + "/Log 0012-345.txt");
        log.writeLine("first session");
        // Flushed per line: readable while the log is still open.
        QCOMPARE(contents(log.filePath()), QByteArray("first session\n"));
        log.close();

        log.open(logs, "0012-345");
        log.writeLine("second session");
        QCOMPARE(contents(log.filePath()), QByteArray("first session\n\n\n\nsecond session\n"));
    }

    void fileSafe_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("safe");
        QTest::newRow("serial") << "0012-345"
                                << "0012-345";
        QTest::newRow("pty path") << "/dev/pts/3"
                                  << "dev_pts_3";
        QTest::newRow("windows port") << "COM3"
                                      << "COM3";
        QTest::newRow("spaces and colon") << "/tmp/my gnx:0"
                                          << "tmp_my_gnx_0";
        QTest::newRow("only unsafe") << "///"
                                     << "unknown";
        QTest::newRow("dot dot") << "../x"
                                 << "x";
    }

    void fileSafe()
    {
        QFETCH(QString, text);
        QFETCH(QString, safe);
        QCOMPARE(SessionLog::fileSafe(text), safe);
    }

    void unopenableFileThrowsTheText()
    {
        QTemporaryDir dir;
        // A directory in place of the file makes the open fail.
        QDir(dir.path()).mkpath("Log x.txt");
        SessionLog log;
        try {
            log.open(dir.path(), "x");
            QFAIL("no exception");
        } catch (const MRL::Utils::Exception& e) {
            QCOMPARE(e.message(), QString("Unable to open log file %1/Log x.txt").arg(dir.path()));
        }
        QVERIFY(!log.isOpen());
    }
};

QTEST_GUILESS_MAIN(TestSessionLog)
#include "tst_sessionlog.moc"
