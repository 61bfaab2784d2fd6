#pragma once

// Received-message lines of both generations with the record each one stands for.

#include "com/GnxLink.h"
#include "mrl/utils/DateTime.h"

#include <QDateTime>
#include <QTest>

namespace NprSamples {

using OrviaGonioManager::Com::GnxLink;
using OrviaGonioManager::Com::OrviaRxMessage_t;

inline QDateTime utc(int y, int mo, int d, int h, int mi, int s)
{
    return QDateTime(QDate(y, mo, d), QTime(h, mi, s), Qt::UTC);
}

inline OrviaRxMessage_t message(qint32 index, const QDateTime& at, const QString& id, quint32 frequency,
                                int flags, quint16 direction, qint16 v1Flash, qint16 band, qint16 extraCode,
                                qint32 level, quint32 period, double lat, double lon, quint32 gnxDirection,
                                const QByteArray& payload)
{
    OrviaRxMessage_t m;
    m.platformIndex = index;
    const MRL::Utils::DateTime t(at);
    m.mjd = t.mjd();
    m.secondsOfDay = t.secondsOfDay();
    m.platformId = id;
    m.frequency = frequency;
    m.flagBit2 = flags & 4;
    m.flagBit1 = flags & 2;
    m.flagBit0 = flags & 1;
    m.direction = direction;
    m.v1FlashValue = v1Flash;
    m.band = band;
    m.extraCode = extraCode;
    m.level = level;
    m.period = period;
    m.gnxLatitude = lat;
    m.gnxLongitude = lon;
    m.gnxDirection = gnxDirection;
    m.payload = payload;
    return m;
}

struct Sample
{
    const char* name;
    GnxLink::GnxVersion_t version;
    GnxLink::GnxMessageType_t type;
    QString line; // payload after the mnemonic
    OrviaRxMessage_t expected;
};

inline QList<Sample> samples()
{
    return {
        {"GNX134 NPR, index is the slot count", GnxLink::GNX_V1, GnxLink::GNXMSG_NPR,
         "16,24,3,15,12,30,45,1A2B3,401650000,3,123,-120,2700000,-60000,270,64,0102030405060708",
         message(16, utc(2024, 3, 15, 12, 30, 45), "1A2B3", 401650000, 3, 123, 0, 0, 0, -120, 0, 45.0, -1.0,
                 270, QByteArray::fromHex("0102030405060708"))},
        {"GNX134 NPRF, 28-bit identifier loses the identifier byte", GnxLink::GNX_V1, GnxLink::GNXMSG_NPRF,
         "5,23,12,31,23,59,59,1ABCDEF,401620500,5,359,271,-95,90,2610000,30000,12,40,EF0A0B0C0D",
         message(5, utc(2023, 12, 31, 23, 59, 59), "1ABCDEF", 401620500, 5, 359, 271, 0, 0, -95, 90, 43.5,
                 0.5, 12, QByteArray::fromHex("0A0B0C0D"))},
        {"GNX234 NPR has no index", GnxLink::GNX_V2, GnxLink::GNXMSG_NPR,
         "25,1,2,0,0,0,ABCDE,401640000,4,7,-110,-2700000,7200000,180,4,2,32,DEADBEEF",
         message(-1, utc(2025, 1, 2, 0, 0, 0), "ABCDE", 401640000, 4, 7, 0, 4, 2, -110, 0, -45.0, 120.0, 180,
                 QByteArray::fromHex("DEADBEEF"))},
        {"GNX234 NPR, 28-bit identifier with extra code 0", GnxLink::GNX_V2, GnxLink::GNXMSG_NPR,
         "25,1,2,0,0,0,ABCDEF1,401640000,4,7,-110,-2700000,7200000,180,4,0,40,F1DEADBEEF",
         message(-1, utc(2025, 1, 2, 0, 0, 0), "ABCDEF1", 401640000, 4, 7, 0, 4, 0, -110, 0, -45.0, 120.0,
                 180, QByteArray::fromHex("DEADBEEF"))},
        {"GNX234 NPRF, 28-bit identifier with extra code 0", GnxLink::GNX_V2, GnxLink::GNXMSG_NPRF,
         "63,24,2,29,6,7,8,FEDCBA9,401310000,1,45,5,0,-100,300,60001,-1,359,24,A9C0FF",
         message(63, utc(2024, 2, 29, 6, 7, 8), "FEDCBA9", 401310000, 1, 45, 0, 5, 0, -100, 300,
                 60001 / 60000.0, -1 / 60000.0, 359, QByteArray::fromHex("C0FF"))},
    };
}

inline QString mnemonic(GnxLink::GnxMessageType_t type)
{
    return type == GnxLink::GNXMSG_NPRF ? QStringLiteral("NPRF") : QStringLiteral("NPR");
}

inline void compareMessages(const OrviaRxMessage_t& got, const OrviaRxMessage_t& want)
{
    QCOMPARE(got.platformIndex, want.platformIndex);
    QCOMPARE(got.mjd, want.mjd);
    QCOMPARE(got.secondsOfDay, want.secondsOfDay);
    QCOMPARE(got.platformId, want.platformId);
    QCOMPARE(got.frequency, want.frequency);
    QCOMPARE(got.flagBit2, want.flagBit2);
    QCOMPARE(got.flagBit1, want.flagBit1);
    QCOMPARE(got.flagBit0, want.flagBit0);
    QCOMPARE(got.direction, want.direction);
    QCOMPARE(got.v1FlashValue, want.v1FlashValue);
    QCOMPARE(got.band, want.band);
    QCOMPARE(got.extraCode, want.extraCode);
    QCOMPARE(got.level, want.level);
    QCOMPARE(got.period, want.period);
    QCOMPARE(got.gnxLatitude, want.gnxLatitude);
    QCOMPARE(got.gnxLongitude, want.gnxLongitude);
    QCOMPARE(got.gnxDirection, want.gnxDirection);
    QCOMPARE(got.payload.toHex(), want.payload.toHex());
}

} // namespace NprSamples

Q_DECLARE_METATYPE(OrviaGonioManager::Com::GnxLink::GnxVersion_t)
Q_DECLARE_METATYPE(OrviaGonioManager::Com::GnxLink::GnxMessageType_t)
