#include <QProcess>
#include <QTest>

class TestCommandLine : public QObject
{
    Q_OBJECT

private:
    static QString run(const QStringList& args)
    {
        QProcess p;
        p.setProgram(QStringLiteral(OGM_PROGRAM));
        p.setArguments(args);
        p.start();
        if (!p.waitForFinished(30000))
            return QString();
        return QString::fromUtf8(p.readAllStandardOutput());
    }

private slots:
    void version()
    {
        const QString out = run({"--version"});
        QVERIFY2(out.startsWith("OrviaGonioManager 1.3 - "), qPrintable(out));
    }

    void help()
    {
        const QString out = run({"--help"});
        QVERIFY2(out.contains("OrviaGonioManager, a Marlen application."), qPrintable(out));
        QVERIFY(out.contains("--version"));
    }
};

QTEST_GUILESS_MAIN(TestCommandLine)
#include "tst_commandline.moc"
