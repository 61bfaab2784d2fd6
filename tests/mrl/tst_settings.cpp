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
        const QStringList keys{"printUartDebugInfo", "printAtCmdDebugInfo", "gnxCommandTimeoutMs",
                               "keepAliveTimeoutMs", "keepAlivePeriodMs",   "keepChecksumErrorOnNprGnx134",
                               "nprMessagesFormat"};
        const QList<int> defaults{0, 1, 60000, 500, 1000, 0, 0};
        QCOMPARE((QList<int>{s.printUartDebugInfo, s.printAtCmdDebugInfo, s.gnxCommandTimeoutMs,
                             s.keepAliveTimeoutMs, s.keepAlivePeriodMs, s.keepChecksumErrorOnNprGnx134,
                             s.nprMessagesFormat}),
                 defaults);
        const QString text = readFile(path);
        for (int i = 0; i < keys.size(); ++i) {
            const QString line = keys[i] + '=' + QString::number(defaults[i]);
            QVERIFY2(text.contains(line), qPrintable(line + " missing in\n" + text));
        }
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
        QCOMPARE((QList<int>{s.printUartDebugInfo, s.gnxCommandTimeoutMs, s.keepAliveTimeoutMs,
                             s.keepAlivePeriodMs}),
                 (QList<int>{1, timeout, keepAliveTimeout, keepAlivePeriod}));

        // The file is completed with all seven keys.
        QSettings ini(path, QSettings::IniFormat);
        QCOMPARE(ini.allKeys().size(), 7);
        QCOMPARE(ini.value("nprMessagesFormat").toString(), QString("0"));
        QCOMPARE(ini.value("gnxCommandTimeoutMs").toString(), QString::number(timeout));
    }

    // Read back as saved, a zero period included; flags are written as 0 and 1, as the defaults show.
    void savedValuesAndZeroPeriodKept()
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
        Settings again{QFileInfo(path)};
        again.load();
        QCOMPARE((QList<int>{again.keepAlivePeriodMs, again.keepChecksumErrorOnNprGnx134,
                             again.nprMessagesFormat}),
                 (QList<int>{0, 1, 2}));
    }

    void loadVariableThrowsOnMissingKey()
    {
        QTemporaryDir dir;
        QSettings ini(dir.filePath("x.ini"), QSettings::IniFormat);
        QVERIFY_THROWS_EXCEPTION(MRL::Utils::Exception, MRL::Utils::Settings::loadVariable(ini, "absent"));
    }
};

QTEST_GUILESS_MAIN(TestSettings)
#include "tst_settings.moc"
