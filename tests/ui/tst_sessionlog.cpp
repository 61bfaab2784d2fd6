#include "mrl/utils/Exception.h"
#include "ui/SessionLog.h"

#include <QTemporaryDir>
#include <QTest>

using OrviaGonioManager::Ui::SessionLog;

class TestSessionLog : public QObject
{
    Q_OBJECT

private slots:
    void fileSafe_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("safe");
        for (const auto& [text, safe] : QList<QPair<QString, QString>>{{"0012-345", "0012-345"},
                                                                       {"/dev/pts/3", "dev_pts_3"},
                                                                       {"/tmp/my gnx:0", "tmp_my_gnx_0"},
                                                                       {"///", "unknown"},
                                                                       {"../x", "x"}})
            QTest::newRow(qPrintable(text)) << text << safe;
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
