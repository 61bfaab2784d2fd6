#pragma once
// The wire seen from the program's side, written again here so that tests check the emulator
// against the agreed format rather than against its own encoder.

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

namespace simwire {

inline QByteArray checksum(const QByteArray& payload)
{
    quint8 x = 0;
    for (char c : payload + '*')
        x ^= quint8(c);
    return QByteArray::number(x, 16).toUpper().rightJustified(2, '0');
}

inline QByteArray frame(const QString& payload)
{
    const QByteArray p = payload.toLatin1();
    return '$' + p + '*' + checksum(p) + "\r\n";
}

struct Line
{
    bool valid = false; // "$...*XX" with the right checksum
    QString mnemonic;
    QStringList params;
    QByteArray raw;
};

inline Line parse(const QByteArray& rawLine)
{
    Line l;
    l.raw = rawLine;
    QByteArray s = rawLine;
    if (s.endsWith("\r\n"))
        s.chop(2);
    const int star = s.lastIndexOf('*');
    if (!s.startsWith('$') || star < 0 || star != s.size() - 3)
        return l;
    const QByteArray payload = s.mid(1, star - 1);
    l.valid = s.mid(star + 1) == checksum(payload);
    const QStringList f = QString::fromLatin1(payload).split(',');
    l.mnemonic = f.value(0);
    l.params = f.mid(1);
    return l;
}

// Splits a byte stream of text lines into lines (CR LF kept).
inline QList<QByteArray> lines(const QByteArray& stream)
{
    QList<QByteArray> out;
    int from = 0;
    for (int at; (at = stream.indexOf("\r\n", from)) >= 0; from = at + 2)
        out << stream.mid(from, at + 2 - from);
    return out;
}

// A binary flash answer: frames of "$RFP,a,b," + block + "*" XX CR LF.
struct RfpFrame
{
    QString a, b;
    QByteArray block;
    QByteArray trailer;
};

// Cuts frames as the program's reader does; returns false when the stream is malformed.
inline bool cutRfp(QByteArray stream, QList<RfpFrame>* frames, qint64* blockCount, QByteArray* data)
{
    qint64 remaining = -1;
    while (!stream.isEmpty()) {
        if (!stream.startsWith("$RFP,"))
            return false;
        int commas = 0, end = -1;
        for (int i = 0; i < stream.size(); ++i)
            if (stream[i] == ',' && ++commas == 3) {
                end = i;
                break;
            }
        if (end < 0)
            return false;
        RfpFrame f;
        const QList<QByteArray> h = stream.left(end).split(',');
        f.a = QString::fromLatin1(h.value(1));
        f.b = QString::fromLatin1(h.value(2));
        const QByteArray header = stream.left(end + 1);
        stream.remove(0, end + 1);
        const int blockSize = remaining == 1 ? 0 : 128;
        if (stream.size() < blockSize + 5)
            return false;
        f.block = stream.left(blockSize);
        f.trailer = stream.mid(blockSize, 5);
        stream.remove(0, blockSize + 5);
        if (!f.trailer.startsWith('*') || !f.trailer.endsWith("\r\n"))
            return false;
        quint8 x = 0;
        for (char c : header.mid(1) + f.block + '*')
            x ^= quint8(c);
        if (f.trailer.mid(1, 2) != QByteArray::number(x, 16).toUpper().rightJustified(2, '0'))
            return false;
        if (remaining < 0) {
            bool ok = false;
            remaining = f.block.toHex().toULongLong(&ok, 16);
            if (!ok)
                return false;
            *blockCount = remaining;
        } else if (remaining > 1) {
            data->append(f.block);
            --remaining;
        } else {
            remaining = 0;
        }
        frames->append(f);
    }
    return remaining == 0;
}

} // namespace simwire
