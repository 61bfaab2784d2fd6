#include "com/PlatformsCheck.h"

#include "utils/GpsFormat.h"

#include <QMetaEnum>
#include <QRegularExpression>

#include <limits>

namespace OrviaGonioManager::Com {

namespace {

using Utils::GpsFormat_t;

// Column positions of a platforms line; the reception columns differ per generation.
enum Column
{
    ID = 0,
    LABEL,
    FORMAT,
    PERIOD,
    V1_MEAN_DIRECTION = 4,
    V2_BAND = 4,
    V2_MODULATION,
    V2_FREQUENCY_MODE,
    V2_NARROW_FREQUENCY,
};

QString quoted(const QString& text)
{
    return QLatin1Char('"') + text + QLatin1Char('"');
}

QString charName(QChar c)
{
    if (c == QLatin1Char('\r'))
        return QStringLiteral("a carriage return");
    if (c == QLatin1Char('\n'))
        return QStringLiteral("a line feed");
    return quoted(c);
}

// What the receiver can take in a text field: Latin-1 (the link sends Latin-1 bytes) and nothing
// that ends a field, a payload or a line. Empty when the text is fine.
QString textProblem(const QString& text)
{
    for (const QChar c : text) {
        if (c.unicode() > 0xFF)
            return QStringLiteral("%1 holds %2, which the receiver cannot take (Latin-1 characters only)")
                .arg(quoted(text), quoted(c));
        if (c == QLatin1Char(',') || c == QLatin1Char('*') || c == QLatin1Char('$') ||
            c == QLatin1Char('\r') || c == QLatin1Char('\n'))
            return QStringLiteral("%1 holds %2, which would break the command sent to the receiver")
                .arg(quoted(text), charName(c));
    }
    return {};
}

bool isPlatformId(const QString& id)
{
    static const QRegularExpression hex(QStringLiteral("^(?:[0-9A-Fa-f]{5}|[0-9A-Fa-f]{7})$"));
    return hex.match(id).hasMatch();
}

bool wholeNumber(const QString& text, qint64 lo, qint64 hi, qint64& value)
{
    static const QRegularExpression digits(QStringLiteral("^-?[0-9]{1,18}$"));
    if (!digits.match(text).hasMatch())
        return false;
    value = text.toLongLong();
    return value >= lo && value <= hi;
}

// "0 (A2), 1 (A3) or 2 (A4)"; "0 (B1) to 8 (B9)" for long lists. The last key (INVALID) is left out.
template <typename E> QString knownValues()
{
    const QMetaEnum e = QMetaEnum::fromType<E>();
    QStringList values;
    for (int i = 0; i + 1 < e.keyCount(); ++i) {
        const QString key = QString::fromLatin1(e.key(i));
        values << QStringLiteral("%1 (%2)").arg(e.value(i)).arg(key.mid(key.indexOf(QLatin1Char('_')) + 1));
    }
    if (values.size() > 3)
        return values.first() + QStringLiteral(" to ") + values.last();
    const QString last = values.takeLast();
    return values.join(QStringLiteral(", ")) + QStringLiteral(" or ") + last;
}

template <typename E> int knownCount()
{
    return QMetaEnum::fromType<E>().keyCount() - 1;
}

class LineChecker
{
public:
    LineChecker(const PlatformsFile::NumberedLine& line, GnxLink::GnxVersion_t version,
                const QString& fileName, PlatformsCheck::Formats formats)
        : line_(line), version_(version), fileName_(fileName), formats_(formats),
          titles_(GnxLink::platformTitles().value(int(version)))
    {}

    PlatformsCheck::Line check()
    {
        fields_ = line_.text.split(QLatin1Char(','));
        if (fields_.size() != titles_.size())
            fail(QString(), columnsProblem());

        PlatformsCheck::Line out;
        out.number = line_.number;
        GnxLink::PlatformInfo& p = out.platform;
        p.id = fields_[ID];
        if (!isPlatformId(p.id))
            fail(ID, QStringLiteral("%1 is not 5 or 7 hexadecimal digits").arg(quoted(p.id)));
        p.label = fields_[LABEL];
        if (const QString problem = textProblem(p.label); !problem.isEmpty())
            fail(LABEL, problem);
        out.gpsFormatName = fields_[FORMAT];
        p.gpsFormat = gpsFormat(out.gpsFormatName);

        p.repetitionPeriod = number(PERIOD, 0, 65535);
        if (version_ == GnxLink::GNX_V1) {
            p.meanDirectionValues = number(V1_MEAN_DIRECTION, 0, 255);
        } else {
            p.band = known<GnxLink::OrviaBand_t>(V2_BAND);
            p.modulation = known<GnxLink::OrviaModulation_t>(V2_MODULATION);
            p.frequencyMode = known<GnxLink::OrviaFrequencyMode_t>(V2_FREQUENCY_MODE);
            p.narrowFrequency = number(V2_NARROW_FREQUENCY, 0, std::numeric_limits<qint32>::max());
        }
        return out;
    }

    [[noreturn]] void fail(const QString& field, const QString& problem) const
    {
        throw PlatformsCheck::Error(fileName_, line_.number, field, problem);
    }
    [[noreturn]] void fail(int column, const QString& problem) const { fail(titles_.value(column), problem); }

private:
    QString columnsProblem() const
    {
        QString problem = QStringLiteral("%1 columns where a %2 line has %3 (%4)")
                              .arg(fields_.size())
                              .arg(PlatformsCheck::modelName(version_))
                              .arg(titles_.size())
                              .arg(titles_.join(QStringLiteral(", ")));
        const auto other = version_ == GnxLink::GNX_V1 ? GnxLink::GNX_V2 : GnxLink::GNX_V1;
        if (fields_.size() == GnxLink::platformTitles().value(int(other)).size())
            problem += QStringLiteral("; is it a %1 file?").arg(PlatformsCheck::modelName(other));
        return problem;
    }

    GpsFormat_t* gpsFormat(const QString& name) const
    {
        if (name.isEmpty())
            return nullptr;
        if (const QString problem = textProblem(name); !problem.isEmpty())
            fail(FORMAT, problem);
        if (formats_ == PlatformsCheck::Formats::TextOnly)
            return nullptr;
        GpsFormat_t* f = Utils::GpsFormat::instance()->getGpsFormat(name);
        if (!f)
            fail(FORMAT, QStringLiteral("%1 is not a known GPS format").arg(quoted(name)));
        // What the receiver refuses in the format it is sent with the slot.
        if (f->dataLen < 1 || f->dataLen > 254)
            fail(FORMAT, QStringLiteral("GPS format %1 has data length %2; the receiver takes 1 to 254")
                             .arg(quoted(name))
                             .arg(f->dataLen));
        if (f->encryptionType < 0 || f->encryptionType > 2)
            fail(FORMAT, QStringLiteral("GPS format %1 has encryption type %2; the receiver takes 0 to 2")
                             .arg(quoted(name))
                             .arg(int(f->encryptionType)));
        return f;
    }

    qint32 number(int column, qint64 lo, qint64 hi) const
    {
        qint64 value = 0;
        if (!wholeNumber(fields_[column], lo, hi, value))
            fail(column, QStringLiteral("%1 is not a whole number from %2 to %3")
                             .arg(quoted(fields_[column]))
                             .arg(lo)
                             .arg(hi));
        return qint32(value);
    }

    template <typename E> qint32 known(int column) const
    {
        qint64 value = 0;
        if (!wholeNumber(fields_[column], 0, knownCount<E>() - 1, value))
            fail(
                column,
                QStringLiteral("%1 is not a known value: %2").arg(quoted(fields_[column]), knownValues<E>()));
        return qint32(value);
    }

    const PlatformsFile::NumberedLine& line_;
    GnxLink::GnxVersion_t version_;
    const QString& fileName_;
    PlatformsCheck::Formats formats_;
    QStringList titles_;
    QStringList fields_;
};

QString errorText(const QString& fileName, int line, const QString& field, const QString& problem)
{
    if (line <= 0) // the file as a whole: the problem names it
        return problem;
    if (field.isEmpty())
        return QStringLiteral("%1, line %2: %3").arg(fileName).arg(line).arg(problem);
    return QStringLiteral("%1, line %2, \"%3\": %4").arg(fileName).arg(line).arg(field, problem);
}

} // namespace

PlatformsCheck::Error::Error(const QString& fileName, int line, const QString& field, const QString& problem)
    : MRL::Utils::Exception(errorText(fileName, line, field, problem), 2), fileName_(fileName), line_(line),
      field_(field)
{}

int PlatformsCheck::slotCount(GnxLink::GnxVersion_t version)
{
    switch (version) {
    case GnxLink::GNX_V1:
        return 16;
    case GnxLink::GNX_V2:
        return 64;
    default:
        return 0;
    }
}

QString PlatformsCheck::modelName(GnxLink::GnxVersion_t version)
{
    return QStringLiteral("GNX%1").arg(int(version)) + QStringLiteral("34");
}

QList<PlatformsCheck::Line> PlatformsCheck::check(const QList<PlatformsFile::NumberedLine>& lines,
                                                  GnxLink::GnxVersion_t version, const QString& fileName,
                                                  Formats formats)
{
    const int slotTotal = slotCount(version);
    if (slotTotal == 0)
        throw MRL::Utils::Exception(QStringLiteral("Unknown GNX version, read the device information first"),
                                    2);
    QList<Line> out;
    for (const PlatformsFile::NumberedLine& line : lines) {
        if (out.size() == slotTotal)
            throw Error(fileName, line.number, QString(),
                        QStringLiteral("one platform too many: a %1 has %2 favourite slots")
                            .arg(modelName(version))
                            .arg(slotTotal));
        out << LineChecker(line, version, fileName, formats).check();
    }
    return out;
}

QList<PlatformsFile::NumberedLine> PlatformsCheck::readFile(const QString& fileName)
{
    try {
        return PlatformsFile::readNumberedLines(fileName);
    } catch (const MRL::Utils::Exception& e) {
        throw Error(fileName, 0, QString(), e.message());
    }
}

QList<PlatformsCheck::Line> PlatformsCheck::checkFile(const QString& fileName, GnxLink::GnxVersion_t version,
                                                      Formats formats)
{
    return check(readFile(fileName), version, fileName, formats);
}

} // namespace OrviaGonioManager::Com
