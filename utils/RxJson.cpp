#include "utils/RxJson.h"

#include "mrl/utils/DateTime.h"
#include "utils/PlatformNumber.h"

#include <QRegularExpression>

#include <cmath>

namespace OrviaGonioManager::Utils {

QJsonObject rxJson(const RxTableModel::Row& row)
{
    const Com::OrviaRxMessage_t& m = row.message;
    QJsonObject o{
        {QStringLiteral("origin"), row.flash ? QStringLiteral("flash") : QStringLiteral("live")},
        {QStringLiteral("time"),
         MRL::Utils::DateTime::fromMjd(m.mjd, m.secondsOfDay).toQDateTime().toString(Qt::ISODateWithMs)},
        {QStringLiteral("platformIndex"), m.platformIndex},
        {QStringLiteral("mjd"), qint64(m.mjd)},
        {QStringLiteral("secondsOfDay"), m.secondsOfDay},
        {QStringLiteral("platformId"), m.platformId},
        {QStringLiteral("platform"), row.byNumber.platform},
        {QStringLiteral("frequency"), qint64(m.frequency)},
        {QStringLiteral("flagBit2"), m.flagBit2},
        {QStringLiteral("flagBit1"), m.flagBit1},
        {QStringLiteral("flagBit0"), m.flagBit0},
        {QStringLiteral("direction"), m.direction},
        {QStringLiteral("v1FlashValue"), m.v1FlashValue},
        {QStringLiteral("band"), m.band},
        {QStringLiteral("extraCode"), m.extraCode},
        {QStringLiteral("level"), m.level},
        {QStringLiteral("period"), qint64(m.period)},
        {QStringLiteral("gnxLatitude"), m.gnxLatitude},
        {QStringLiteral("gnxLongitude"), m.gnxLongitude},
        {QStringLiteral("gnxDirection"), qint64(m.gnxDirection)},
        {QStringLiteral("payload"), QString::fromLatin1(m.payload.toHex().toUpper())},
        {QStringLiteral("payloadLatitude"),
         row.byNumber.payloadPosition ? QJsonValue(row.byNumber.payloadLatitude) : QJsonValue()},
        {QStringLiteral("payloadLongitude"),
         row.byNumber.payloadPosition ? QJsonValue(row.byNumber.payloadLongitude) : QJsonValue()},
    };
    if (!row.byNumber.label.isEmpty())
        o.insert(QStringLiteral("label"), row.byNumber.label);
    return o;
}

namespace {

// Reads the fields of one object, keeping the first thing wrong.
class FieldReader
{
public:
    explicit FieldReader(const QJsonObject& object) : object_(object) {}

    bool failed() const { return !error_.isEmpty(); }
    QString error() const { return error_; }
    QString field() const { return field_; }

    // A whole number within [min, max]; fallback when absent and not required.
    template <typename T> T whole(const char* key, bool required, double min, double max, T fallback = T())
    {
        const QJsonValue v = value(key, required);
        if (v.isUndefined())
            return fallback;
        const double d = v.toDouble();
        if (!v.isDouble())
            fail(key, QStringLiteral("is not a number"));
        else if (d != std::floor(d) || d < min || d > max)
            fail(key, QStringLiteral("is not a whole number from %1 to %2")
                          .arg(min, 0, 'f', 0)
                          .arg(max, 0, 'f', 0));
        return failed() ? fallback : T(d);
    }

    double real(const char* key, bool required = false)
    {
        const QJsonValue v = value(key, required);
        if (v.isUndefined())
            return 0.0;
        if (!v.isDouble())
            fail(key, QStringLiteral("is not a number"));
        return v.toDouble();
    }

    // A number, or null (and absent) for none.
    std::optional<double> realOrNull(const char* key)
    {
        const QJsonValue v = value(key, false);
        if (v.isUndefined() || v.isNull())
            return std::nullopt;
        if (!v.isDouble()) {
            fail(key, QStringLiteral("is not a number or null"));
            return std::nullopt;
        }
        return v.toDouble();
    }

    bool flag(const char* key)
    {
        const QJsonValue v = value(key, false);
        if (!v.isUndefined() && !v.isBool())
            fail(key, QStringLiteral("is not true or false"));
        return v.toBool();
    }

    QString text(const char* key, bool required = false)
    {
        const QJsonValue v = value(key, required);
        if (!v.isUndefined() && !v.isString())
            fail(key, QStringLiteral("is not text"));
        return v.toString();
    }

    void fail(const char* key, const QString& problem)
    {
        if (failed())
            return;
        field_ = QString::fromLatin1(key);
        error_ = QStringLiteral("\"%1\" %2").arg(field_, problem);
    }

private:
    // Undefined when absent, or once something is wrong: the rest is not read.
    QJsonValue value(const char* key, bool required)
    {
        if (failed())
            return QJsonValue(QJsonValue::Undefined);
        const QJsonValue v = object_.value(QLatin1String(key));
        if (v.isUndefined() && required)
            fail(key, QStringLiteral("is missing"));
        return v;
    }

    const QJsonObject& object_;
    QString error_;
    QString field_;
};

} // namespace

std::optional<RxTableModel::Row> rxFromJson(const QJsonObject& object, QString* error, QString* field)
{
    FieldReader in(object);
    RxTableModel::Row row;
    Com::OrviaRxMessage_t& m = row.message;
    const QString origin = in.text("origin");
    if (!in.failed() && !origin.isEmpty() && origin != QLatin1String("flash") &&
        origin != QLatin1String("live"))
        in.fail("origin", QStringLiteral("is neither \"flash\" nor \"live\""));
    row.flash = origin == QLatin1String("flash");
    m.platformIndex = in.whole<qint32>("platformIndex", false, -2147483648.0, 2147483647.0, -1);
    m.mjd = in.whole<quint64>("mjd", true, 0, 9007199254740992.0); // the whole numbers a double holds
    m.secondsOfDay = in.real("secondsOfDay", true);
    m.platformId = in.text("platformId", true);
    if (!in.failed() && m.platformId.trimmed().isEmpty())
        in.fail("platformId", QStringLiteral("is empty"));
    m.frequency = in.whole<quint32>("frequency", false, 0, 4294967295.0);
    m.flagBit2 = in.flag("flagBit2");
    m.flagBit1 = in.flag("flagBit1");
    m.flagBit0 = in.flag("flagBit0");
    m.direction = in.whole<quint16>("direction", true, 0, 65535);
    m.v1FlashValue = in.whole<qint16>("v1FlashValue", false, -32768, 32767);
    m.band = in.whole<qint16>("band", false, -32768, 32767);
    m.extraCode = in.whole<qint16>("extraCode", false, -32768, 32767);
    m.level = in.whole<qint32>("level", false, -2147483648.0, 2147483647.0);
    m.period = in.whole<quint32>("period", false, 0, 4294967295.0);
    m.gnxLatitude = in.real("gnxLatitude");
    m.gnxLongitude = in.real("gnxLongitude");
    m.gnxDirection = in.whole<quint32>("gnxDirection", false, 0, 4294967295.0);
    const QString payload = in.text("payload");
    static const QRegularExpression hex(QStringLiteral("^([0-9A-Fa-f]{2})*$"));
    if (!in.failed() && !hex.match(payload).hasMatch())
        in.fail("payload", QStringLiteral("is not hexadecimal bytes"));
    m.payload = QByteArray::fromHex(payload.toLatin1());

    RxTableModel::Row::ByNumber& n = row.byNumber;
    n.platform = in.text("platform");
    if (n.platform.isEmpty())
        n.platform = PlatformNumber::shortest(m.platformId); // written before "platform" was
    n.label = in.text("label");
    n.favourite = !n.label.isEmpty(); // the only sign of one the object gives
    const std::optional<double> latitude = in.realOrNull("payloadLatitude");
    const std::optional<double> longitude = in.realOrNull("payloadLongitude");
    n.payloadPosition = latitude && longitude;
    n.payloadLatitude = latitude.value_or(0.0);
    n.payloadLongitude = longitude.value_or(0.0);
    if (in.failed()) {
        if (error)
            *error = in.error();
        if (field)
            *field = in.field();
        return std::nullopt;
    }
    return RxTableModel::byNumber(row);
}

} // namespace OrviaGonioManager::Utils
