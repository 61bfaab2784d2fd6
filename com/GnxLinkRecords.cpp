#include "com/GnxLink.h"

#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"

#include <QMetaEnum>

// Identification, status, setups and clock: the records filled from CMD_TEST, CMD_GSN, CMD_LIG,
// CMD_SETUPSW and CMD_SETUPHW replies. Numbers are read leniently: what does not parse is 0, and a
// missing field (a reader run while recording gets no reply) is empty.

namespace OrviaGonioManager::Com {

namespace {

const QString kUnknown = QStringLiteral("UNKNOWN");

quint16 toU16(const QString& text)
{
    return text.trimmed().toUShort();
}

qint64 toSigned(const QString& text)
{
    return text.trimmed().toLongLong();
}

bool toBool(const QString& text)
{
    return toU16(text) != 0;
}

// A value without a key of the enumeration falls back to the given key.
template <typename Enum> Enum toEnum(const QString& text, Enum outOfRange)
{
    const int value = toU16(text);
    return QMetaEnum::fromType<Enum>().valueToKey(value) ? Enum(value) : outOfRange;
}

QString number(qint64 value)
{
    return QString::number(value);
}

} // namespace

QString GnxLink::bandDescription(OrviaBand_t band)
{
    static const QStringList descriptions{
        QStringLiteral("B1: 401.610 MHz to 401.690 MHz (A2, A3, ZE-A3)"),
        QStringLiteral("B2: 401.530 MHz to 401.610 MHz (HDA4)"),
        QStringLiteral("B3: 401.460 MHz to 401.540 MHz (HDA4)"),
        QStringLiteral("B4: 401.390 MHz to 401.470 MHz (HDA4)"),
        QStringLiteral("B5: 401.310 MHz to 401.390 MHz (A2, A3, ZE-A3, VLD-A4)"),
        QStringLiteral("B6: 401.110 MHz to 401.190 MHz (A2, A3, ZE-A3, VLD-A4)"),
        QStringLiteral("B7: 401.010 MHz to 401.090 MHz (A2, A3, ZE-A3)"),
        QStringLiteral("B8: 399.970 MHz to 400.050 MHz (A2, A3, ZE-A3)"),
        QStringLiteral("B9: 399.900 MHz to 399.980 MHz (A2, A3, ZE-A3)"),
    };
    return descriptions.value(int(band));
}

const QMap<int, QStringList>& GnxLink::platformTitles()
{
    static const QMap<int, QStringList> titles{
        {GNX_V1,
         {QStringLiteral("Orvia ID"), QStringLiteral("Label"), QStringLiteral("GPS Format Name"),
          QStringLiteral("Repetition period"), QStringLiteral("Mean Direction Values")}},
        {GNX_V2,
         {QStringLiteral("Orvia ID"), QStringLiteral("Label"), QStringLiteral("GPS Format Name"),
          QStringLiteral("Repetition period"), QStringLiteral("Orvia Band"), QStringLiteral("Modulation"),
          QStringLiteral("Frequency Mode"), QStringLiteral("Narrow Mode Frequency")}},
    };
    return titles;
}

// --- identification and status -------------------------------------------------------------

GnxLink::GnxDeviceInfo GnxLink::readDeviceInfo()
{
    GnxDeviceInfo info;
    sendRequestAndCheck(CMD_TEST, 0, {}, {2, 6, 8});
    const QStringList test = replyValues_;

    if (test.size() == 2) {
        version_ = GNX_V1; // this generation does not report its mode
    } else if (test.size() == 6) {
        version_ = GNX_V2;
        if (test.value(4) != QLatin1String("BL"))
            throw MRL::Utils::Exception(QStringLiteral("Unknown mode, should be BL"), 2);
        // The bootloader answers nothing else.
        info.version = version_;
        info.mode = GNX_BL;
        info.bootloaderVersion = test.value(5);
        info.serialNumberPart1 = kUnknown;
        info.serialNumberPart2 = kUnknown;
        info.applicationVersion = kUnknown;
        info.fpgaVersion = kUnknown;
        info.band = ORVIABAND_INVALID;
        return info;
    } else {
        version_ = GNX_V2;
        if (test.value(4) != QLatin1String("APP"))
            throw MRL::Utils::Exception(QStringLiteral("Unknown mode, should be APP"), 2);
        info.mode = GNX_APP;
    }
    info.version = version_;
    const bool v1 = version_ == GNX_V1;

    sendRequestAndCheck(CMD_GSN, 0, {}, {v1 ? 1 : 2});
    if (v1) {
        const QStringList parts = replyValues_.value(0).split(QLatin1Char('-'));
        info.serialNumberPart1 = parts.value(0).rightJustified(4, QLatin1Char('0'));
        info.serialNumberPart2 = parts.value(1);
    } else {
        info.serialNumberPart1 = replyValues_.value(0).rightJustified(4, QLatin1Char('0'));
        info.serialNumberPart2 = replyValues_.value(1);
    }
    serialNumber_ = info.serialNumberPart1;

    sendRequestAndCheck(CMD_LIG, 0, {}, {v1 ? 15 : 16});
    const QStringList status = replyValues_;
    const quint16 flags = toU16(status.value(0));
    info.statusBit0 = flags & 0x1;
    info.statusBit1 = flags & 0x2;
    info.latitude = double(toSigned(status.value(1))) / 60000.0;
    info.longitude = double(toSigned(status.value(2))) / 60000.0;
    info.direction = toU16(status.value(3));
    info.voltage = double(toU16(status.value(4))) / 1000.0;
    info.temperature = toU16(status.value(5));
    // The versions follow the clock; GNX234 puts its band first.
    const int versions = v1 ? 12 : 13;
    info.band = v1 ? ORVIABAND_B1 : toEnum(status.value(12), ORVIABAND_INVALID);
    info.applicationVersion = status.value(versions);
    info.bootloaderVersion = status.value(versions + 1);
    info.fpgaVersion = status.value(versions + 2);
    return info;
}

// --- software setup ------------------------------------------------------------------------

GnxLink::SetupSoftware GnxLink::getSetupSoftware()
{
    const bool v1 = version_ == GNX_V1;
    const int count = v1 ? 12 : 14;
    sendRequestAndCheck(CMD_SETUPSW, count);
    const QStringList r = replyValues_;

    SetupSoftware setup;
    setup.audio = toBool(r.value(0));
    setup.backlight = toBool(r.value(1));
    setup.contrast = toU16(r.value(2));
    setup.gpsAcquisition = toBool(r.value(3));
    setup.coordType = toEnum(r.value(4), COORDTYPE_DEG);
    setup.distType = toEnum(r.value(5), DISTTYPE_KM);
    setup.directionOffset = toU16(r.value(6));
    const MRL::Utils::DateTime date =
        MRL::Utils::DateTime::fromUtc(2000 + toU16(r.value(7)), toU16(r.value(8)), toU16(r.value(9)),
                                      toU16(r.value(10)), toU16(r.value(11)), 0);
    setup.mjd = date.mjd();
    setup.secondsOfDay = date.secondsOfDay();
    if (!v1) {
        setup.band = toEnum(r.value(12), ORVIABAND_INVALID);
        setup.allToFavorites = toBool(r.value(13));
    }
    return setup;
}

void GnxLink::setSetupSoftware(const SetupSoftware& setup)
{
    const bool v1 = version_ == GNX_V1;
    QStringList params{number(setup.audio),          number(setup.backlight), number(setup.contrast),
                       number(setup.gpsAcquisition), number(setup.coordType), number(setup.distType),
                       number(setup.directionOffset)};
    // Empty date and time: the device keeps its clock.
    for (int i = 0; i < 5; ++i)
        params.append(QString());
    if (!v1)
        params << number(setup.band) << number(setup.allToFavorites);
    sendRequestAndCheck(CMD_SETUPSW, int(params.size()), params);
}

void GnxLink::setTime(quint64 mjd, double secondsOfDay)
{
    const bool v1 = version_ == GNX_V1;
    const QDateTime utc = MRL::Utils::DateTime::fromMjd(mjd, secondsOfDay).toQDateTime();
    QStringList params(7, QString());
    params << number(utc.date().year() - 2000) << number(utc.date().month()) << number(utc.date().day())
           << number(utc.time().hour()) << number(utc.time().minute());
    if (!v1)
        params << QString() << QString();
    sendRequestAndCheck(CMD_SETUPSW, int(params.size()), params);
}

// --- hardware setup ------------------------------------------------------------------------

GnxLink::SetupHardware GnxLink::getSetupHardware()
{
    const bool v1 = version_ == GNX_V1;
    sendRequestAndCheck(CMD_SETUPHW, v1 ? 6 : 7);
    const QStringList r = replyValues_;

    SetupHardware setup;
    setup.directionMode = toEnum(r.value(0), DIRECTIONMODE_Goniometry);
    setup.antennaPosition = toEnum(r.value(1), ANTENNAPOSITION_High);
    setup.cableLength = qint32(r.value(2).trimmed().toInt());
    setup.antennaType = toEnum(r.value(3), ANTENNATYPE_ANX234);
    setup.compassMode = toEnum(r.value(4), COMPASSMODE_Undefined);
    setup.declination = r.value(5);
    setup.proximityMode = v1 ? false : toBool(r.value(6));
    return setup;
}

void GnxLink::setSetupHardware(const SetupHardware& setup)
{
    const bool v1 = version_ == GNX_V1;
    QStringList params{number(setup.directionMode), number(setup.antennaPosition), number(setup.cableLength),
                       number(setup.antennaType),   number(setup.compassMode),     setup.declination};
    if (!v1)
        params << number(setup.proximityMode);
    sendRequestAndCheck(CMD_SETUPHW, int(params.size()), params);
}

} // namespace OrviaGonioManager::Com
