#include "com/PlatformsImport.h"

#include "com/PlatformsFile.h"
#include "utils/GpsFormat.h"
#include "utils/JobProgress.h"
#include "utils/OutputFile.h"

#include <QTextStream>

namespace OrviaGonioManager::Com {

namespace {

// One phase of the job, when there is a job to report to.
class Phase
{
public:
    Phase(Utils::JobProgress* job, const QString& title, qint64 total, bool cancellable) : job_(job)
    {
        if (job_)
            job_->begin(title, total, QStringLiteral("slots"), cancellable);
    }
    ~Phase()
    {
        if (job_)
            job_->end();
    }
    Phase(const Phase&) = delete;
    Phase& operator=(const Phase&) = delete;
    bool advance(qint64 done) { return !job_ || job_->advance(done); }

private:
    Utils::JobProgress* job_;
};

// The record a slot holds, its format being the slot's own copy (not the collection's one of the
// same name): written back, it gives the slot exactly as it was. The writes only read the format.
GnxLink::PlatformInfo platformOf(const PlatformCodec::Slot& slot, int index)
{
    GnxLink::PlatformInfo p = slot.platform;
    p.index = index;
    p.gpsFormat = slot.hasGpsFormat ? const_cast<Utils::GpsFormat_t*>(&slot.gpsFormat) : nullptr;
    return p;
}

// What a slot holds as the receiver compares it: the write's parameters without the action, the
// identifier in upper case (the receiver stores it so). Empty for a free slot.
QStringList content(GnxLink::PlatformInfo p, int index, GnxLink::GnxVersion_t version)
{
    if (p.id.isEmpty())
        return {};
    p.index = index;
    p.id = p.id.toUpper();
    QStringList params = PlatformCodec::writeParameters(p, version, false);
    params.removeAt(1);
    return params;
}

QString formatName(const GnxLink::PlatformInfo& p)
{
    return p.gpsFormat ? p.gpsFormat->name : QString();
}

QString csvLine(const GnxLink::PlatformInfo& p, GnxLink::GnxVersion_t version)
{
    if (p.id.isEmpty())
        return {};
    return PlatformCodec::csvFields(p, formatName(p), version).join(QLatin1Char(','));
}

// Why a slot read back is not the one written, by column title where a column differs.
QString difference(const GnxLink::PlatformInfo& written, const GnxLink::PlatformInfo& read,
                   GnxLink::GnxVersion_t version)
{
    if (read.id.isEmpty())
        return QStringLiteral("it reads back free");
    if (written.id.isEmpty())
        return QStringLiteral("it reads back \"%1\" instead of free").arg(csvLine(read, version));
    const QStringList titles = GnxLink::platformTitles().value(int(version));
    const QStringList want = PlatformCodec::csvFields(written, formatName(written), version);
    const QStringList got = PlatformCodec::csvFields(read, formatName(read), version);
    for (int i = 0; i < titles.size(); ++i) {
        if (want.value(i).compare(got.value(i), i == 0 ? Qt::CaseInsensitive : Qt::CaseSensitive) != 0)
            return QStringLiteral("\"%1\" reads back \"%2\" instead of \"%3\"")
                .arg(titles[i], got.value(i), want.value(i));
    }
    return QStringLiteral("GPS format \"%1\" reads back with other values").arg(formatName(written));
}

} // namespace

PlatformsImport::PlatformsImport(GnxLink& link, Utils::JobProgress* job) : link_(link), job_(job) {}

QList<PlatformsImport::Change> PlatformsImport::dryRun(const QString& fileName)
{
    prepare(fileName);
    return changes();
}

QList<PlatformsImport::Change> PlatformsImport::run(const QString& fileName, const QString& backupPath)
{
    prepare(fileName);
    writeBackup(backupPath);

    QList<int> touched;
    Failure failure;
    int failedLine = 0;
    {
        Phase phase(job_, QStringLiteral("Platform import"), steps_.size(), false);
        for (const Step& step : std::as_const(steps_)) {
            touched << step.slot;
            try {
                failure.reason = writeSlot(step.slot, step.target, before_[size_t(step.slot)]);
            } catch (const MRL::Utils::Exception& e) {
                // A receiver that still answers refused the write; otherwise the link failed.
                const bool refused = link_.isUsable();
                const bool freeing = step.target.id.isEmpty();
                failure.reason =
                    (refused ? (freeing ? QStringLiteral("the receiver refused to free slot %1 (%2)")
                                        : QStringLiteral("the receiver refused slot %1 (%2)"))
                             : (freeing ? QStringLiteral("freeing slot %1 failed (%2)")
                                        : QStringLiteral("writing slot %1 failed (%2)")))
                        .arg(step.slot)
                        .arg(e.message());
            }
            if (!failure.reason.isEmpty()) {
                failure.slot = step.slot;
                failedLine = step.line;
                break;
            }
            phase.advance(touched.size());
        }
    }
    if (failure.slot < 0)
        return changes();

    const QString where =
        failedLine > 0 ? QStringLiteral("%1, line %2").arg(fileName_).arg(failedLine) : fileName_;
    const Failure restoreFailure = restore(touched);
    const Restore outcome = restoreFailure.slot >= 0       ? Restore::Failed
                            : restoreFailure.rewritten > 0 ? Restore::Restored
                                                           : Restore::NotNeeded;
    QString message = QStringLiteral("%1: %2. ").arg(where, failure.reason);
    if (outcome == Restore::NotNeeded)
        message += QStringLiteral("No favourite had been changed (backup: %1).").arg(backupPath);
    else if (outcome == Restore::Restored)
        message += QStringLiteral("The favourites were restored as they were before the import (backup: %1).")
                       .arg(backupPath);
    else
        message +=
            QStringLiteral("Restoring the favourites failed at slot %1 (%2); they are in the backup %3.")
                .arg(restoreFailure.slot)
                .arg(restoreFailure.reason, backupPath);
    throw Error(message, failedLine, failure.slot, outcome, backupPath);
}

void PlatformsImport::prepare(const QString& fileName)
{
    fileName_ = fileName;
    if (link_.isRecording())
        throw MRL::Utils::Exception(QStringLiteral("Unable to import platforms while commands are recorded"),
                                    2);
    if (link_.version() == GnxLink::GNX_UNDEFINEDVERSION)
        link_.readDeviceInfo();
    version_ = link_.version();

    // Everything but the GPS format names before any request, so a bad file fails at once.
    const QList<PlatformsFile::NumberedLine> lines = PlatformsCheck::readFile(fileName);
    PlatformsCheck::check(lines, version_, fileName, PlatformsCheck::Formats::TextOnly);

    const int slotTotal = PlatformsCheck::slotCount(version_);
    before_.clear();
    {
        Phase phase(job_, QStringLiteral("Platform backup"), slotTotal, true);
        for (int i = 0; i < slotTotal; ++i) {
            before_.push_back(readSlot(i));
            if (!phase.advance(i + 1))
                throw MRL::Utils::Exception(QStringLiteral("Platform import cancelled; nothing was changed"),
                                            2);
        }
    }
    // Reading the slots made the receiver's formats known: now the names can be resolved.
    const QList<PlatformsCheck::Line> checked = PlatformsCheck::check(lines, version_, fileName);

    steps_.clear();
    for (int i = 0; i < slotTotal; ++i) {
        Step step;
        step.slot = i;
        if (i < checked.size()) {
            step.line = checked[i].number;
            step.target = checked[i].platform;
            step.target.index = i;
            step.gpsFormatName = checked[i].gpsFormatName;
        }
        if (content(step.target, i, version_) != content(platformOf(before_[size_t(i)], i), i, version_))
            steps_ << step;
    }
}

QList<PlatformsImport::Change> PlatformsImport::changes() const
{
    QList<Change> out;
    for (const Step& step : steps_)
        out << Change{step.slot, step.line, slotText(before_[size_t(step.slot)]),
                      csvLine(step.target, version_)};
    return out;
}

QString PlatformsImport::slotText(const PlatformCodec::Slot& slot) const
{
    return csvLine(platformOf(slot, slot.platform.index), version_);
}

void PlatformsImport::writeBackup(const QString& backupPath) const
{
    Utils::OutputFile file(backupPath);
    bool ok = file.open(QIODevice::WriteOnly | QIODevice::Text);
    if (ok) {
        QTextStream out(file.device());
        out << PlatformsFile::header(version_) << '\n';
        for (const PlatformCodec::Slot& slot : before_) {
            if (!slot.platform.id.isEmpty())
                out << slotText(slot) << '\n';
        }
        out.flush();
        ok = out.status() == QTextStream::Ok && file.commit();
    }
    if (!ok)
        throw MRL::Utils::Exception(
            QStringLiteral("Unable to write the backup of the favourites to %1 (%2); nothing was changed")
                .arg(backupPath, file.errorString()),
            2);
}

PlatformCodec::Slot PlatformsImport::readSlot(int slot)
{
    link_.getPlatformInfo(slot);
    // The reply as the receiver holds it, with the slot's own copy of its GPS format.
    return PlatformCodec::parseReply(link_.replyValues(), version_);
}

QString PlatformsImport::writeSlot(int slot, const GnxLink::PlatformInfo& target,
                                   const PlatformCodec::Slot& current)
{
    const QString currentId = current.platform.id;
    if (target.id.isEmpty())
        link_.deletePlatformInfo(slot);
    else // a used slot takes a new identifier only by a re-creation
        link_.setPlatformInfo(target,
                              !currentId.isEmpty() && currentId.compare(target.id, Qt::CaseInsensitive) != 0);
    const PlatformCodec::Slot read = readSlot(slot);
    if (content(platformOf(read, slot), slot, version_) == content(target, slot, version_))
        return {};
    return (target.id.isEmpty() ? QStringLiteral("slot %1 was freed but %2")
                                : QStringLiteral("slot %1 was written but %2"))
        .arg(slot)
        .arg(difference(target, platformOf(read, slot), version_));
}

PlatformsImport::Failure PlatformsImport::restore(const QList<int>& touched)
{
    Phase phase(job_, QStringLiteral("Platform restore"), touched.size(), false);
    Failure failure;
    int done = 0;
    for (const int slot : touched) {
        const PlatformCodec::Slot& kept = before_[size_t(slot)];
        const GnxLink::PlatformInfo wanted = platformOf(kept, slot);
        QString reason;
        try {
            const PlatformCodec::Slot current = readSlot(slot);
            if (content(platformOf(current, slot), slot, version_) != content(wanted, slot, version_)) {
                ++failure.rewritten;
                reason = writeSlot(slot, wanted, current);
            }
        } catch (const MRL::Utils::Exception& e) {
            reason = e.message();
        }
        if (!reason.isEmpty() && failure.slot < 0) { // the first one is reported; the others are still tried
            failure.slot = slot;
            failure.reason = reason;
        }
        phase.advance(++done);
    }
    return failure;
}

} // namespace OrviaGonioManager::Com
