// The store writer on real SQLite files: rows handed over from this thread are committed in
// batches by the writer's thread, every one of them also when it finishes early; a flash read
// handed over twice adds nothing; a store that cannot be used or written says so once.
#include "StoreFixture.h"
#include "store/StoreWriter.h"

#include <QFile>
#include <QSignalSpy>

using OrviaGonioManager::Store::StoreWriter;

namespace {

std::vector<Row> messages(int first, int count, bool flash)
{
    std::vector<Row> rows;
    for (int n = first; n < first + count; ++n)
        rows.push_back(message(QStringLiteral("2A1B%1").arg(n % 1000, 3, 10, QLatin1Char('0')), 10.0 + n,
                               flash, quint16(n % 360)));
    return rows;
}

// Sums of the stored() signals.
struct Stored
{
    explicit Stored(StoreWriter& writer) : spy(&writer, &StoreWriter::stored) {}
    int added() const { return sum(0); }
    int duplicates() const { return sum(1); }
    int sum(int argument) const
    {
        int n = 0;
        for (const QList<QVariant>& call : spy)
            n += call.at(argument).toInt();
        return n;
    }
    QSignalSpy spy;
};

} // namespace

class TestStoreWriter : public QObject
{
    Q_OBJECT

    QTemporaryDir dir_;

    // A statement on the file beside the writer's connection.
    static bool alter(const QString& path, const QString& statement)
    {
        QString error;
        rawExec(QStringLiteral("sqlite"), path, {statement}, &error);
        if (!error.isEmpty())
            qWarning("%s", qPrintable(error));
        return error.isEmpty();
    }

    static qint64 count(const QString& path, bool flash)
    {
        QString error;
        const auto store = MessageStore::open(path, &error);
        if (!store) {
            qWarning("%s", qPrintable(error));
            return -1;
        }
        qint64 n = 0;
        for (const Row& row : store->query({}))
            n += row.flash == flash;
        return n;
    }

private slots:
    void batches_data()
    {
        QTest::addColumn<int>("delayMs");
        QTest::addColumn<int>("maxRows");
        QTest::addColumn<int>("liveRows");
        QTest::addColumn<bool>("finishAtOnce"); // without waiting for a commit
        QTest::newRow("by delay") << 50 << 2000 << 30 << false;
        QTest::newRow("by size") << 600000 << 10 << 35 << false;
        QTest::newRow("finished before the delay") << 600000 << 2000 << 30 << true;
        QTest::newRow("finished before a full batch") << 600000 << 16 << 40 << true;
    }

    // Live rows one by one, then a flash read in one piece, twice: every row once in the store,
    // the second flash read only duplicates.
    void batches()
    {
        QFETCH(int, delayMs);
        QFETCH(int, maxRows);
        QFETCH(int, liveRows);
        QFETCH(bool, finishAtOnce);
        const QString path = dir_.filePath(QTest::currentDataTag() + QStringLiteral(".sqlite"));
        constexpr int kFlashRows = 2500;
        {
            StoreWriter writer(path, {delayMs, maxRows});
            Stored stored(writer);
            QSignalSpy failed(&writer, &StoreWriter::failed);
            for (int n = 0; n < liveRows; ++n)
                writer.add(QStringLiteral("0042"), messages(n, 1, false));
            writer.add(QStringLiteral("0042"), messages(0, kFlashRows, true));
            writer.add(QStringLiteral("0042"), messages(0, kFlashRows, true));
            QCOMPARE(writer.handedRows(), qint64(liveRows + 2 * kFlashRows));
            if (finishAtOnce) {
                QVERIFY(writer.finish(StoreWriter::kFinishMs));
            } else {
                QTRY_COMPARE_WITH_TIMEOUT(writer.settledRows(), writer.handedRows(), 20000);
                QTRY_COMPARE(stored.added() + stored.duplicates(), int(writer.handedRows()));
                QCOMPARE(stored.added(), liveRows + kFlashRows);
                QCOMPARE(stored.duplicates(), kFlashRows);
                // Batches, not one commit per row.
                QVERIFY2(stored.spy.size() < liveRows, qPrintable(QString::number(stored.spy.size())));
            }
            QCOMPARE(writer.droppedRows(), 0);
            QCOMPARE(failed.size(), 0);
        }
        QCOMPARE(count(path, false), qint64(liveRows));
        QCOMPARE(count(path, true), qint64(kFlashRows));
    }

    // Rows of two receivers handed in turn go to their own receiver; the receiver's model and
    // versions are noted beside.
    void receivers()
    {
        const QString path = dir_.filePath("receivers.sqlite");
        {
            StoreWriter writer(path);
            MessageStore::Receiver r;
            r.serialNumber = QStringLiteral("0042");
            r.model = QStringLiteral("GNX234");
            r.applicationVersion = QStringLiteral("APP 2.1");
            r.fpgaVersion = QStringLiteral("FPGA 7");
            r.bootloaderVersion = QStringLiteral("BL 3");
            writer.noteReceiver(r);
            writer.add(QStringLiteral("0042"), messages(0, 3, false));
            writer.add(QStringLiteral("0077"), messages(3, 2, false));
            writer.add(QStringLiteral("0042"), messages(5, 1, false));
            QVERIFY(writer.finish(StoreWriter::kFinishMs));
        }
        QString error;
        const auto store = MessageStore::open(path, &error);
        QVERIFY2(store, qPrintable(error));
        MessageStore::Query q;
        q.receiver = QStringLiteral("0042");
        QCOMPARE(store->query(q).size(), size_t(4));
        q.receiver = QStringLiteral("0077");
        QCOMPARE(store->query(q).size(), size_t(2));
        QCOMPARE(
            rawExec(QStringLiteral("sqlite"), path,
                    {QStringLiteral("SELECT model, application_version, fpga_version, bootloader_version "
                                    "FROM receivers WHERE serial_number = '0042'")},
                    &error),
            QStringList{"GNX234 APP 2.1 FPGA 7 BL 3"});
        QVERIFY2(error.isEmpty(), qPrintable(error));
    }

    void unusable_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<QString>("expected"); // after the shown store
        QTest::newRow("missing directory") << "missing/messages.sqlite"
                                           << ": cannot make the store: the directory ";
        QTest::newRow("a directory") << "."
                                     << ": not a file";
        QTest::newRow("not a store") << "notes.txt"
                                     << ": not a message store: ";
        QTest::newRow("not a store URL") << "mysql://host/db"
                                         << ": not a store URL: ";
    }

    // Said once, naming the store, however many rows come; the rows are dropped, the writer ends.
    void unusable()
    {
        QFETCH(QString, url);
        QFETCH(QString, expected);
        QFile notes(dir_.filePath(QStringLiteral("notes.txt")));
        QVERIFY(notes.open(QIODevice::WriteOnly));
        notes.write(QByteArray(4096, 'x'));
        notes.close();
        const QString path = url.contains(QLatin1String("://")) ? url : dir_.filePath(url);
        StoreWriter writer(path, {20, 2000});
        QSignalSpy failed(&writer, &StoreWriter::failed);
        QSignalSpy stored(&writer, &StoreWriter::stored);
        QVERIFY(failed.wait(10000));
        const QString message = failed.at(0).at(0).toString();
        QVERIFY2(message.startsWith(QDir::toNativeSeparators(path) + expected), qPrintable(message));
        for (int n = 0; n < 5; ++n)
            writer.add(QStringLiteral("0042"), messages(n, 1, false));
        QTRY_COMPARE_WITH_TIMEOUT(writer.settledRows(), qint64(5), 10000);
        QCOMPARE(writer.droppedRows(), qint64(5));
        QVERIFY(writer.finish(StoreWriter::kFinishMs));
        QCoreApplication::processEvents();
        QCOMPARE(failed.size(), 1);
        QCOMPARE(stored.size(), 0);
    }

    // A commit that fails is said once, with the store's reason; a later one that works is counted
    // again, and a new failure said again.
    void writeFails()
    {
        const QString path = dir_.filePath("fails.sqlite");
        StoreWriter writer(path, {10, 2000});
        QSignalSpy failed(&writer, &StoreWriter::failed);
        Stored stored(writer);
        writer.add(QStringLiteral("0042"), messages(0, 2, false));
        QTRY_COMPARE_WITH_TIMEOUT(stored.added(), 2, 10000);
        QVERIFY(alter(path, QStringLiteral("ALTER TABLE messages RENAME TO messages_away")));
        writer.add(QStringLiteral("0042"), messages(2, 3, false));
        QVERIFY(failed.wait(10000));
        const QString message = failed.at(0).at(0).toString();
        QVERIFY2(message.startsWith(path + QStringLiteral(": cannot store the messages: ")),
                 qPrintable(message));
        QVERIFY2(message.contains(QStringLiteral("messages")), qPrintable(message));
        writer.add(QStringLiteral("0042"), messages(5, 1, false));
        QTRY_COMPARE_WITH_TIMEOUT(writer.settledRows(), qint64(6), 10000);
        QCOMPARE(writer.droppedRows(), qint64(4));
        QCOMPARE(failed.size(), 1);

        QVERIFY(alter(path, QStringLiteral("ALTER TABLE messages_away RENAME TO messages")));
        writer.add(QStringLiteral("0042"), messages(6, 1, false));
        QTRY_COMPARE_WITH_TIMEOUT(stored.added(), 3, 10000);
        QVERIFY(alter(path, QStringLiteral("ALTER TABLE messages RENAME TO messages_away")));
        writer.add(QStringLiteral("0042"), messages(7, 1, false));
        QTRY_COMPARE_WITH_TIMEOUT(failed.size(), 2, 10000);
        QVERIFY(writer.finish(StoreWriter::kFinishMs));
        QCOMPARE(writer.droppedRows(), qint64(5));
    }
};

QTEST_GUILESS_MAIN(TestStoreWriter)
#include "tst_storewriter.moc"
