#include <QProcess>
#include <QTest>

class TestCommandLine : public QObject
{
    Q_OBJECT

private slots:
    void helpAndVersion_data()
    {
        QTest::addColumn<QString>("option");
        QTest::addColumn<bool>("display");
        for (const bool display : {true, false})
            for (const QString option : {"--version", "--help"})
                QTest::addRow("%s, %s", qPrintable(option), display ? "display" : "no display")
                    << option << display;
    }
    // Both answer without a display, as packagers and scripts call them.
    void helpAndVersion()
    {
        QFETCH(QString, option);
        QFETCH(bool, display);
        QProcess p;
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        for (const char* name : {"QT_QPA_PLATFORM", "DISPLAY", "WAYLAND_DISPLAY"})
            if (!display)
                env.remove(name);
        p.setProcessEnvironment(env);
        p.start(QStringLiteral(OGM_PROGRAM), {option});
        QVERIFY(p.waitForFinished(30000));
        QCOMPARE(p.exitStatus(), QProcess::NormalExit);
        QCOMPARE(p.exitCode(), 0);
        const QString out = QString::fromUtf8(p.readAllStandardOutput());
        QVERIFY2(option == "--version" ? out.startsWith("OrviaGonioManager 1.3 - ")
                                       : out.contains("OrviaGonioManager, a Marlen application."),
                 qPrintable(out));
    }
};

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
