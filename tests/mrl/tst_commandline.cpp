#include <QProcess>
#include <QRegularExpression>
#include <QTest>

class TestCommandLine : public QObject
{
    Q_OBJECT

private slots:
    void helpAndVersion_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<QString>("expected");
        QTest::addColumn<bool>("display");
        const QString version = "^OrviaGonioManager 1\\.3 - \\S+\\n$";
        const QString help = "^Usage: \\S*OrviaGonioManager \\[options\\]\\n"
                             "OrviaGonioManager, a Marlen application\\.\\n[\\s\\S]*--version";
        for (const bool display : {true, false}) {
            const char* where = display ? "display" : "no display";
            QTest::addRow("version, %s", where) << "--version" << version << display;
            QTest::addRow("help, %s", where) << "--help" << help << display;
        }
    }
    void helpAndVersion()
    {
        QFETCH(QString, option);
        QFETCH(QString, expected);
        QFETCH(bool, display);
        QProcess p;
        if (!display) {
            QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
            for (const char* name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"})
                env.remove(name);
            p.setProcessEnvironment(env);
        }
        p.start(QStringLiteral(OGM_PROGRAM), {option});
        QVERIFY(p.waitForFinished(30000));
        QCOMPARE(p.exitStatus(), QProcess::NormalExit);
        QCOMPARE(p.exitCode(), 0);
        const QString out = QString::fromUtf8(p.readAllStandardOutput());
        QVERIFY2(QRegularExpression(expected).match(out).hasMatch(), qPrintable(out));
    }
};

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
