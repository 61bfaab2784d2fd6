#include "com/GnxFrame.h"

#include <QTest>

using namespace OrviaGonioManager::Com;
using Decoded = GnxFrame::DecodedLine;

class TestGnxFrame : public QObject
{
    Q_OBJECT

private slots:
    void encode_data()
    {
        QTest::addColumn<int>("cmd");
        QTest::addColumn<QStringList>("params");
        QTest::addColumn<QByteArray>("bytes");

        QTest::newRow("test") << int(GnxLink::CMD_TEST) << QStringList() << QByteArray("$TEST*3C\r\n");
        QTest::newRow("keep-alive is a TEST")
            << int(GnxLink::CMD_KEEPALIVE_INTERNAL) << QStringList() << QByteArray("$TEST*3C\r\n");
        QTest::newRow("read with empty parameters") << int(GnxLink::CMD_SETUPSW) << QStringList(12, QString())
                                                    << QByteArray("$SETUPSW,,,,,,,,,,,,*69\r\n");
        QTest::newRow("parameters") << int(GnxLink::CMD_SETUPHW)
                                    << QStringList{"0", "1", "25", "0", "2", "1.5"}
                                    << QByteArray("$SETUPHW,0,1,25,0,2,1.5*5C\r\n");
        QTest::newRow("checksum below 0x10 keeps its zero")
            << int(GnxLink::CMD_IP) << QStringList{"3", ""} << QByteArray("$IP,3,*00\r\n");
        QTest::newRow("checksum 0x0A")
            << int(GnxLink::CMD_IP) << QStringList{"9", ""} << QByteArray("$IP,9,*0A\r\n");
        QTest::newRow("ack command") << int(GnxLink::CMD_ATBL) << QStringList() << QByteArray("$ATBL*31\r\n");
    }
    void encode()
    {
        QFETCH(int, cmd);
        QFETCH(QStringList, params);
        QFETCH(QByteArray, bytes);
        QCOMPARE(GnxFrame::encode(GnxLink::GnxCmd_t(cmd), params), bytes);
    }

    void checksum_data()
    {
        QTest::addColumn<QString>("text");
        QTest::addColumn<int>("sum");

        QTest::newRow("star included") << QStringLiteral("TEST*") << 0x3C;
        QTest::newRow("above U+00FF left out") << QStringLiteral("TE\u20ACST\u4E2D*") << 0x3C;
        QTest::newRow("Latin-1 counted") << QStringLiteral("\u00E9") << 0xE9;
        QTest::newRow("empty") << QString() << 0;
    }
    void checksum()
    {
        QFETCH(QString, text);
        QFETCH(int, sum);
        QCOMPARE(int(GnxFrame::checksum(text)), sum);
    }

    void checksumText()
    {
        QCOMPARE(GnxFrame::checksumText(0x05), QStringLiteral("05"));
        QCOMPARE(GnxFrame::checksumText(0xAB), QStringLiteral("AB"));
    }

    void mnemonic()
    {
        QCOMPARE(GnxFrame::mnemonic(GnxLink::CMD_KEEPALIVE_INTERNAL), QStringLiteral("TEST"));
        QCOMPARE(GnxFrame::mnemonic(GnxLink::CMD_SETUPSW), QStringLiteral("SETUPSW"));
        QCOMPARE(GnxFrame::mnemonic(GnxLink::CMD_REBO), QStringLiteral("REBO"));
        QCOMPARE(GnxFrame::commandLine(GnxLink::CMD_DFP, {"3"}), QStringLiteral("DFP,3"));
        QCOMPARE(GnxFrame::seal(QStringLiteral("DFP,3")), QStringLiteral("DFP,3*67"));
    }

    void decode_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("mnemonic");
        QTest::addColumn<QStringList>("params");

        QTest::newRow("reply") << "$GSN,12-345*40" << int(Decoded::Ok) << "GSN" << QStringList{"12-345"};
        QTest::newRow("no parameters") << "$GSN*70" << int(Decoded::Ok) << "GSN" << QStringList();
        QTest::newRow("empty fields kept")
            << "$SETUPSW,,,,,,,,,,,,*69" << int(Decoded::Ok) << "SETUPSW" << QStringList(12, QString());
        QTest::newRow("empty last field")
            << "$RFP,0,*5E" << int(Decoded::Ok) << "RFP" << QStringList{"0", ""};
        QTest::newRow("lower-case checksum")
            << "$IP,9,*0a" << int(Decoded::Undecodable) << "" << QStringList();
        QTest::newRow("lower-case mnemonic") << "$gsn*70" << int(Decoded::Undecodable) << "" << QStringList();
        QTest::newRow("no dollar") << "GSN*70" << int(Decoded::Undecodable) << "" << QStringList();
        QTest::newRow("no checksum") << "$GSN" << int(Decoded::Undecodable) << "" << QStringList();
        QTest::newRow("trailing text") << "$GSN*70 x" << int(Decoded::Undecodable) << "" << QStringList();
        QTest::newRow("bad checksum")
            << "$GSN,12-345*41" << int(Decoded::BadChecksum) << "GSN" << QStringList{"12-345"};
        QTest::newRow("GNX134 NPR quirk")
            << "$NPR,23,5,12,10,20,30,1234567,401650000,3,120,-110,2700000,120000,45,32,AB12CD*56"
            << int(Decoded::AcceptedNprChecksum) << "NPR"
            << QStringList{"23", "5",   "12",   "10",      "20",     "30", "1234567", "401650000",
                           "3",  "120", "-110", "2700000", "120000", "45", "32",      "AB12CD"};
        QTest::newRow("NPR correct")
            << "$NPR,23,5,12,10,20,30,1234567,401650000,3,120,-110,2700000,120000,45,32,"
               "AB12CD*7B"
            << int(Decoded::Ok) << "NPR"
            << QStringList{"23", "5",   "12",   "10",      "20",     "30", "1234567", "401650000",
                           "3",  "120", "-110", "2700000", "120000", "45", "32",      "AB12CD"};
        QTest::newRow("NPRF gets no second check")
            << "$NPRF,3,23,5,12,10,20,30,1234567,401650000,3,120,0,-110,60,2700000,120000,45,32,AB12CD*39"
            << int(Decoded::BadChecksum) << "NPRF" << QStringList();
    }
    void decode()
    {
        QFETCH(QString, line);
        QFETCH(int, status);
        QFETCH(QString, mnemonic);
        QFETCH(QStringList, params);

        const Decoded decoded = GnxFrame::decodeLine(line);
        QCOMPARE(int(decoded.status), status);
        QCOMPARE(decoded.mnemonic, mnemonic);
        if (!params.isEmpty() || status == int(Decoded::Ok))
            QCOMPARE(decoded.params, params);
    }

    void messages_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<QString>("error");

        QTest::newRow("reply") << "$GSN,12-345*41"
                               << "Bad checksum in GNX reply \"$GSN,12-345*41\": 41 vs 40.";
        QTest::newRow("one digit") << "$GSN*7"
                                   << "Bad checksum in GNX reply \"$GSN*7\": 07 vs 70.";
        QTest::newRow("three digits") << "$GSN*170"
                                      << "Bad checksum in GNX reply \"$GSN*170\": 170 vs 70.";
        QTest::newRow("NPRF") << "$NPRF,1*00"
                              << "Bad checksum in GNX reply \"$NPRF,1*00\": 00 vs 3D.";
    }
    void messages()
    {
        QFETCH(QString, line);
        QFETCH(QString, error);
        const Decoded decoded = GnxFrame::decodeLine(line);
        QCOMPARE(int(decoded.status), int(Decoded::BadChecksum));
        QCOMPARE(GnxFrame::badChecksumError(line, decoded), error);
        QCOMPARE(GnxFrame::undecodableWarning(QStringLiteral("x")),
                 QStringLiteral("Unable to decode GNX message \"x\"."));
        QCOMPARE(GnxFrame::nprChecksumWarning(QStringLiteral("NPR")),
                 QStringLiteral("Bad checksum detected on NPR frame."));
    }
};

QTEST_GUILESS_MAIN(TestGnxFrame)
#include "tst_gnxframe.moc"
