#include "utils/GpsFormat.h"

#include "mrl/utils/Exception.h"
#include "utils/OutputFile.h"

#include <QFile>
#include <QFileInfo>
#include <QStringList>
#include <QTextStream>
#include <QtDebug>

namespace OrviaGonioManager::Utils {

namespace {

const QString kNewFormatName = QStringLiteral("New GPS Format");

qint32 toInt32(const QString& text, int base = 10)
{
    bool ok = false;
    const int value = text.toInt(&ok, base);
    return ok ? value : 0;
}

quint16 toUInt16(const QString& text)
{
    bool ok = false;
    const ushort value = text.toUShort(&ok, 10);
    return ok ? value : 0;
}

// The nine fields of a coordinate block, in file order.
void readCoordinate(const QStringList& parts, int first, GpsCoordinate_t& c)
{
    qint32* const fields[] = {&c.signPos, &c.signLen, &c.pos, &c.len, &c.T, &c.U, &c.V, &c.W, &c.TY};
    for (int i = 0; i < 9; ++i)
        *fields[i] = toInt32(parts.at(first + i));
}

void writeCoordinate(QStringList& parts, const GpsCoordinate_t& c)
{
    for (const qint32 v : {c.signPos, c.signLen, c.pos, c.len, c.T, c.U, c.V, c.W, c.TY})
        parts << QString::number(v);
}

bool sameCoordinate(const GpsCoordinate_t& a, const GpsCoordinate_t& b)
{
    return a.signPos == b.signPos && a.signLen == b.signLen && a.pos == b.pos && a.len == b.len &&
           a.T == b.T && a.U == b.U && a.V == b.V && a.W == b.W && a.TY == b.TY;
}

// Everything but the origin.
void copyValues(const GpsFormat_t& from, GpsFormat_t& to)
{
    const GpsFormat::Origin_t origin = to.origin;
    to = from;
    to.origin = origin;
}

QString absolutePath(const QString& path)
{
    return QFileInfo(path).absoluteFilePath();
}

} // namespace

GpsFormat::GpsFormat(QObject* parent) : QObject(parent) {}

GpsFormat::~GpsFormat() = default;

GpsFormat* GpsFormat::instance()
{
    // Never destroyed before exit: pointers to formats may be held until the very end.
    static GpsFormat* const gpsFormat = new GpsFormat;
    return gpsFormat;
}

void GpsFormat::clear()
{
    formats_.clear();
    retired_.clear();
}

GpsFormat_t* GpsFormat::insert(std::unique_ptr<GpsFormat_t> gpsFormat)
{
    GpsFormat_t* const raw = gpsFormat.get();
    auto& slot = formats_[raw->name];
    if (slot)
        retired_.push_back(std::move(slot));
    slot = std::move(gpsFormat);
    emit sigNewGpsFormat(raw);
    return raw;
}

void GpsFormat::readGpsFormatsFile(const QString& path)
{
    clear();
    const QString absolute = absolutePath(path);
    QFile file(absolute);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        throw MRL::Utils::Exception(QStringLiteral("Unable to open GPS formats file %1").arg(absolute), 2);
    readGpsFormats(file);
}

void GpsFormat::readGpsFormats(QIODevice& device)
{
    clear();
    QTextStream in(&device);
    in.setEncoding(QStringConverter::Utf8);
    QString line;
    while (in.readLineInto(&line)) {
        auto gpsFormat = std::make_unique<GpsFormat_t>();
        if (!parseGpsFormatLine(line, *gpsFormat))
            continue;
        gpsFormat->origin = ORIGIN_FILE;
        insert(std::move(gpsFormat));
    }
}

QByteArray GpsFormat::gpsFormatsText() const
{
    QString text = QString::number(formats_.size()) + QLatin1Char('\n');
    for (const auto& [name, gpsFormat] : formats_)
        text += gpsFormatLine(*gpsFormat) + QLatin1String("#\n");
    return text.toUtf8();
}

void GpsFormat::writeGpsFormatsFile(const QString& path) const
{
    const QString absolute = absolutePath(path);
    // A failure never leaves half a file behind.
    OutputFile file(absolute);
    if (!file.open())
        throw MRL::Utils::Exception(QStringLiteral("Unable to open GPS formats file %1").arg(absolute), 2);
    const QByteArray text = gpsFormatsText();
    if (file.device()->write(text) != text.size() || !file.commit())
        throw MRL::Utils::Exception(QStringLiteral("Unable to write GPS formats file %1").arg(absolute), 2);
}

bool GpsFormat::parseGpsFormatLine(QString line, GpsFormat_t& gpsFormat)
{
    if (line.endsWith(QLatin1Char('#')))
        line.chop(1);
    const QStringList parts = line.split(QLatin1Char(','), Qt::KeepEmptyParts);
    if (parts.size() != kFieldCount)
        return false;

    GpsFormat_t f;
    f.name = parts.at(0);
    f.type = parts.at(1);
    f.manufacturer = parts.at(2);
    f.description = parts.at(3);
    f.payloadLength = toInt32(parts.at(4));
    readCoordinate(parts, 5, f.latitude);
    readCoordinate(parts, 14, f.longitude);
    f.encryptionType = EncryptionType_t(toUInt16(parts.at(23)));
    f.polynom = quint16(toInt32(parts.at(24), 16)); // "-1" keeps its low 16 bits, 0xffff
    f.crcPos = toInt32(parts.at(25));
    f.crcLen = toInt32(parts.at(26));
    f.dataPos = toInt32(parts.at(27));
    f.dataLen = toInt32(parts.at(28));
    f.indexPos = toInt32(parts.at(29));
    f.gpsCheck = toUInt16(parts.at(30)) != 0;
    gpsFormat = f;
    return true;
}

QString GpsFormat::gpsFormatLine(const GpsFormat_t& f)
{
    QStringList parts;
    parts.reserve(kFieldCount);
    parts << f.name << f.type << f.manufacturer << f.description << QString::number(f.payloadLength);
    writeCoordinate(parts, f.latitude);
    writeCoordinate(parts, f.longitude);
    parts << QString::number(qint32(f.encryptionType)) << QString::number(f.polynom, 16)
          << QString::number(f.crcPos) << QString::number(f.crcLen) << QString::number(f.dataPos)
          << QString::number(f.dataLen) << QString::number(f.indexPos)
          << QString(f.gpsCheck ? QLatin1Char('1') : QLatin1Char('0'));
    return parts.join(QLatin1Char(','));
}

GpsFormat_t* GpsFormat::getGpsFormat(const QString& name) const
{
    const auto it = formats_.find(name);
    return it == formats_.end() ? nullptr : it->second.get();
}

QList<GpsFormat_t*> GpsFormat::gpsFormats() const
{
    QList<GpsFormat_t*> list;
    list.reserve(qsizetype(formats_.size()));
    for (const auto& [name, gpsFormat] : formats_)
        list << gpsFormat.get();
    return list;
}

void GpsFormat::newGpsFormat()
{
    auto gpsFormat = std::make_unique<GpsFormat_t>();
    gpsFormat->origin = ORIGIN_GUI;
    gpsFormat->name = kNewFormatName;
    gpsFormat->description = QStringLiteral("Created by Orvia Gonio Manager");
    insert(std::move(gpsFormat));
}

GpsFormat_t* GpsFormat::importGpsFormat(const GpsFormat_t& gpsFormat)
{
    if (gpsFormat.name.isEmpty())
        return nullptr;
    if (GpsFormat_t* const existing = getGpsFormat(gpsFormat.name)) {
        // The file's (or the user's) definition wins over the receiver's.
        if (!compareGpsFormats(*existing, gpsFormat, false))
            qWarning().noquote() << QStringLiteral(
                                        "A GPS format with the same name \"%1\" but with different "
                                        "values already exists. Use format from file.")
                                        .arg(gpsFormat.name);
        return existing;
    }
    auto copy = std::make_unique<GpsFormat_t>(gpsFormat);
    copy->description = QStringLiteral("Imported from Gnx");
    copy->origin = ORIGIN_GNX;
    return insert(std::move(copy));
}

bool GpsFormat::saveGpsFormat(const QString& oldName, const GpsFormat_t& edited)
{
    GpsFormat_t* const stored = getGpsFormat(oldName);
    if (!stored)
        throw MRL::Utils::Exception(QStringLiteral("Unable to save GPS format %1.").arg(oldName), 2);
    if (compareGpsFormats(*stored, edited, true))
        return false;

    stored->origin = ORIGIN_GUI;
    if (edited.name != oldName) {
        if (formats_.count(edited.name) != 0)
            throw MRL::Utils::Exception(
                QStringLiteral("Unable to save GPS format %1: name already used.").arg(edited.name), 2);
        // Same object under its new key: pointers held elsewhere stay valid.
        auto node = formats_.extract(oldName);
        node.key() = edited.name;
        formats_.insert(std::move(node));
    }
    copyValues(edited, *stored);
    return true;
}

void GpsFormat::deleteGpsFormat(const QString& name)
{
    const auto it = formats_.find(name);
    if (it == formats_.end())
        return;
    retired_.push_back(std::move(it->second));
    formats_.erase(it);
}

bool GpsFormat::compareGpsFormats(const GpsFormat_t& a, const GpsFormat_t& b, bool compareTexts)
{
    if (a.name != b.name || a.payloadLength != b.payloadLength || !sameCoordinate(a.latitude, b.latitude) ||
        !sameCoordinate(a.longitude, b.longitude) || a.encryptionType != b.encryptionType ||
        a.polynom != b.polynom || a.crcPos != b.crcPos || a.crcLen != b.crcLen || a.dataPos != b.dataPos ||
        a.dataLen != b.dataLen || a.indexPos != b.indexPos || a.gpsCheck != b.gpsCheck)
        return false;
    if (!compareTexts)
        return true;
    return a.type == b.type && a.manufacturer == b.manufacturer && a.description == b.description;
}

QString GpsFormat::originText(Origin_t origin)
{
    switch (origin) {
    case ORIGIN_GUI:
        return QStringLiteral("From Orvia Gonio Manager");
    case ORIGIN_GNX:
        return QStringLiteral("From Gonio favorite plaform");
    case ORIGIN_FILE:
        return QStringLiteral("From VTL file");
    }
    return QString();
}

// ---- positions in a payload ----

bool GpsFormat::isFieldReadable(qsizetype payloadSize, quint32 start, quint32 count)
{
    // 32-bit arithmetic on purpose: a negative position from the file wraps and fails "start < end".
    const quint32 end = start + count;
    return count != 0 && start < end && quint64(end) <= 8 * quint64(payloadSize);
}

quint32 GpsFormat::extractBits(const QByteArray& payload, quint32 start, quint32 count)
{
    if (!isFieldReadable(payload.size(), start, count))
        return 0;
    // Only the last 32 bits of a longer field survive the accumulator.
    if (count > 32) {
        start += count - 32;
        count = 32;
    }
    const auto* const bytes = reinterpret_cast<const uchar*>(payload.constData());
    quint32 value = 0;
    for (quint32 b = start; b < start + count; ++b)
        value = (value << 1) | ((bytes[b / 8] >> (7 - b % 8)) & 1u);
    return value;
}

double GpsFormat::decodeCoordinate(const QByteArray& payload, const GpsCoordinate_t& c, quint32 limit)
{
    double sign = 1.0;
    if (isFieldReadable(payload.size(), quint32(c.signPos), quint32(c.signLen)))
        sign = double(extractBits(payload, quint32(c.signPos), quint32(c.signLen))) * -2.0 + 1.0;
    double value = 0.0;
    if (isFieldReadable(payload.size(), quint32(c.pos), quint32(c.len)))
        value = double(extractBits(payload, quint32(c.pos), quint32(c.len)));

    double x = sign * value;
    x = (double(c.T) / double(c.U)) * x;
    x = (double(c.V) / double(c.W)) + x;
    // Two's-complement-like encodings: values above the range belong to the negative half.
    if (c.TY != 0 && x > double(limit) * 60000.0)
        x = x - double(limit) * 120000.0;
    return x / 60000.0;
}

bool GpsFormat::decodePosition(const QString& name, const QByteArray& payload, double& latitude,
                               double& longitude) const
{
    if (name.isEmpty() || formats_.empty())
        return false;
    const GpsFormat_t* const f = getGpsFormat(name);
    if (!f)
        return false;
    latitude = decodeCoordinate(payload, f->latitude, kLatitudeLimit);
    longitude = decodeCoordinate(payload, f->longitude, kLongitudeLimit);
    return true;
}

} // namespace OrviaGonioManager::Utils
