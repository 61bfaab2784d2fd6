#include "sim/Firmware.h"

#include <QRandomGenerator>

namespace gnxsim::Firmware {

QByteArray encode(const Record& r)
{
    QByteArray bytes;
    bytes.append(char(r.type));
    bytes.append(char(r.address >> 24));
    bytes.append(char(r.address >> 16));
    bytes.append(char(r.address >> 8));
    bytes.append(char(r.address));
    bytes.append(char(r.data.size()));
    bytes.append(r.data);
    quint8 sum = 0;
    for (char c : bytes)
        sum += quint8(c);
    bytes.append(char(quint8(-sum)));
    return 'V' + bytes.toHex().toUpper();
}

std::optional<Record> decode(const QByteArray& text)
{
    if (text.size() < 1 + 14 || text[0] != 'V' || (text.size() - 1) % 2 != 0)
        return std::nullopt;
    for (int i = 1; i < text.size(); ++i) {
        const char c = text[i];
        if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F')))
            return std::nullopt;
    }
    const QByteArray bytes = QByteArray::fromHex(text.mid(1));
    const int length = quint8(bytes[5]);
    if (bytes.size() != 7 + length)
        return std::nullopt;
    quint8 sum = 0;
    for (char c : bytes)
        sum += quint8(c);
    if (sum != 0)
        return std::nullopt;
    Record r;
    r.type = quint8(bytes[0]);
    if (r.type > Version)
        return std::nullopt;
    r.address = (quint32(quint8(bytes[1])) << 24) | (quint32(quint8(bytes[2])) << 16) |
                (quint32(quint8(bytes[3])) << 8) | quint32(quint8(bytes[4]));
    r.data = bytes.mid(6, length);
    return r;
}

QByteArray vanFile(Model model, const QString& version, int dataRecords, int recordBytes)
{
    QByteArray out = "VANTOR GONIO_V" + QByteArray(model == Model::Gnx134 ? "1" : "2") +
                     " FIRMWARE VERSION : " + version.toUtf8();
    QRandomGenerator rng(qHash(version));
    out += '\r' + encode({Version, 0, version.toUtf8().left(255)});
    recordBytes = qBound(1, recordBytes, 255);
    quint32 address = 0;
    for (int i = 0; i < dataRecords; ++i) {
        QByteArray data(recordBytes, '\0');
        for (auto& c : data)
            c = char(rng.bounded(256));
        out += '\r' + encode({Data, address, data});
        address += quint32(recordBytes);
    }
    out += '\r' + encode({End, address, {}});
    return out;
}

} // namespace gnxsim::Firmware
