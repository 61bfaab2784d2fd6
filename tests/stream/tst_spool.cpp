#include "mrl/utils/Exception.h"
#include "stream/Spool.h"

#include <QDir>
#include <QProcess>
#include <QRegularExpression>
#include <QScopeGuard>
#include <QTemporaryDir>
#include <QTest>

#include <cerrno>
#include <cstring>
#include <memory>
#include <unistd.h>

using OrviaGonioManager::Stream::Spool;

class TstSpool : public QObject
{
    Q_OBJECT

    static constexpr qint64 kMB = 1024 * 1024;
    static QByteArray message(qint64 seq) { return QByteArray::number(seq).leftJustified(300, 'x'); }
    static qint64 lineSize(qint64 seq) { return QByteArray::number(seq).size() + 302; }
    static QString why(int error) { return QString::fromLocal8Bit(std::strerror(error)); }

private slots:
    void cleanup() { Spool::setWriteFailureForTest(nullptr); }

    void onlyWaitingHoldsDisk_data()
    {
        QTest::addColumn<int>("ackEvery");
        QTest::addColumn<int>("lag"); // acknowledgements this far behind the newest message
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
            QCOMPARE(spool.append(message), seq);
            if (seq % ackEvery)
                continue;
            for (const Spool::Record& r : spool.next(100000))
                QCOMPARE(r.seq, ++read);
            spool.ack(seq - lag);
            qint64 acknowledged = -spool.waiting() * lineSize(seq);
            for (const QFileInfo& f : QDir(tmp.path()).entryInfoList({"*.spool"}, QDir::Files))
                acknowledged += f.size();
            QVERIFY2(acknowledged <= kMB, qPrintable(QString::number(acknowledged)));
        }
        QCOMPARE(read, 10000);
        spool.ack(10000);
        QCOMPARE(QDir(tmp.path()).entryList({"*.spool"}, QDir::Files), QStringList());
    }

    void restart_data()
    {
        QTest::addColumn<int>("acked");
        QTest::addColumn<bool>("byHand"); // written file by file, the last line cut short by a crash
        QTest::newRow("some acknowledged") << 4 << false;
        QTest::newRow("all acknowledged") << 10 << false;
        QTest::newRow("existing spool, last line cut") << 4 << true;
    }

    // Numbers go on from where they were; what was not acknowledged is read again.
    void restart()
    {
        QFETCH(int, acked);
        QFETCH(bool, byHand);
        QTemporaryDir tmp;
        if (byHand) {
            QFile data(tmp.filePath("0000000000000001.spool")), state(tmp.filePath("state"));
            QVERIFY(data.open(QIODevice::WriteOnly) && state.open(QIODevice::WriteOnly));
            for (int seq = 1; seq <= 10; ++seq)
                data.write(QByteArray::number(seq) + ' ' + message(seq) + '\n');
            data.write("11 {\"seq\":11,\"pa");
            state.write(QString("%1 %2\n").arg(1, 20).arg(acked, 20).toLatin1());
        } else {
            Spool spool(tmp.path(), kMB);
            for (int seq = 1; seq <= 10; ++seq)
                spool.append(message);
            QCOMPARE(spool.next(6).size(), 6);
            spool.ack(acked);
        }
        Spool spool(tmp.path(), kMB);
        QCOMPARE(spool.acked(), acked);
        QCOMPARE(spool.waiting(), 10 - acked);
        QCOMPARE(spool.append(message), 11);
        qint64 seq = acked;
        for (const Spool::Record& r : spool.next(100)) {
            QCOMPARE(r.seq, ++seq);
            QCOMPARE(r.payload, message(seq));
        }
        QCOMPARE(seq, 11);
    }

    void fullDisk_data()
    {
        QTest::addColumn<int>("error");
        QTest::newRow("no space") << ENOSPC;
        QTest::newRow("file too large") << EFBIG;
    }

    // Refused messages are lost and said so; the others are still sent; writes come back.
    void fullDisk()
    {
        QFETCH(int, error);
        QTemporaryDir tmp;
        auto spool = std::make_unique<Spool>(tmp.path(), 8 * 1024);
        int warnings = 0;
        spool->onLoss = [&](qint64, qint64) { ++warnings; };
        for (int i = 0; i < 10; ++i)
            spool->append(message);
        spool->ack(3);
        Spool::setWriteFailureForTest([error] { return error; });
        QCOMPARE(spool->append(message) + spool->append(message) + spool->append(message), 0);
        const QRegularExpression text("^cannot write the spool file " +
                                      QRegularExpression::escape(tmp.path()) +
                                      "/\\d{16}\\.spool: " + QRegularExpression::escape(why(error)) + "$");
        QVERIFY2(text.match(spool->diskError()).hasMatch(), qPrintable(spool->diskError()));
        QCOMPARE(spool->lostMessages(), 3);
        QCOMPARE(spool->lostBytes(), 3 * lineSize(11));
        QCOMPARE(warnings, 1); // a tenth of the 8 KB bound
        QCOMPARE(spool->waiting(), 7);
        qint64 read = 3;
        for (const Spool::Record& r : spool->next(100000)) {
            QCOMPARE(r.seq, ++read);
            QCOMPARE(r.payload, message(read));
        }
        QCOMPARE(read, 10);
        spool->ack(10);
        QCOMPARE(spool->acked(), 13);

        Spool::setWriteFailureForTest(nullptr);
        QCOMPARE(spool->append(message), 14);
        QCOMPARE(spool->diskError(), QString());
        spool.reset(); // and the state was kept whole
        spool = std::make_unique<Spool>(tmp.path(), kMB);
        QCOMPARE(spool->nextSeq(), 15);
        QCOMPARE(spool->next(10).value(0).seq, 14);
    }

    void openErrors_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<QString>("path");
        QTest::newRow("under a regular file") << "cannot make the spool %1: " + why(ENOTDIR) << "file/spool";
        QTest::newRow("a regular file") << "cannot make the spool %1: " + why(ENOTDIR) << "file";
        QTest::newRow("a read-only mount") << "cannot use the spool %1: " + why(EROFS) << "ro";
    }

    // The system's own reason, with the path as given.
    void openErrors()
    {
        QFETCH(QString, text);
        QFETCH(QString, path);
        QTemporaryDir tmp;
        const QString ro = tmp.filePath("ro");
        QVERIFY(QFile(tmp.filePath("file")).open(QIODevice::WriteOnly) && QDir().mkpath(ro));
        const auto unmount = qScopeGuard([&] { QProcess::execute("umount", {"-q", ro}); });
        path = tmp.filePath(path);
        if (path == ro) {
            if (::geteuid() != 0)
                QSKIP("mounting a tmpfs needs root");
            QCOMPARE(QProcess::execute("mount", {"-t", "tmpfs", "-o", "ro,size=64k", "tmpfs", ro}), 0);
        }
        try {
            Spool spool(path, kMB);
            QFAIL("the spool opened");
        } catch (const MRL::Utils::Exception& e) {
            QCOMPARE(e.message(), text.arg(path));
        }
    }
};

QTEST_GUILESS_MAIN(TstSpool)
#include "tst_spool.moc"
