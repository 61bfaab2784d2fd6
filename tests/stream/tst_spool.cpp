#include "mrl/utils/Exception.h"
#include "stream/Spool.h"

#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <cstring>
#include <memory>
#include <unistd.h>

using OrviaGonioManager::Stream::Spool;

namespace {

constexpr qint64 kMB = 1024 * 1024;

QByteArray message(qint64 seq)
{
    return "{\"seq\":" + QByteArray::number(seq) + ",\"pad\":\"" + QByteArray(270, 'x') + "\"}";
}

qint64 lineSize(qint64 seq)
{
    return QByteArray::number(seq).size() + message(seq).size() + 2;
}

qint64 append(Spool& spool)
{
    return spool.append(message);
}

qint64 diskBytes(const QString& dir, int* files = nullptr)
{
    qint64 bytes = 0;
    const QFileInfoList list = QDir(dir).entryInfoList({"*.spool"}, QDir::Files);
    for (const QFileInfo& f : list)
        bytes += f.size();
    if (files)
        *files = int(list.size());
    return bytes;
}

QString why(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

// A tmpfs mounted for as long as it lives; error() says why there is none.
struct Tmpfs
{
    QString dir, error;
    Tmpfs(const QString& at, const QString& options)
    {
        if (::geteuid() != 0) {
            error = "mounting a tmpfs needs root";
            return;
        }
        QDir().mkpath(at);
        QProcess mount;
        mount.start("mount", {"-t", "tmpfs", "-o", options, "tmpfs", at});
        if (!mount.waitForFinished() || mount.exitCode() != 0)
            error = "mount -t tmpfs failed: " + mount.readAllStandardError().trimmed();
        else
            dir = at;
    }
    ~Tmpfs()
    {
        if (!dir.isEmpty())
            QProcess::execute("umount", {dir});
    }
};

} // namespace

class TstSpool : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { Spool::setWriteFailureForTest(nullptr); }

    void onlyWaitingHoldsDisk_data()
    {
        QTest::addColumn<int>("ackEvery");
        QTest::addColumn<int>("lag"); // acknowledgements this far behind the newest message
        QTest::newRow("each acknowledged at once") << 1 << 0;
        QTest::newRow("acknowledged by hundreds") << 100 << 0;
        QTest::newRow("256 in flight") << 1 << 256;
    }

    // 10,000 messages of ~300 bytes: acknowledged ones never hold more than 1 MB, and none is left.
    void onlyWaitingHoldsDisk()
    {
        QFETCH(int, ackEvery);
        QFETCH(int, lag);
        QTemporaryDir tmp;
        Spool spool(tmp.path(), 512 * kMB);
        qint64 read = 0;
        for (qint64 seq = 1; seq <= 10000; ++seq) {
            QCOMPARE(append(spool), seq);
            if (seq % ackEvery)
                continue;
            for (const Spool::Record& r : spool.next(100000))
                QCOMPARE(r.seq, ++read);
            spool.ack(seq - lag);
            const qint64 acknowledged = diskBytes(tmp.path()) - spool.waiting() * lineSize(seq);
            QVERIFY2(acknowledged <= kMB, qPrintable(QString::number(acknowledged)));
        }
        QCOMPARE(read, 10000);
        spool.ack(10000);
        int files = -1;
        QCOMPARE(diskBytes(tmp.path(), &files), 0);
        QCOMPARE(files, 0);
        QCOMPARE(spool.waiting(), 0);
    }

    void restart_data()
    {
        QTest::addColumn<int>("acked");
        QTest::addColumn<bool>("cut");    // a crash cut the last line short
        QTest::addColumn<bool>("byHand"); // a spool written before, file by file
        QTest::newRow("none acknowledged") << 0 << false << false;
        QTest::newRow("some acknowledged") << 4 << false << false;
        QTest::newRow("all acknowledged") << 10 << false << false;
        QTest::newRow("last line cut") << 4 << true << false;
        QTest::newRow("existing spool") << 4 << true << true;
    }

    // Numbers go on from where they were; what was not acknowledged is read again.
    void restart()
    {
        QFETCH(int, acked);
        QFETCH(bool, cut);
        QFETCH(bool, byHand);
        QTemporaryDir tmp;
        const QString segment = tmp.filePath("0000000000000001.spool");
        if (byHand) {
            QFile data(segment), state(tmp.filePath("state"));
            QVERIFY(data.open(QIODevice::WriteOnly) && state.open(QIODevice::WriteOnly));
            for (int seq = 1; seq <= 10; ++seq)
                data.write(QByteArray::number(seq) + ' ' + message(seq) + '\n');
            state.write(QString("%1 %2\n").arg(1, 20).arg(acked, 20).toLatin1());
        } else {
            Spool spool(tmp.path(), kMB);
            for (int seq = 1; seq <= 10; ++seq)
                append(spool);
            QCOMPARE(spool.next(6).size(), 6);
            spool.ack(acked);
        }
        if (cut) {
            QFile data(segment);
            QVERIFY(data.open(QIODevice::Append));
            data.write("11 {\"seq\":11,\"pa");
        }
        QCOMPARE(QFile::exists(segment), acked < 10);

        Spool spool(tmp.path(), kMB);
        QCOMPARE(spool.nextSeq(), 11);
        QCOMPARE(spool.acked(), acked);
        QCOMPARE(spool.waiting(), 10 - acked);
        QCOMPARE(append(spool), 11);
        qint64 seq = acked;
        for (const Spool::Record& r : spool.next(100)) {
            QCOMPARE(r.seq, ++seq);
            QCOMPARE(r.payload, message(seq));
        }
        QCOMPARE(seq, 11);
    }

    void fullDisk_data()
    {
        QTest::addColumn<int>("error"); // made by the test seam; 0: a real 1 MB tmpfs filled up
        QTest::newRow("no space") << ENOSPC;
        QTest::newRow("quota") << EDQUOT;
        QTest::newRow("file too large") << EFBIG;
        QTest::newRow("1 MB tmpfs") << 0;
    }

    // The refused message is lost and said so; the others are still sent; writes come back.
    void fullDisk()
    {
        QFETCH(int, error);
        QTemporaryDir tmp;
        QString dir = tmp.filePath("spool");
        std::unique_ptr<Tmpfs> fs;
        if (!error) {
            fs = std::make_unique<Tmpfs>(tmp.filePath("fs"), "size=1m");
            if (fs->dir.isEmpty())
                QSKIP(qPrintable(fs->error));
            dir = fs->dir + "/spool";
        }
        auto spool = std::make_unique<Spool>(dir, error ? 8 * 1024 : 512 * kMB);
        int warnings = 0;
        spool->onLoss = [&](qint64, qint64) { ++warnings; };
        for (int i = 0; i < 10; ++i)
            append(*spool);
        spool->ack(3);
        if (error)
            Spool::setWriteFailureForTest([error] { return error; });
        while (append(*spool) != 0) {
        }
        const qint64 lost = spool->nextSeq() - 1;
        const QRegularExpression text(
            "^cannot write the spool file " + QRegularExpression::escape(dir) +
            "/\\d{16}\\.spool: " + QRegularExpression::escape(why(error ? error : ENOSPC)) + "$");
        QVERIFY2(text.match(spool->diskError()).hasMatch(), qPrintable(spool->diskError()));
        QCOMPARE(spool->lostMessages(), 1);
        QCOMPARE(spool->lostBytes(), lineSize(lost));
        if (error) { // two more, and a tenth of the 8 KB bound is lost
            QCOMPARE(append(*spool) + append(*spool), 0);
            QCOMPARE(spool->lostMessages(), 3);
            QCOMPARE(warnings, 1);
        }
        const qint64 end = spool->nextSeq();
        QCOMPARE(spool->waiting(), lost - 4);
        qint64 read = 3;
        for (const Spool::Record& r : spool->next(100000)) {
            QCOMPARE(r.seq, ++read);
            QCOMPARE(r.payload, message(read));
        }
        QCOMPARE(read, lost - 1);
        spool->ack(read);
        QCOMPARE(spool->waiting(), 0);
        QCOMPARE(spool->acked(), end - 1);
        if (!error)
            QCOMPARE(diskBytes(dir), 0);

        Spool::setWriteFailureForTest(nullptr);
        QCOMPARE(append(*spool), end);
        QCOMPARE(spool->diskError(), QString());
        QCOMPARE(spool->next(10).value(0).seq, end);
        spool.reset(); // and the state was kept whole
        spool = std::make_unique<Spool>(dir, kMB);
        QCOMPARE(spool->nextSeq(), end + 1);
        QCOMPARE(spool->next(10).value(0).seq, end);
    }

    void openErrors_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QString>("verb");
        QTest::addColumn<int>("error");
        QTest::newRow("under a regular file") << "file/spool"
                                              << "make" << ENOTDIR;
        QTest::newRow("a regular file") << "file"
                                        << "make" << ENOTDIR;
        QTest::newRow("under /proc") << "/proc"
                                     << "make" << ENOENT;
        QTest::newRow("under a read-only mount") << "ro/spool"
                                                 << "make" << EROFS;
        QTest::newRow("a read-only mount") << "ro"
                                           << "use" << EROFS;
        QTest::newRow("no permission") << "locked/spool"
                                       << "make" << EACCES;
    }

    // The system's own reason, with the path as given.
    void openErrors()
    {
        QFETCH(QString, kind);
        QFETCH(QString, verb);
        QFETCH(int, error);
        QTemporaryDir tmp;
        QFile file(tmp.filePath("file"));
        QVERIFY(file.open(QIODevice::WriteOnly));
        std::unique_ptr<Tmpfs> fs;
        QString path = kind.startsWith('/') ? kind : tmp.filePath(kind);
        if (kind == "/proc") {
            path = "/proc/gnxctl-spool-test/spool";
        } else if (kind.startsWith("ro")) {
            fs = std::make_unique<Tmpfs>(tmp.filePath("ro"), "ro,size=64k");
            if (fs->dir.isEmpty())
                QSKIP(qPrintable(fs->error));
        } else if (kind.startsWith("locked")) {
            if (::geteuid() == 0)
                QSKIP("root is never refused permission");
            QVERIFY(QDir(tmp.path()).mkdir("locked"));
            QFile::setPermissions(tmp.filePath("locked"), QFile::ReadOwner | QFile::ExeOwner);
        }
        try {
            Spool spool(path, kMB);
            QFAIL("the spool opened");
        } catch (const MRL::Utils::Exception& e) {
            QCOMPARE(e.message(), QString("cannot %1 the spool %2: %3").arg(verb, path, why(error)));
        }
    }
};

QTEST_GUILESS_MAIN(TstSpool)
#include "tst_spool.moc"
