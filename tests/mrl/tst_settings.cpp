#include "app/Settings.h"
#include "mrl/utils/Exception.h"

#include <QFile>
#include <QSettings>
#include <QTemporaryDir>
#include <QTest>

using OrviaGonioManager::Utils::Settings;

class TestSettings : public QObject
{
    Q_OBJECT

private:
    static QString readFile(const QString& path)
    {
        QFile f(path);
        f.open(QIODevice::ReadOnly);
        return QString::fromUtf8(f.readAll());
    }

private slots:
    void missingFileIsCreatedWithDefaults()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("OrviaGonioManager.ini");
        Settings s{QFileInfo(path)};
        s.load();
        QCOMPARE(s.printUartDebugInfo, false);
        QCOMPARE(s.printAtCmdDebugInfo, true);
        QCOMPARE(s.gnxCommandTimeoutMs, 60000);
        QCOMPARE(s.keepAliveTimeoutMs, 500);
        QCOMPARE(s.keepAlivePeriodMs, 1000);
        QCOMPARE(s.keepChecksumErrorOnNprGnx134, false);
        QCOMPARE(s.nprMessagesFormat, 0);

        const QString text = readFile(path);
        const QStringList expected{"printUartDebugInfo=0",      "printAtCmdDebugInfo=1",
                                   "gnxCommandTimeoutMs=60000", "keepAliveTimeoutMs=500",
                                   "keepAlivePeriodMs=1000",    "keepChecksumErrorOnNprGnx134=0",
                                   "nprMessagesFormat=0"};
        for (const QString& line : expected)
            QVERIFY2(text.contains(line), qPrintable(line + " missing in\n" + text));
    }

    void partialFile_data()
    {
        QTest::addColumn<QString>("content");
        QTest::addColumn<int>("timeout");
        QTest::addColumn<int>("keepAliveTimeout");
        QTest::addColumn<int>("keepAlivePeriod");
        // Values read before the first missing key are kept; later keys keep their defaults
        // even when present in the file.
        QTest::newRow("stops at keepAliveTimeoutMs")
            << "printUartDebugInfo=1\nprintAtCmdDebugInfo=0\ngnxCommandTimeoutMs=2000\nkeepAlivePeriodMs=7\n"
            << 2000 << 500 << 1000;
        QTest::newRow("only the first key") << "printUartDebugInfo=1\n" << 60000 << 500 << 1000;
        QTest::newRow("all but the last")
            << "printUartDebugInfo=1\nprintAtCmdDebugInfo=0\ngnxCommandTimeoutMs=10\nkeepAliveTimeoutMs=20\n"
               "keepAlivePeriodMs=0\nkeepChecksumErrorOnNprGnx134=1\n"
            << 10 << 20 << 0;
    }

    void partialFile()
    {
        QFETCH(QString, content);
        QFETCH(int, timeout);
        QFETCH(int, keepAliveTimeout);
        QFETCH(int, keepAlivePeriod);
        QTemporaryDir dir;
        const QString path = dir.filePath("s.ini");
        {
            QFile f(path);
            QVERIFY(f.open(QIODevice::WriteOnly));
            f.write(content.toUtf8());
        }
        Settings s{QFileInfo(path)};
        s.load();
        QCOMPARE(s.printUartDebugInfo, true);
        QCOMPARE(s.gnxCommandTimeoutMs, timeout);
        QCOMPARE(s.keepAliveTimeoutMs, keepAliveTimeout);
        QCOMPARE(s.keepAlivePeriodMs, keepAlivePeriod);

        // The file is completed with all seven keys.
        QSettings ini(path, QSettings::IniFormat);
        QCOMPARE(ini.allKeys().size(), 7);
        QCOMPARE(ini.value("nprMessagesFormat").toString(), QString("0"));
        QCOMPARE(ini.value("gnxCommandTimeoutMs").toString(), QString::number(timeout));
    }

    void valuesAreDecimalTextAndZeroPeriodKept()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("s.ini");
        {
            Settings s{QFileInfo(path)};
            s.keepAlivePeriodMs = 0;
            s.keepChecksumErrorOnNprGnx134 = true;
            s.nprMessagesFormat = 2;
            s.save();
        }
        const QString text = readFile(path);
        QVERIFY(text.contains("keepAlivePeriodMs=0"));
        QVERIFY(text.contains("keepChecksumErrorOnNprGnx134=1"));
        QVERIFY(!text.contains("true"));
        Settings again{QFileInfo(path)};
        again.load();
        QCOMPARE(again.keepAlivePeriodMs, 0);
        QCOMPARE(again.keepChecksumErrorOnNprGnx134, true);
        QCOMPARE(again.nprMessagesFormat, 2);
    }

    void loadVariableThrowsOnMissingKey()
    {
        QTemporaryDir dir;
        QSettings ini(dir.filePath("x.ini"), QSettings::IniFormat);
        bool thrown = false;
        try {
            MRL::Utils::Settings::loadVariable(ini, "absent");
        } catch (const MRL::Utils::Exception&) {
            thrown = true;
        }
        QVERIFY(thrown);
    }
};

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
