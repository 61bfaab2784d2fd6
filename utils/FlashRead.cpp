#include "utils/FlashRead.h"

#include "mrl/utils/Exception.h"
#include "utils/FlashMemory.h"
#include "utils/JobProgress.h"

#include <QDebug>

#include <exception>
#include <optional>

namespace OrviaGonioManager::Utils {

namespace {

void readPerSlot(Com::GnxLink& link, JobProgress& job, const std::map<int, QString>& usedSlots)
{
    const JobScope scope(job, QStringLiteral("Flash read"), qint64(usedSlots.size()),
                         QStringLiteral("platforms"));
    int done = 0;
    for (const auto& [index, id] : usedSlots) {
        FlashMemory::instance()->decodePlatformDump(quint32(index), id, link.readPlatformFlashMemory(index));
        if (!job.advance(++done))
            break;
    }
}

void readDump(Com::GnxLink& link, JobProgress& job)
{
    // The job begins once CMD_IFP has told how much there is to read.
    std::optional<JobScope> scope;
    const QMetaObject::Connection progress =
        QObject::connect(&link, &Com::GnxLink::sigFlashProgress, &job, [&](qint64 read, qint64 total) {
            if (!scope)
                scope.emplace(job, QStringLiteral("Flash read"), total, QStringLiteral("bytes"));
            if (!job.advance(read))
                link.cancelRead();
        });
    QByteArray dump;
    std::exception_ptr failure;
    try {
        dump = link.readFlashMemory();
    } catch (const MRL::Utils::Exception&) {
        failure = std::current_exception();
        dump = link.partialRead();
    }
    QObject::disconnect(progress);
    qInfo().noquote() << "Display messages in RX Table (This operation could be long)...";
    try {
        FlashMemory::instance()->decodeDump(dump);
    } catch (const MRL::Utils::Exception&) {
        // A read cut short ends inside a record: the whole ones before it count.
        if (!job.isCancelled() && !failure)
            throw;
    }
    if (failure)
        std::rethrow_exception(failure);
}

} // namespace

void readWholeFlash(Com::GnxLink& link, JobProgress& job, const std::map<int, QString>& usedSlots)
{
    if (link.version() == Com::GnxLink::GNX_V1)
        readPerSlot(link, job, usedSlots);
    else
        readDump(link, job);
}

} // namespace OrviaGonioManager::Utils
