#pragma once

#include "com/GnxLink.h"
#include "com/PlatformCodec.h"
#include "com/PlatformsCheck.h"
#include "mrl/utils/Exception.h"

#include <QList>
#include <QString>

#include <vector>

namespace OrviaGonioManager::Utils {
class JobProgress;
}

namespace OrviaGonioManager::Com {

// Replaces every favourite slot of the receiver with the platforms of a file, all or nothing:
//   1. checks the file's lines (columns, identifiers, ranges, texts) before any request;
//   2. reads and keeps every slot (the backup), then checks the GPS format names, which may be
//      formats the receiver carries;
//   3. run() only: writes the backup to a platforms file (the format "platforms export" writes, so
//      importing it gives the slots back) completely or not at all, before the first write;
//   4. run() only: writes the file's platforms to slots 0, 1, ... in file order and frees the other
//      slots, skipping slots that already hold what they should; each written slot is read back and
//      compared with what was written;
//   5. when the receiver refuses a write, the link fails, or a slot reads back differently, writes
//      the kept slots back, reads them to verify, and throws PlatformsImport::Error.
// A slot given a new identifier is re-created and a freed slot cleared: the receiver erases the
// stored messages of the platform it held, which a restore cannot bring back.
//
// Failures: PlatformsCheck::Error for a bad file (nothing sent but reads); MRL::Utils::Exception
// when reading the slots or writing the backup fails (nothing written); PlatformsImport::Error once
// a write was attempted.
//
// Usage (a command line):
//   Com::PlatformsImport import(link, &job);
//   try {
//       for (const auto& c : dryRun ? import.dryRun(file) : import.run(file, backupPath))
//           print(c.slot, c.before, c.after);
//   } catch (const Com::PlatformsCheck::Error& e) { usageError(e.message()); }
class PlatformsImport
{
public:
    // One slot that changes, with the platforms file line that describes its content before and
    // after (empty: a free slot). line is the file line written there, 0 when the slot is freed.
    struct Change
    {
        int slot = 0;
        int line = 0;
        QString before;
        QString after;
    };

    enum class Restore
    {
        NotNeeded, // the failed write had changed nothing, nor had any before it
        Restored,  // every slot reads back as it was before the import
        Failed     // some slot could not be restored: the backup file holds them
    };

    // A failed write. The message names the file line the receiver refused (or the slot that
    // differed), says whether the favourites were restored and where the backup is.
    class Error : public MRL::Utils::Exception
    {
    public:
        Error(const QString& message, int line, int slot, Restore restore, const QString& backupPath)
            : MRL::Utils::Exception(message, 2), line_(line), slot_(slot), restore_(restore),
              backupPath_(backupPath)
        {}
        int line() const { return line_; } // 0 when the slot was being freed
        int slot() const { return slot_; }
        Restore restore() const { return restore_; }
        QString backupPath() const { return backupPath_; }

    private:
        int line_;
        int slot_;
        Restore restore_;
        QString backupPath_;
    };

    // job, when given, reports the phases ("Platform backup", "Platform import", "Platform
    // restore"); only the backup read can be cancelled, and then nothing is written.
    explicit PlatformsImport(GnxLink& link, Utils::JobProgress* job = nullptr);

    // What run() would change, slot by slot; the receiver is only read.
    QList<Change> dryRun(const QString& fileName);
    // The transaction; returns the changes made. backupPath is replaced.
    QList<Change> run(const QString& fileName, const QString& backupPath);

private:
    struct Step
    {
        int slot = 0;
        int line = 0;
        GnxLink::PlatformInfo target; // id empty: free the slot
        QString gpsFormatName;
    };
    struct Failure
    {
        int slot = -1;
        QString reason;
        int rewritten = 0; // slots a restore had to write back
    };

    void prepare(const QString& fileName);
    QList<Change> changes() const;
    void writeBackup(const QString& backupPath) const;
    // Writes one slot and reads it back; empty when it holds what was written, else why not.
    QString writeSlot(int slot, const GnxLink::PlatformInfo& target, const PlatformCodec::Slot& current);
    PlatformCodec::Slot readSlot(int slot);
    Failure restore(const QList<int>& touched);
    QString slotText(const PlatformCodec::Slot& slot) const;

    GnxLink& link_;
    Utils::JobProgress* job_;
    GnxLink::GnxVersion_t version_ = GnxLink::GNX_UNDEFINEDVERSION;
    QString fileName_;
    std::vector<PlatformCodec::Slot> before_; // by slot
    QList<Step> steps_;
};

} // namespace OrviaGonioManager::Com
