#pragma once
// The wire seen from the program's side, written again here so that tests check the emulator
// against the agreed format rather than against its own encoder.

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace simwire {

// Two upper-case hex digits: the XOR of the bytes.
inline QByteArray xorHex(const QByteArray& bytes)
{
    quint8 x = 0;
    for (char c : bytes)
        x ^= quint8(c);
    return QByteArray::number(x, 16).toUpper().rightJustified(2, '0');
}

inline QByteArray frame(const QString& payload)
{
    const QByteArray p = payload.toLatin1() + '*';
    return '$' + p + xorHex(p) + "\r\n";
}

// The mnemonic and parameters of one "$...*XX" CR LF line; empty when it is not one or its checksum is wrong.
inline QStringList parse(const QByteArray& raw)
{
    const int star = raw.lastIndexOf('*');
    if (!raw.startsWith('$') || !raw.endsWith("\r\n") || star != raw.size() - 5 ||
        raw.mid(star + 1, 2) != xorHex(raw.mid(1, star)))
        return {};
    return QString::fromLatin1(raw.mid(1, star - 1)).split(',');
}

// A binary flash answer: frames of "$RFP,a,b," + block + "*" XX CR LF.
struct RfpFrame
{
    QString a, b;
    QByteArray block;
};

// Cuts frames as the program's reader does; returns false when the stream is malformed or short.
inline bool cutRfp(QByteArray stream, QList<RfpFrame>* frames, qint64* blockCount, QByteArray* data)
{
    qint64 remaining = -1;
    while (!stream.isEmpty()) {
        int end = 0;
        for (int commas = 0; end < stream.size() && commas < 3; ++end)
            commas += stream[end] == ',';
        const QList<QByteArray> header = stream.left(end).split(',');
        const int blockSize = remaining == 1 ? 0 : 128;
        if (remaining == 0 || !stream.startsWith("$RFP,") || header.size() != 4 ||
            stream.size() < end + blockSize + 5)
            return false;
        const RfpFrame f{QString::fromLatin1(header[1]), QString::fromLatin1(header[2]),
                         stream.mid(end, blockSize)};
        if (stream.mid(end + blockSize, 5) != '*' + xorHex(stream.mid(1, end + blockSize)) + "\r\n")
            return false;
        stream.remove(0, end + blockSize + 5);
        frames->append(f);
        if (remaining < 0) { // the first frame: N in the last 4 bytes of a zero block
            if (f.block.left(124) != QByteArray(124, '\0'))
                return false;
            *blockCount = remaining = f.block.right(4).toHex().toLongLong(nullptr, 16);
        } else if (remaining-- > 1) {
            data->append(f.block);
        }
    }
    return remaining == 0;
}

} // namespace simwire
