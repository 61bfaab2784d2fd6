#include "com/PlatformCodec.h"
#include "mrl/utils/Exception.h"

#include <QTest>

using namespace OrviaGonioManager::Com;
using OrviaGonioManager::Utils::GpsFormat;
using OrviaGonioManager::Utils::GpsFormat_t;

namespace {

GpsFormat_t sampleFormat()
{
    GpsFormat_t f;
    f.name = QStringLiteral("ARGOS-GPS");
    f.payloadLength = 248;
    f.latitude = {0, 1, 1, 21, 1, 10000, 0, 1, 0};
    f.longitude = {22, 1, 23, 22, 1, 10000, -5, 2, 1};
    f.encryptionType = GpsFormat::ENCRYPTIONTYPE_2;
    f.polynom = 0x1021;
    f.crcPos = 200;
    f.crcLen = 16;
    f.dataPos = 8;
    f.dataLen = 192;
    f.indexPos = 45;
    f.gpsCheck = true;
    return f;
}

GnxLink::PlatformInfo samplePlatform(GpsFormat_t* format)
{
    GnxLink::PlatformInfo p;
    p.index = 9;
    p.id = QStringLiteral("1A2B3");
    p.label = QStringLiteral("Buoy 9");
    p.repetitionPeriod = 90;
    p.band = 4;
    p.modulation = 2;
    p.frequencyMode = 0;
    p.narrowFrequency = 401645000;
    p.meanDirectionValues = 5;
    p.gpsFormat = format;
    return p;
}

QStringList csv(const char* text)
{
    return QString::fromLatin1(text).split(QLatin1Char(','));
}

} // namespace

Q_DECLARE_METATYPE(GnxLink::GnxVersion_t)

class TestPlatformCodec : public QObject
{
    Q_OBJECT

private slots:
    void writeParameters_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<bool>("withFormat");
        QTest::addColumn<bool>("recreate");
        QTest::addColumn<QStringList>("expected");

        QTest::newRow("GNX134 without format")
            << GnxLink::GNX_V1 << false << false
            << csv("9,,1,1A2B3,Buoy 9,0,,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,90,5,0,0,0,0,0,1");
        QTest::newRow("GNX234 without format, re-created")
            << GnxLink::GNX_V2 << false << true
            << csv("9,1,1,1A2B3,Buoy "
                   "9,0,,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,0,90,4,2,0,401645000,0,0,0,0,0,1");
        QTest::newRow("GNX134 with format")
            << GnxLink::GNX_V1 << true << false
            << csv("9,,1,1A2B3,Buoy "
                   "9,1,ARGOS-GPS,0,1,1,21,1,10000,0,1,0,22,1,23,22,1,10000,-5,2,1,248,45,1,90,5,"
                   "2,1021,200,16,8,192");
        QTest::newRow("GNX234 with format")
            << GnxLink::GNX_V2 << true << false
            << csv("9,,1,1A2B3,Buoy "
                   "9,1,ARGOS-GPS,0,1,1,21,1,10000,0,1,0,22,1,23,22,1,10000,-5,2,1,248,45,1,90,4,2,"
                   "0,401645000,2,1021,200,16,8,192");
    }
    void writeParameters()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(bool, withFormat);
        QFETCH(bool, recreate);
        QFETCH(QStringList, expected);
        GpsFormat_t format = sampleFormat();
        const QStringList params =
            PlatformCodec::writeParameters(samplePlatform(withFormat ? &format : nullptr), version, recreate);
        QCOMPARE(params, expected);
        QCOMPARE(int(params.size()), PlatformCodec::parameterCount(version));
    }

    void identifierType_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("type");
        QTest::newRow("20-bit") << "ABCDE"
                                << "1";
        QTest::newRow("28-bit") << "ABCDEF1"
                                << "2";
        QTest::newRow("6 characters") << "ABCDEF"
                                      << "2";
        QTest::newRow("4 characters") << "ABCD"
                                      << "2";
        QTest::newRow("empty") << ""
                               << "2";
    }
    void identifierType()
    {
        QFETCH(QString, id);
        QFETCH(QString, type);
        GnxLink::PlatformInfo p = samplePlatform(nullptr);
        p.id = id;
        const QStringList params = PlatformCodec::writeParameters(p, GnxLink::GNX_V2, false);
        QCOMPARE(params[2], type);
        QCOMPARE(params[3], id);
    }

    void dataLength_data()
    {
        QTest::addColumn<int>("dataLen");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("0") << 0 << false;
        QTest::newRow("1") << 1 << true;
        QTest::newRow("254") << 254 << true;
        QTest::newRow("255") << 255 << false;
        QTest::newRow("negative") << -1 << false;
    }
    void dataLength()
    {
        QFETCH(int, dataLen);
        QFETCH(bool, accepted);
        GpsFormat_t format = sampleFormat();
        format.dataLen = dataLen;
        try {
            PlatformCodec::checkGpsFormat(&format);
            QVERIFY(accepted);
        } catch (const MRL::Utils::Exception& e) {
            QVERIFY(!accepted);
            QCOMPARE(e.message(),
                     QStringLiteral("Unable to set platform info, data length is not between 1 and 254 (%1)")
                         .arg(dataLen));
            QCOMPARE(e.severity(), 2);
        }
    }
    void noFormatNoDataLengthCheck() { PlatformCodec::checkGpsFormat(nullptr); }

    void textsThatBreakTheLine_data()
    {
        QTest::addColumn<QString>("label");
        QTest::addColumn<bool>("accepted");
        QTest::newRow("comma") << "Buoy 9, north" << false;
        QTest::newRow("star") << "A*B" << false;
        QTest::newRow("dollar") << "$A" << false;
        QTest::newRow("line feed") << "A\nB" << false;
        QTest::newRow("accents and spaces") << QStringLiteral("Bou\u00e9e n\u00b09 -_.") << true;
    }
    void textsThatBreakTheLine()
    {
        QFETCH(QString, label);
        QFETCH(bool, accepted);
        GnxLink::PlatformInfo p = samplePlatform(nullptr);
        p.label = label;
        bool thrown = false;
        try {
            PlatformCodec::checkTexts(p);
        } catch (const MRL::Utils::Exception& e) {
            thrown = true;
            QVERIFY(e.message().contains(label));
        }
        QCOMPARE(thrown, !accepted);
    }

    void readAndClearForms()
    {
        QCOMPARE(PlatformCodec::readParameters(3, GnxLink::GNX_V1),
                 QStringList{"3"} + QStringList(35, QString()));
        QCOMPARE(PlatformCodec::readParameters(63, GnxLink::GNX_V2),
                 QStringList{"63"} + QStringList(38, QString()));
        QCOMPARE(PlatformCodec::clearParameters(2, GnxLink::GNX_V2),
                 (QStringList{"2", "0"} + QStringList(37, QString())));
        QCOMPARE(PlatformCodec::clearParameters(15, GnxLink::GNX_V1),
                 (QStringList{"15", "0"} + QStringList(34, QString())));
        QCOMPARE(PlatformCodec::parameterCount(GnxLink::GNX_UNDEFINEDVERSION), 0);
    }

    // A read answer has the write's layout: what was written reads back unchanged.
    void parseReply_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<bool>("withFormat");
        for (const auto version : {GnxLink::GNX_V1, GnxLink::GNX_V2}) {
            QTest::addRow("V%d with format", int(version)) << version << true;
            QTest::addRow("V%d without format", int(version)) << version << false;
        }
    }
    void parseReply()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(bool, withFormat);
        GpsFormat_t format = sampleFormat();
        const GnxLink::PlatformInfo written = samplePlatform(withFormat ? &format : nullptr);
        const PlatformCodec::Slot slot =
            PlatformCodec::parseReply(PlatformCodec::writeParameters(written, version, false), version);

        const GnxLink::PlatformInfo& p = slot.platform;
        QCOMPARE(p.index, written.index);
        QCOMPARE(p.id, written.id);
        QCOMPARE(p.label, written.label);
        QCOMPARE(p.repetitionPeriod, written.repetitionPeriod);
        const bool v2 = version == GnxLink::GNX_V2;
        QCOMPARE(p.band, v2 ? written.band : 0);
        QCOMPARE(p.modulation, v2 ? written.modulation : 0);
        QCOMPARE(p.frequencyMode, v2 ? written.frequencyMode : 0);
        QCOMPARE(p.narrowFrequency, v2 ? written.narrowFrequency : 0);
        QCOMPARE(p.meanDirectionValues, v2 ? 0 : written.meanDirectionValues);
        QCOMPARE(p.gpsFormat, nullptr);
        QCOMPARE(slot.hasGpsFormat, withFormat);
        if (withFormat) {
            QVERIFY(GpsFormat::compareGpsFormats(slot.gpsFormat, format, false));
            QCOMPARE(slot.gpsFormat.origin, GpsFormat::ORIGIN_GNX);
        }
    }

    void parseFreeSlot()
    {
        const PlatformCodec::Slot slot =
            PlatformCodec::parseReply(PlatformCodec::readParameters(12, GnxLink::GNX_V2), GnxLink::GNX_V2);
        QCOMPARE(slot.platform.index, 12);
        QVERIFY(slot.platform.id.isEmpty());
        QVERIFY(!slot.hasGpsFormat);
    }

    void parseIsLenient()
    {
        QStringList reply = PlatformCodec::writeParameters(samplePlatform(nullptr), GnxLink::GNX_V2, false);
        reply[28] = QStringLiteral("x");  // repetition period
        reply[34] = QStringLiteral("zz"); // polynom
        reply[32] = QStringLiteral("1e3");
        const PlatformCodec::Slot slot = PlatformCodec::parseReply(reply, GnxLink::GNX_V2);
        QCOMPARE(slot.platform.repetitionPeriod, 0);
        QCOMPARE(slot.platform.narrowFrequency, 0);
        QCOMPARE(slot.gpsFormat.polynom, quint16(0));
        QCOMPARE(slot.gpsFormat.dataLen, 1);
    }
};

QTEST_GUILESS_MAIN(TestPlatformCodec)
#include "tst_platformcodec.moc"
