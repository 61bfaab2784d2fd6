#include "NprSamples.h"
#include "com/GnxFrame.h"
#include "com/NprCodec.h"
#include "mrl/utils/DateTime.h"
#include "mrl/utils/Exception.h"

#include <QTest>

using namespace OrviaGonioManager::Com;
using MRL::Utils::DateTime;

using namespace NprSamples;

namespace {

QStringList fields(const QString& line)
{
    return line.split(QLatin1Char(','));
}

} // namespace

class TestNprCodec : public QObject
{
    Q_OBJECT

private slots:
    // Lines as the two generations send them, field by field; each also formats back to itself.
    void parseAndFormat_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<GnxLink::GnxMessageType_t>("type");
        QTest::addColumn<QString>("line");
        QTest::addColumn<OrviaRxMessage_t>("expected");

        for (const Sample& s : samples())
            QTest::newRow(s.name) << s.version << s.type << s.line << s.expected;
    }
    void parseAndFormat()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(GnxLink::GnxMessageType_t, type);
        QFETCH(QString, line);
        QFETCH(OrviaRxMessage_t, expected);

        const OrviaRxMessage_t got = NprCodec::parse(version, type, fields(line));
        compareMessages(got, expected);

        NprCodec::LineOptions options;
        options.layout = version;
        options.slotCount = version == GnxLink::GNX_V1 ? 16 : 64;
        const QString payload = (type == GnxLink::GNXMSG_NPRF ? "NPRF," : "NPR,") + line;
        QCOMPARE(NprCodec::formatLine(got, options), QLatin1Char('$') + GnxFrame::seal(payload));
    }

    void wrongCount_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<GnxLink::GnxMessageType_t>("type");
        QTest::addColumn<int>("count");

        for (const auto version : {GnxLink::GNX_V1, GnxLink::GNX_V2}) {
            for (const auto type : {GnxLink::GNXMSG_NPR, GnxLink::GNXMSG_NPRF}) {
                const int right = NprCodec::parameterCount(version, type);
                for (const int count : {right - 1, right + 1, 0}) {
                    QTest::addRow("V%d %s %d", int(version), type == GnxLink::GNXMSG_NPR ? "NPR" : "NPRF",
                                  count)
                        << version << type << count;
                }
            }
        }
        QTest::newRow("unknown generation") << GnxLink::GNX_UNDEFINEDVERSION << GnxLink::GNXMSG_NPR << 18;
    }
    void wrongCount()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(GnxLink::GnxMessageType_t, type);
        QFETCH(int, count);
        try {
            NprCodec::parse(version, type, QStringList(count, QStringLiteral("1")));
            QFAIL("no exception");
        } catch (const MRL::Utils::Exception& e) {
            QCOMPARE(e.message(), QStringLiteral("Wrong number of parameters in NPR/NPRF message."));
            QCOMPARE(e.severity(), 2);
        }
    }

    void counts()
    {
        QCOMPARE(NprCodec::parameterCount(GnxLink::GNX_V1, GnxLink::GNXMSG_NPR), 17);
        QCOMPARE(NprCodec::parameterCount(GnxLink::GNX_V1, GnxLink::GNXMSG_NPRF), 19);
        QCOMPARE(NprCodec::parameterCount(GnxLink::GNX_V2, GnxLink::GNXMSG_NPR), 18);
        QCOMPARE(NprCodec::parameterCount(GnxLink::GNX_V2, GnxLink::GNXMSG_NPRF), 20);
        QCOMPARE(NprCodec::versionForCount(GnxLink::GNXMSG_NPR, 18), GnxLink::GNX_V2);
        QCOMPARE(NprCodec::versionForCount(GnxLink::GNXMSG_NPRF, 19), GnxLink::GNX_V1);
        QCOMPARE(NprCodec::versionForCount(GnxLink::GNXMSG_NPRF, 18), GnxLink::GNX_UNDEFINEDVERSION);
    }

    // Payload rules: cut to the bit count, identifier byte dropped for 28-bit identifiers unless
    // the extra code is 2 (GNX234 NPR layout: band and extra code before the bit count).
    void payload_data()
    {
        QTest::addColumn<QString>("id");
        QTest::addColumn<QString>("extraCode");
        QTest::addColumn<QString>("bitCount");
        QTest::addColumn<QString>("hex");
        QTest::addColumn<QByteArray>("payload");

        QTest::newRow("cut to whole bytes: 20 bits keep 2") << "ABCDE"
                                                            << "2"
                                                            << "20"
                                                            << "112233" << QByteArray("\x11\x22");
        QTest::newRow("longer text cut") << "ABCDE"
                                         << "2"
                                         << "16"
                                         << "11223344" << QByteArray("\x11\x22");
        QTest::newRow("shorter text kept") << "ABCDE"
                                           << "2"
                                           << "64"
                                           << "1122" << QByteArray("\x11\x22");
        QTest::newRow("28-bit, extra 0: first byte dropped") << "1234567"
                                                             << "0"
                                                             << "24"
                                                             << "671122" << QByteArray("\x11\x22");
        QTest::newRow("28-bit, extra 2: kept") << "1234567"
                                               << "2"
                                               << "24"
                                               << "671122" << QByteArray("\x67\x11\x22");
        QTest::newRow("28-bit, extra 1: dropped") << "1234567"
                                                  << "1"
                                                  << "24"
                                                  << "671122" << QByteArray("\x11\x22");
        QTest::newRow("negative bit count") << "ABCDE"
                                            << "2"
                                            << "-16"
                                            << "1122" << QByteArray();
        QTest::newRow("not hexadecimal") << "ABCDE"
                                         << "2"
                                         << "16"
                                         << "zz" << QByteArray();
        QTest::newRow("28-bit, empty payload") << "1234567"
                                               << "0"
                                               << "0"
                                               << "" << QByteArray();
    }
    void payload()
    {
        QFETCH(QString, id);
        QFETCH(QString, extraCode);
        QFETCH(QString, bitCount);
        QFETCH(QString, hex);
        QFETCH(QByteArray, payload);
        const QStringList params{"24", "1",    "1", "0", "0", "0", id,        "401650000", "0",
                                 "0",  "-100", "0", "0", "0", "0", extraCode, bitCount,    hex};
        QCOMPARE(NprCodec::parse(GnxLink::GNX_V2, GnxLink::GNXMSG_NPR, params).payload.toHex(),
                 payload.toHex());
    }

    void gnx134AlwaysDropsTheIdentifierByte()
    {
        const QStringList params = fields("16,24,1,1,0,0,0,1234567,401650000,0,0,-100,0,0,0,24,671122");
        QCOMPARE(NprCodec::parse(GnxLink::GNX_V1, GnxLink::GNXMSG_NPR, params).payload,
                 QByteArray("\x11\x22"));
    }

    void unparsableFields()
    {
        QStringList params = fields("x,1,2,3,4,5,ABCDE,freq,flags,dir,lvl,lat,lon,gdir,b,e,bits,00");
        const OrviaRxMessage_t m = NprCodec::parse(GnxLink::GNX_V2, GnxLink::GNXMSG_NPR, params);
        // The year alone is unreadable: 2000.
        QCOMPARE(DateTime::fromMjd(m.mjd, m.secondsOfDay).toQDateTime(), utc(2000, 1, 2, 3, 4, 5));
        QCOMPARE(m.frequency, 0u);
        QCOMPARE(m.flagBit0 || m.flagBit1 || m.flagBit2, false);
        QCOMPARE(m.direction, quint16(0));
        QCOMPARE(m.level, 0);
        QCOMPARE(m.gnxLatitude, 0.0);
        QCOMPARE(m.gnxDirection, 0u);
        QCOMPARE(m.band, qint16(0));
        QCOMPARE(m.payload, QByteArray());

        params = fields("abc,24,6,1,8,9,10,ABCDE,1,0,0,0,0,0,0,0,0,8,00");
        QCOMPARE(NprCodec::parse(GnxLink::GNX_V1, GnxLink::GNXMSG_NPRF, params).platformIndex, 0);
    }

    void indexDecidesTheLineKind_data()
    {
        QTest::addColumn<int>("layout");
        QTest::addColumn<int>("slotCount");
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("start");

        QTest::newRow("favourite") << 2 << 64 << 7 << "$NPRF,7,24,";
        QTest::newRow("no index") << 2 << 64 << -1 << "$NPR,24,";
        QTest::newRow("GNX134 index equal to the slot count") << 1 << 16 << 16 << "$NPR,16,24,";
        QTest::newRow("GNX134 favourite 0") << 1 << 16 << 0 << "$NPRF,0,24,";
        QTest::newRow("not connected: no slots") << 1 << 0 << 16 << "$NPRF,16,24,";
    }
    void indexDecidesTheLineKind()
    {
        QFETCH(int, layout);
        QFETCH(int, slotCount);
        QFETCH(int, index);
        QFETCH(QString, start);
        OrviaRxMessage_t m =
            message(index, utc(2024, 1, 1, 0, 0, 0), "ABCDE", 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, {});
        const QString line = NprCodec::formatLine(m, {GnxLink::GnxVersion_t(layout), slotCount, false});
        QVERIFY2(line.startsWith(start), qPrintable(line));
    }

    // The identifier's byte goes back in front whatever the extra code says.
    void formatterRestoresIdentifierByte()
    {
        OrviaRxMessage_t m = message(-1, utc(2024, 1, 1, 0, 0, 0), "1234567", 1, 0, 0, 0, 3, 2, 0, 0, 0, 0, 0,
                                     QByteArray("\x11\x22"));
        const QString line = NprCodec::formatLine(m, {GnxLink::GNX_V2, 64, false});
        QVERIFY2(line.contains(QLatin1String(",3,2,24,671122*")), qPrintable(line));
    }

    // Formatting in the other generation's layout drops or adds the generation-specific fields.
    void layoutFollowsTheOption()
    {
        const OrviaRxMessage_t m = NprCodec::parse(
            GnxLink::GNX_V2, GnxLink::GNXMSG_NPRF,
            fields("3,24,2,29,6,7,8,ABCDE,401310000,1,45,5,2,-100,300,60000,-60000,359,16,C0FF"));
        QCOMPARE(NprCodec::formatLine(m, {GnxLink::GNX_V1, 16, false}),
                 QLatin1Char('$') +
                     GnxFrame::seal("NPRF,3,24,2,29,6,7,8,ABCDE,401310000,1,45,0,-100,300,60000,"
                                    "-60000,359,16,C0FF"));
    }

    // The GNX134 short checksum: over the line without its last two payload digits and the "*".
    void gnx134ChecksumErrorMode_data()
    {
        QTest::addColumn<int>("layout");
        QTest::addColumn<bool>("keep");
        QTest::addColumn<bool>("shortChecksum");

        QTest::newRow("GNX134, kept") << 1 << true << true;
        QTest::newRow("GNX134, not kept") << 1 << false << false;
        QTest::newRow("GNX234 layout ignores it") << 2 << true << false;
    }
    void gnx134ChecksumErrorMode()
    {
        QFETCH(int, layout);
        QFETCH(bool, keep);
        QFETCH(bool, shortChecksum);
        const QString body = "NPR,16,24,3,15,12,30,45,1A2B3,401650000,3,123,-120,2700000,-60000,270,64,"
                             "0102030405060708";
        const OrviaRxMessage_t m = NprCodec::parse(GnxLink::GNX_V1, GnxLink::GNXMSG_NPR, fields(body).mid(1));
        const QString line = NprCodec::formatLine(m, {GnxLink::GnxVersion_t(layout), 16, keep});
        const QString text = line.mid(1, line.size() - 3); // without "$" and the digits
        const quint8 full = GnxFrame::checksum(text);
        const quint8 shortSum = GnxFrame::checksum(QStringView(text).chopped(3));
        QCOMPARE(line.right(2), GnxFrame::checksumText(shortChecksum ? shortSum : full));
        QCOMPARE(GnxFrame::decodeLine(line).status,
                 shortChecksum ? GnxFrame::DecodedLine::AcceptedNprChecksum : GnxFrame::DecodedLine::Ok);
    }

    void angleRoundsToTheDeviceUnit()
    {
        OrviaRxMessage_t m = message(-1, utc(2024, 1, 1, 0, 0, 0), "ABCDE", 1, 0, 0, 0, 0, 0, 0, 0,
                                     2707380 / 60000.0, -2707379 / 60000.0, 0, {});
        const QString line = NprCodec::formatLine(m, {GnxLink::GNX_V2, 64, false});
        QVERIFY2(line.contains(QLatin1String(",2707380,-2707379,")), qPrintable(line));
    }
};

QTEST_GUILESS_MAIN(TestNprCodec)
#include "tst_nprcodec.moc"
