// The binary form of the flash-memory answer: header, data block and trailer, frame after frame.
#include "com/UartLink.h"

#include "app/Settings.h"

#include <QDebug>

#include <limits>

namespace OrviaGonioManager::Com {

namespace {

// The first block of a binary flash answer holds the block count, big-endian.
bool readBlockCount(const QByteArray& block, qint64& count)
{
    count = 0;
    for (const char byte : block) {
        if (count > (std::numeric_limits<qint64>::max() >> 8))
            return false;
        count = (count << 8) | quint8(byte);
    }
    return true;
}

} // namespace

void UartLink::parseBinary(const QByteArray& bytes)
{
    replyTimer_.stop();
    binaryBuffer_ += bytes;
    while (status() == UART_WAITING_RFP_BINARY_REPLY && !binaryBuffer_.isEmpty()) {
        if (!parseBinaryFrame())
            break;
    }

    if (status() == UART_WAITING_RFP_BINARY_REPLY) {
        if (binaryBuffer_.size() > kMaxLineBytes) {
            failBinary(QStringLiteral("Flash memory answer not understood (%1 bytes without a frame)")
                           .arg(binaryBuffer_.size()));
            return;
        }
        replyTimer_.start(Utils::Settings::instance().gnxCommandTimeoutMs);
        return;
    }
    // Whatever followed the answer is text again.
    lineBuffer_ += binaryBuffer_;
    binaryBuffer_.clear();
    processLines();
}

// Cuts one frame (header, block, trailer) off the buffer; false while bytes are missing.
bool UartLink::parseBinaryFrame()
{
    if (!headerSeen_) {
        if (!skipToFrameHeader())
            return false;
        int comma = -1;
        for (int i = 0; i < 3; ++i) {
            comma = binaryBuffer_.indexOf(',', comma + 1);
            if (comma < 0)
                return false;
        }
        binaryBuffer_.remove(0, comma + 1);
        headerSeen_ = true;
    }

    if (!blockTaken_) {
        const int size = (blockCountKnown_ && blocksRemaining_ == 1) ? 0 : kRfpBlockBytes;
        if (binaryBuffer_.size() < size)
            return false;
        currentBlock_ = binaryBuffer_.left(size);
        binaryBuffer_.remove(0, size);
        blockTaken_ = true;
    }

    if (binaryBuffer_.size() < kRfpTrailerBytes)
        return false;
    binaryBuffer_.remove(0, kRfpTrailerBytes);
    headerSeen_ = false;
    blockTaken_ = false;

    if (!blockCountKnown_) {
        qint64 count = 0;
        // Compared by division: a huge count would overflow the product.
        if (!readBlockCount(currentBlock_, count) || count - 1 > kMaxRfpBytes / kRfpBlockBytes) {
            failBinary(QStringLiteral("Flash memory answer announces too many blocks"));
            return false;
        }
        blocksRemaining_ = qint32(qMax<qint64>(count, 1));
        blockCountKnown_ = true;
        return true;
    }
    if (blocksRemaining_ > 1) {
        rfpData_ += currentBlock_;
        --blocksRemaining_;
        // A slow line takes seconds over one answer: the job shows it moving.
        if (binaryProgressClock_.elapsed() >= 100) {
            binaryProgressClock_.restart();
            emit sigBinaryProgress(rfpData_.size());
        }
        return true;
    }
    finishBinary();
    return false;
}

// Leaves the buffer at a frame header. A whole text line met instead (a report, or a refusal of
// the read) is handled as an answer line; other bytes are dropped with a warning.
bool UartLink::skipToFrameHeader()
{
    static const QByteArray header("$RFP,");
    while (!binaryBuffer_.isEmpty()) {
        const int n = qMin(binaryBuffer_.size(), int(header.size()));
        if (binaryBuffer_.left(n) == header.left(n))
            return binaryBuffer_.size() >= header.size();
        if (binaryBuffer_.startsWith('$')) {
            const int end = binaryBuffer_.indexOf('\n');
            if (end < 0)
                return false;
            const QByteArray raw = binaryBuffer_.left(end);
            binaryBuffer_.remove(0, end + 1);
            // A refusal ends the read; a crossing report leaves it waiting.
            const QString line = QString::fromLatin1(raw).trimmed();
            if (Utils::Settings::instance().printAtCmdDebugInfo)
                qDebug().noquote() << QStringLiteral("Receive %1").arg(line);
            handleReply(line);
            continue;
        }
        const int next = binaryBuffer_.indexOf('$');
        const QByteArray dropped = next < 0 ? binaryBuffer_ : binaryBuffer_.left(next);
        binaryBuffer_.remove(0, dropped.size());
        qWarning().noquote() << GnxFrame::undecodableWarning(shortened(dropped));
    }
    return false;
}

void UartLink::finishBinary()
{
    startKeepAlive();
    setStatus(UART_READY);
    emit sigBinaryRfpDataReceived(rfpData_, false);
}

void UartLink::failBinary(const QString& message)
{
    binaryBuffer_.clear();
    rfpData_.clear();
    blockCountKnown_ = false;
    blocksRemaining_ = -1;
    headerSeen_ = false;
    blockTaken_ = false;
    replyTimer_.stop();
    startKeepAlive();
    setStatus(UART_READY);
    emit sigBinaryRfpDataReceived(message.toUtf8(), true);
}

} // namespace OrviaGonioManager::Com
