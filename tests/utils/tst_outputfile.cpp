#include "utils/OutputFile.h"

#include <QDir>
#include <QProcess>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using OrviaGonioManager::Utils::OutputFile;

namespace {

const bool kRoot = ::geteuid() == 0;
const QString kOwner = kRoot ? "@4321" : ""; // only root can give a file away

// A file holding "old" whose mode, and as root owner, the replacement keeps.
QString old(const QString& name)
{
    return QString("printf old > %1 && chmod 600 %1").arg(name) +
           (kRoot ? " && chown 4321:4321 " + name : "");
}

// Writes "new" (or, with a file size limit, more than the limit lets through) as a separate
// process, so that its standard output is a file of the test's; the cause of a failure on stderr.
int writeChild(const QString& name, bool limited)
{
    const QByteArray data = limited ? QByteArray(1 << 16, 'x') : QByteArray("new");
    if (limited) {
        std::signal(SIGXFSZ, SIG_IGN); // the write fails instead
        const struct rlimit small = {4096, 4096};
        setrlimit(RLIMIT_FSIZE, &small);
    }
    OutputFile out(name);
    if (out.open() && out.device()->write(data) == data.size() && out.commit())
        return 0;
    fprintf(stderr, "%s", qPrintable(out.errorString()));
    return 1;
}

QByteArray contents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("?");
}

// Every entry with its kind; a regular file with its mode, its owner when not ours, its content.
QString listing(const QDir& dir)
{
    QStringList items;
    for (const QString& name :
         dir.entryList(QDir::AllEntries | QDir::System | QDir::Hidden | QDir::NoDotAndDotDot)) {
        const QString path = dir.filePath(name);
        struct stat st;
        lstat(QFile::encodeName(path).constData(), &st);
        if (S_ISLNK(st.st_mode))
            items << name + "->" + QFile::symLinkTarget(path).section('/', -1);
        else if (!S_ISREG(st.st_mode))
            items << name + (S_ISCHR(st.st_mode) ? "%" : S_ISFIFO(st.st_mode) ? "|" : "/");
        else
            items << QString("%1=%2%3:%4")
                         .arg(name, QString::number(st.st_mode & 07777, 8),
                              st.st_uid == ::geteuid() ? QString() : "@" + QString::number(st.st_uid),
                              QString::fromLatin1(contents(path)));
    }
    return items.join(' ');
}

} // namespace

class TestOutputFile : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase() { ::umask(022); }

    void write_data()
    {
        QTest::addColumn<QString>("setup"); // a shell command run in an empty directory
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("after");     // the directory's entries
        QTest::addColumn<QByteArray>("output"); // the caller's standard output file, "old" before
        QTest::addColumn<QString>("error");     // empty: the write succeeds
        QTest::addColumn<bool>("limited");
        const auto row = [](const char* tag, const QString& setup, const QString& name, const QString& after,
                            const QByteArray& output = "old", const QString& error = "",
                            bool limited = false) {
            QTest::newRow(tag) << setup << name << after << output << error << limited;
        };
        const QString link = old("real") + " && ln -s real out";
        row("dash", "", "-", "", "oldnew");
        row("/dev/stdout appends", "", "/dev/stdout", "", "oldnew");
        // Root writes onto a twin of /dev/null: a fault must not replace the system's.
        row("/dev/null", kRoot ? "mknod out c 1 3" : "", kRoot ? "out" : "/dev/null", kRoot ? "out%" : "");
        row("fifo", "mkfifo out", "out", "out|");
        row("missing", "", "out", "out=644:new");
        row("0600, other owner", old("out"), "out", "out=600" + kOwner + ":new");
        row("link", link, "out", "out->real real=600" + kOwner + ":new");
        row("dangling link", "ln -s real out", "out", "out->real real=644:new");
        row("under a file", old("out"), "out/x", "out=600" + kOwner + ":old", "old", "Not a directory");
        row("directory", "mkdir out", "out", "out/", "old", "Is a directory");
        row("write fails", link, "out", "out->real real=600" + kOwner + ":old", "old", "File too large",
            true);
    }

    void write()
    {
        QFETCH(QString, setup);
        QFETCH(QString, name);
        QFETCH(QString, after);
        QFETCH(QByteArray, output);
        QFETCH(QString, error);
        QFETCH(bool, limited);

        QTemporaryDir dir;
        QTemporaryDir outside;
        if (!setup.isEmpty())
            QCOMPARE(QProcess::execute("sh", {"-c", "cd " + dir.path() + " && " + setup}), 0);
        const QString stdoutFile = outside.filePath("stdout");
        QFile caller(stdoutFile);
        QVERIFY(caller.open(QIODevice::WriteOnly) && caller.write("old") == 3);
        caller.close();

        QProcess reader; // started first: opening a FIFO waits for the other end
        if (setup == "mkfifo out") {
            reader.setWorkingDirectory(dir.path());
            reader.start("cat", {"out"});
            QVERIFY(reader.waitForStarted());
        }
        QProcess writer;
        writer.setWorkingDirectory(dir.path());
        writer.setStandardOutputFile(stdoutFile, QIODevice::Append);
        writer.start(QCoreApplication::applicationFilePath(), {"--write", name, limited ? "1" : "0"});
        QVERIFY(writer.waitForFinished());
        QCOMPARE(QString::fromLocal8Bit(writer.readAllStandardError()), error);
        QCOMPARE(writer.exitCode(), error.isEmpty() ? 0 : 1);
        if (setup == "mkfifo out") {
            QVERIFY(reader.waitForFinished());
            QCOMPARE(reader.readAllStandardOutput(), QByteArray("new"));
        }
        QCOMPARE(contents(stdoutFile), output);
        QCOMPARE(listing(QDir(dir.path())), after);
    }
};

int main(int argc, char** argv)
{
    if (argc == 4 && qstrcmp(argv[1], "--write") == 0)
        return writeChild(QString::fromLocal8Bit(argv[2]), argv[3][0] == '1');
    QCoreApplication app(argc, argv);
    TestOutputFile test;
    return QTest::qExec(&test, argc, argv);
}

#include "tst_outputfile.moc"
