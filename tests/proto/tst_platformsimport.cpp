// The platforms import as one transaction over a pseudo-terminal against gnxsim: the file replaces
// every favourite, the slots as they were are kept in a backup file first, and a refused write
// puts every slot back as it was.
#include "com/PlatformCodec.h"
#include "com/PlatformsImport.h"
#include "com/TestSupport.h"
#include "utils/JobProgress.h"

#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

using namespace OrviaGonioManager::Com;
using OrviaGonioManager::Utils::JobProgress;

Q_DECLARE_METATYPE(GnxLink::GnxVersion_t)

namespace {

const auto V1 = GnxLink::GNX_V1;
const auto V2 = GnxLink::GNX_V2;
constexpr int kSeeded = 6; // slots the emulator fills at start

// Four platforms: a format of the formats file, none, one only the receiver carries (seeded slot 0
// holds it), and the ranges' upper ends. They land on lines 3, 4, 6 and 7 of the file.
QStringList fileLines(GnxLink::GnxVersion_t version)
{
    if (version == V1)
        return {"1A2B3,Float one,FMT,120,7", "ABCDEF1,Float two,,300,0",
                "12345,Float three,ORV-GPS-SIGNED,60,5", "FFFFF,Four,FMT,65535,255"};
    return {"1A2B3,Float one,FMT,120,5,1,0,401320000", "ABCDEF1,Float two,,300,8,2,1,0",
            "12345,Float three,ORV-GPS-SIGNED,60,0,0,1,0", "FFFFF,Four,FMT,65535,4,0,1,2147483647"};
}
const QList<int> kFileLineNumbers{3, 4, 6, 7};

} // namespace

class TestPlatformsImport : public QObject, private TestSupport::SimLink
{
    Q_OBJECT

    QTemporaryDir dir_;
    const QString file_ = dir_.filePath("platforms.csv");
    const QString backup_ = dir_.filePath("backup.csv");
    QList<QStringList> before_; // every slot as the emulator held it at the start

    bool start(GnxLink::GnxVersion_t version)
    {
        if (!startSim(version == V1 ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234, gnxsim::Mode::App,
                      kSeeded))
            return false;
        before_ = slotContents();
        return writeFile(version, fileLines(version));
    }
    QList<QStringList> slotContents() const
    {
        QList<QStringList> out;
        for (int i = 0; i < link->maxPlatformsNumber(); ++i)
            out << sim->platformSlot(i);
        return out;
    }
    // Header, an empty line, two platform lines, a comment, two more.
    bool writeFile(GnxLink::GnxVersion_t version, QStringList lines) const
    {
        QFile file(file_);
        lines.insert(2, "# spares");
        lines.prepend(PlatformsFile::header(version) + '\n');
        return file.open(QIODevice::WriteOnly | QIODevice::Truncate) &&
               file.write(lines.join('\n').toUtf8() + '\n') > 0;
    }

private slots:
    void init()
    {
        TestSupport::sandboxSettings();
        TestSupport::CatchingApplication::clearCaught();
        TestSupport::loadGpsFormats("1\nFMT,,,,0,0,1,1,21,1,10000,0,1,0," + QByteArray("0,").repeated(14) +
                                    "192,0,0\n");
        QFile::remove(backup_);
    }
    void cleanup()
    {
        QCOMPARE(TestSupport::CatchingApplication::caught(), QStringList());
        stopSim();
    }

    // The file replaces every slot; a second import of it changes nothing; the backup holds the
    // slots as they were and importing it gives them back exactly.
    void success_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::newRow("GNX134") << V1;
        QTest::newRow("GNX234") << V2;
    }
    void success()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QVERIFY(start(version));
        JobProgress job;
        QSignalSpy progress(&job, &JobProgress::sigProgress);
        QCOMPARE(PlatformsImport(*link, &job).run(file_, backup_).size(),
                 kSeeded); // four written, two freed
        QCOMPARE(progress.last(), (QList<QVariant>{qint64(kSeeded), qint64(kSeeded)}));
        for (int i = 0; i < link->maxPlatformsNumber(); ++i) {
            const GnxLink::PlatformInfo p = link->getPlatformInfo(i);
            const QString format = p.gpsFormat ? p.gpsFormat->name : QString();
            QCOMPARE(p.id.isEmpty() ? QString() : PlatformCodec::csvFields(p, format, version).join(','),
                     fileLines(version).value(i));
        }
        QCOMPARE(PlatformsImport(*link).dryRun(file_).size(), 0);
        QFile backup(backup_);
        QVERIFY(backup.open(QIODevice::ReadOnly));
        QCOMPARE(backup.readLine(), PlatformsFile::header(version).toUtf8() + '\n');
        PlatformsImport(*link).run(backup_, dir_.filePath("second-backup.csv"));
        QCOMPARE(slotContents(), before_);
    }

    // A slot the receiver refuses part-way, or one that reads back other than written: every slot
    // is put back as it was, and the error names the file line (or the slot being freed), says so
    // and names the backup. Unplugged, the restore fails and what was written stays.
    void refused_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<int>("slot");
        // "refuse" the slot; "ignore": answer its write without doing it; "unplug" after the first write.
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("where");
        QTest::addColumn<QString>("outcome");
        const QString restored =
            "). The favourites were restored as they were before the import (backup: " + backup_ + ").";
        QTest::newRow("GNX134 third platform refused")
            << V1 << 2 << "refuse"
            << ", line 6: the receiver refused slot 2 (Error in reply: " << restored;
        QTest::newRow("GNX234 slot to free refused")
            << V2 << 5 << "refuse"
            << ": the receiver refused to free slot 5 (Error in reply: " << restored;
        QTest::newRow("GNX234 first platform not written")
            << V2 << 0 << "ignore"
            << ", line 3: slot 0 was written but \"Label\" reads back \"%1\" instead of \"Float one\""
            << ". No favourite had been changed (backup: " + backup_ + ").";
        QTest::newRow("GNX134 receiver unplugged") << V1 << 1 << "unplug"
                                                   << ", line 4: writing slot 1 failed ("
                                                   << "). Restoring the favourites failed at slot 0 (";
    }
    void refused()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(int, slot);
        QFETCH(QString, fault);
        QFETCH(QString, where);
        QFETCH(QString, outcome);
        QVERIFY(start(version));
        JobProgress job;
        int reads = 0; // seen by the job's checkpoint while the import runs
        if (fault == "refuse") {
            sim->setRefusedSlot(slot);
        } else if (fault == "unplug") {
            connect(&job, &JobProgress::sigProgress, this, [&](qint64 done) {
                if (job.title() == "Platform import" && done == 1)
                    sim->unplug();
            });
        } else {
            // Slot 0 keeps its identifier, so it is one write, which the receiver answers as if done.
            QStringList lines = fileLines(version);
            lines[0].replace("1A2B3", before_[0][3]);
            QVERIFY(writeFile(version, lines));
            where = where.arg(before_[0][4]);
            job.setCheckpoint([&] {
                if (++reads == link->maxPlatformsNumber())
                    sim->overrideNextReply("IP", before_[0]);
            });
        }
        try {
            PlatformsImport(*link, &job).run(file_, backup_);
            QFAIL("no error");
        } catch (const PlatformsImport::Error& e) {
            QCOMPARE(e.line(), slot < 4 ? kFileLineNumbers[slot] : 0);
            QVERIFY2(e.message().startsWith(file_ + where) && e.message().contains(outcome),
                     qPrintable(e.message()));
        }
        QVERIFY(QFile::exists(backup_));
        QCOMPARE(slotContents().mid(1), before_.mid(1));
        QCOMPARE(slotContents()[0] == before_[0], fault != "unplug");
    }

    // The dry run lists what would change, slot by slot, and only reads; a format neither side
    // knows fails once the slots are read: nothing is written and no backup made.
    void nothingWritten()
    {
        QVERIFY(start(V2));
        const QList<PlatformsImport::Change> changes = PlatformsImport(*link).dryRun(file_);
        QCOMPARE(changes.size(), kSeeded);
        for (int i = 0; i < kSeeded; ++i) {
            QCOMPARE(changes[i].slot, i);
            QCOMPARE(changes[i].line, i < 4 ? kFileLineNumbers[i] : 0);
            QCOMPARE(changes[i].after, fileLines(V2).value(i));
            QCOMPARE(changes[i].before.section(',', 0, 0), before_[i].value(3));
        }
        QStringList lines = fileLines(V2);
        lines[2].replace("ORV-GPS-SIGNED", "ORV-GPS-NONE");
        QVERIFY(writeFile(V2, lines));
        QVERIFY_THROWS_EXCEPTION(PlatformsCheck::Error, PlatformsImport(*link).run(file_, backup_));
        QVERIFY(!QFile::exists(backup_));
        QCOMPARE(sim->receivedLines().size(), 2 * link->maxPlatformsNumber()); // the reads of the slots
    }
};

OGM_TEST_MAIN(TestPlatformsImport)
#include "tst_platformsimport.moc"
