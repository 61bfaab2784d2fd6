// The platforms import as one transaction over a pseudo-terminal against gnxsim: the file replaces
// every favourite, the slots as they were are kept in a backup file first, and a refused write
// puts every slot back as it was.
#include "com/GnxLink.h"
#include "com/PlatformCodec.h"
#include "com/PlatformsImport.h"
#include "com/TestSupport.h"
#include "sim/PtySimulator.h"
#include "utils/GpsFormat.h"
#include "utils/JobProgress.h"

#include <QBuffer>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <memory>

using namespace OrviaGonioManager::Com;
using OrviaGonioManager::Utils::GpsFormat;
using OrviaGonioManager::Utils::GpsFormat_t;
using OrviaGonioManager::Utils::JobProgress;

Q_DECLARE_METATYPE(GnxLink::GnxVersion_t)
Q_DECLARE_METATYPE(PlatformsImport::Restore)

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

QByteArray readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

} // namespace

class TestPlatformsImport : public QObject
{
    Q_OBJECT

    std::unique_ptr<gnxsim::PtySimulator> sim_;
    std::unique_ptr<GnxLink> link_;
    QTemporaryDir dir_;
    QString file_;
    QString backup_;
    QList<QStringList> before_; // every slot as the emulator held it at the start

    bool start(GnxLink::GnxVersion_t version)
    {
        gnxsim::Options options;
        options.model = version == V1 ? gnxsim::Model::Gnx134 : gnxsim::Model::Gnx234;
        options.platforms = kSeeded;
        sim_ = std::make_unique<gnxsim::PtySimulator>(options);
        if (!sim_->start())
            return false;
        link_ = std::make_unique<GnxLink>();
        link_->openConnection(sim_->slavePath());
        link_->readDeviceInfo();
        sim_->clearReceived();
        before_ = slotContents();
        return writeFile(file_, version, fileLines(version));
    }
    QList<QStringList> slotContents() const
    {
        QList<QStringList> out;
        for (int i = 0; i < link_->maxPlatformsNumber(); ++i)
            out << sim_->platformSlot(i);
        return out;
    }
    // Header, two platform lines, a comment, two more.
    static bool writeFile(const QString& path, GnxLink::GnxVersion_t version, const QStringList& lines)
    {
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return false;
        QStringList all{PlatformsFile::header(version), "", lines.value(0), lines.value(1), "# spares"};
        all << lines.mid(2);
        return file.write(all.join('\n').toUtf8() + '\n') > 0;
    }
    // What the receiver was sent since the identification, beyond reads of the slots.
    QStringList writesSent() const
    {
        static const QRegularExpression read("^IP,\\d+,*$");
        QStringList out;
        for (const QString& line : sim_->receivedLines())
            if (!read.match(line).hasMatch())
                out << line;
        return out;
    }

private slots:
    void init()
    {
        TestSupport::sandboxSettings();
        TestSupport::CatchingApplication::clearCaught();
        GpsFormat_t f;
        f.name = "FMT";
        f.latitude = {0, 1, 1, 21, 1, 10000, 0, 1, 0};
        f.dataLen = 192;
        QByteArray text = "1\n" + GpsFormat::gpsFormatLine(f).toUtf8() + '\n';
        QBuffer buffer(&text);
        buffer.open(QIODevice::ReadOnly);
        GpsFormat::instance()->readGpsFormats(buffer);
        file_ = dir_.filePath("platforms.csv");
        backup_ = dir_.filePath("backup.csv");
        QFile::remove(backup_);
    }
    void cleanup()
    {
        QCOMPARE(TestSupport::CatchingApplication::caught(), QStringList());
        if (link_)
            link_->closeConnection();
        link_.reset();
        sim_.reset();
    }

    // The file replaces every slot; the backup holds the slots as they were and importing it gives
    // them back exactly; a second import of the same file changes nothing.
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
        QSignalSpy started(&job, &JobProgress::sigStarted);
        QSignalSpy progress(&job, &JobProgress::sigProgress);
        PlatformsImport import(*link_, &job);

        const QList<PlatformsImport::Change> changes = import.run(file_, backup_);
        QCOMPARE(changes.size(), kSeeded); // four written, two freed
        QCOMPARE(changes[4].line, 0);
        QCOMPARE(changes[4].after, QString());
        QCOMPARE(started.size(), 2);
        QCOMPARE(started[1].at(0).toString(), "Platform import");
        QCOMPARE(progress.last(), (QList<QVariant>{qint64(kSeeded), qint64(kSeeded)}));

        const QStringList lines = fileLines(version);
        for (int i = 0; i < link_->maxPlatformsNumber(); ++i) {
            const GnxLink::PlatformInfo p = link_->getPlatformInfo(i);
            const QString read =
                p.id.isEmpty()
                    ? QString()
                    : PlatformCodec::csvFields(p, p.gpsFormat ? p.gpsFormat->name : QString(), version)
                          .join(',');
            QCOMPARE(read, lines.value(i));
        }
        QCOMPARE(PlatformsImport(*link_).dryRun(file_).size(), 0);

        QStringList backup = QString::fromUtf8(readAll(backup_)).split('\n');
        QCOMPARE(backup.size(), 1 + kSeeded + 1); // header, the seeded slots, the last line end
        QCOMPARE(backup.first(), PlatformsFile::header(version));
        sim_->clearReceived();
        QCOMPARE(PlatformsImport(*link_).run(backup_, dir_.filePath("second-backup.csv")).size(), kSeeded);
        QCOMPARE(slotContents(), before_);
    }

    // A slot the receiver refuses, part-way, or one that reads back other than written: every slot
    // is put back and read back as it was, the error names the file line (or the slot being freed)
    // and says so, and the backup is there.
    void refused_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<int>("slot");
        // "refuse" the slot; "ignore": answer its write without doing it; "unplug" after the first write.
        QTest::addColumn<QString>("fault");
        QTest::addColumn<QString>("where");
        QTest::addColumn<PlatformsImport::Restore>("restore");
        const auto restored = PlatformsImport::Restore::Restored;
        const auto unchanged = PlatformsImport::Restore::NotNeeded;
        for (const auto version : {V1, V2}) {
            const auto row = [&](const char* name, int slot, const char* fault, const QString& where,
                                 auto restore) {
                QTest::addRow("GNX%d34 %s", int(version), name)
                    << version << slot << QString(fault) << where << restore;
            };
            row("third platform refused", 2, "refuse",
                ", line 6: the receiver refused slot 2 (Error in reply: ", restored);
            row("slot to free refused", 5, "refuse",
                ": the receiver refused to free slot 5 (Error in reply: ", restored);
            row("first platform refused", 0, "refuse",
                ", line 3: the receiver refused slot 0 (Error in reply: ", unchanged);
            row("first platform not written", 0, "ignore",
                ", line 3: slot 0 was written but \"Label\" reads back \"%1\" instead of \"Float one\"",
                unchanged);
            row("receiver unplugged", 1, "unplug", ", line 4: writing slot 1 failed (",
                PlatformsImport::Restore::Failed);
        }
    }
    void refused()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(int, slot);
        QFETCH(QString, fault);
        QFETCH(QString, where);
        QFETCH(PlatformsImport::Restore, restore);
        QVERIFY(start(version));
        JobProgress job;
        int reads = 0; // seen by the job's checkpoint while the import runs
        if (fault == "refuse") {
            sim_->setRefusedSlot(slot);
        } else if (fault == "unplug") {
            connect(&job, &JobProgress::sigProgress, this, [&](qint64 done) {
                if (job.title() == "Platform import" && done == 1)
                    sim_->unplug();
            });
        } else {
            // Slot 0 keeps its identifier, so it is one write, which the receiver answers as if done.
            QStringList lines = fileLines(version);
            lines[0].replace("1A2B3", before_[0][3]);
            QVERIFY(writeFile(file_, version, lines));
            where = where.arg(before_[0][4]);
            job.setCheckpoint([&] {
                if (++reads == link_->maxPlatformsNumber())
                    sim_->overrideNextReply("IP", before_[0]);
            });
        }
        try {
            PlatformsImport(*link_, &job).run(file_, backup_);
            QFAIL("no error");
        } catch (const PlatformsImport::Error& e) {
            QCOMPARE(e.slot(), slot);
            QCOMPARE(e.line(), slot < 4 ? kFileLineNumbers[slot] : 0);
            QCOMPARE(e.restore(), restore);
            QVERIFY2(e.message().startsWith(file_ + where), qPrintable(e.message()));
            const QString outcome =
                restore == PlatformsImport::Restore::Restored
                    ? "). The favourites were restored as they were before the import (backup: " + backup_ +
                          ")."
                : restore == PlatformsImport::Restore::NotNeeded
                    ? ". No favourite had been changed (backup: " + backup_ + ")."
                    : "). Restoring the favourites failed at slot 0 (";
            QVERIFY2(e.message().contains(outcome), qPrintable(e.message()));
        }
        QCOMPARE(QString::fromUtf8(readAll(backup_)).count('\n'), 1 + kSeeded);
        if (restore == PlatformsImport::Restore::Failed) { // what was written stays; the backup gives it back
            sim_->replug();
            link_->closeConnection();
            link_->openConnection(sim_->slavePath());
            link_->readDeviceInfo();
            QCOMPARE(slotContents().mid(1), before_.mid(1));
            QVERIFY(slotContents()[0] != before_[0]);
            PlatformsImport(*link_).run(backup_, dir_.filePath("second-backup.csv"));
        } else {
            QCOMPARE(writesSent().size() > slot + 1, slot > 0); // the slots before it written, then put back
        }
        QCOMPARE(slotContents(), before_);
    }

    // A bad file or a format nobody knows: nothing is written and no backup made. The dry run
    // lists what would change, slot by slot, and only reads.
    void nothingWritten_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<QString>("badLine"); // replaces the third platform; empty: a dry run
        QTest::addColumn<QString>("error");
        QTest::addColumn<bool>("readsSlots");
        for (const auto version : {V1, V2}) {
            QTest::addRow("GNX%d34 dry run", int(version)) << version << QString() << QString() << true;
            QTest::addRow("GNX%d34 identifier ZZZZZ", int(version))
                << version << QString(fileLines(version)[2]).replace("12345", "ZZZZZ")
                << ", line 6, \"Orvia ID\": \"ZZZZZ\" is not 5 or 7 hexadecimal digits" << false;
            QTest::addRow("GNX%d34 label with Ω", int(version))
                << version << QString(fileLines(version)[2]).replace("Float three", "Ω")
                << ", line 6, \"Label\": \"Ω\" holds \"Ω\", which the receiver cannot take (Latin-1 "
                   "characters only)"
                << false;
            QTest::addRow("GNX%d34 format on neither side", int(version))
                << version << QString(fileLines(version)[2]).replace("ORV-GPS-SIGNED", "ORV-GPS-NONE")
                << ", line 6, \"GPS Format Name\": \"ORV-GPS-NONE\" is not a known GPS format" << true;
        }
    }
    void nothingWritten()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(QString, badLine);
        QFETCH(QString, error);
        QFETCH(bool, readsSlots);
        QVERIFY(start(version));
        if (badLine.isEmpty()) {
            const QList<PlatformsImport::Change> changes = PlatformsImport(*link_).dryRun(file_);
            QCOMPARE(changes.size(), kSeeded);
            const QStringList lines = fileLines(version);
            for (int i = 0; i < kSeeded; ++i) {
                QCOMPARE(changes[i].slot, i);
                QCOMPARE(changes[i].line, i < 4 ? kFileLineNumbers[i] : 0);
                QCOMPARE(changes[i].after, lines.value(i));
                QCOMPARE(changes[i].before.section(',', 0, 0), before_[i].value(3));
            }
        } else {
            QStringList lines = fileLines(version);
            lines[2] = badLine;
            QVERIFY(writeFile(file_, version, lines));
            try {
                PlatformsImport(*link_).run(file_, backup_);
                QFAIL("no error");
            } catch (const PlatformsCheck::Error& e) {
                QCOMPARE(e.message(), file_ + error);
            }
            QVERIFY(!QFile::exists(backup_));
        }
        QCOMPARE(writesSent(), QStringList());
        QCOMPARE(sim_->receivedLines().size(), readsSlots ? link_->maxPlatformsNumber() : 0);
        QCOMPARE(slotContents(), before_);
    }
};

OGM_TEST_MAIN(TestPlatformsImport)
#include "tst_platformsimport.moc"
