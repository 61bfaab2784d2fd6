#include "com/GnxFrame.h"

#include <QTest>

using namespace OrviaGonioManager::Com;
using Decoded = GnxFrame::DecodedLine;

class TestGnxFrame : public QObject
{
    Q_OBJECT

private slots:
    void encode()
    {
        QCOMPARE(GnxFrame::encode(GnxLink::CMD_TEST), QByteArray("$TEST*3C\r\n"));
        QCOMPARE(GnxFrame::encode(GnxLink::CMD_KEEPALIVE_INTERNAL), QByteArray("$TEST*3C\r\n"));
        QCOMPARE(GnxFrame::encode(GnxLink::CMD_IP, {"9", ""}), QByteArray("$IP,9,*0A\r\n"));
        // Characters above U+00FF are left out of the sum.
        QCOMPARE(GnxFrame::checksum(u"TE\u20ACST\u4E2D*"), GnxFrame::checksum(u"TEST*"));
        QCOMPARE(int(GnxFrame::checksum(u"\u00E9")), 0xE9);
    }

    void decode_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("text"); // logged or reported, "%1" standing for the line
        const auto row = [](const char* name, const QString& line, Decoded::Status status,
                            const QString& text) {
            QTest::newRow(name) << line << int(status) << (text.isEmpty() ? text : text.arg(line));
        };
        const QString undecodable = QStringLiteral("Unable to decode GNX message \"%1\".");
        const QString bad = QStringLiteral("Bad checksum in GNX reply \"%1\": ");
        const QString npr = QStringLiteral("NPR,1,2,AB");
        row("reply", "$GSN,12-345*40", Decoded::Ok, "");
        row("lower-case checksum", "$IP,9,*0a", Decoded::Undecodable, undecodable);
        row("lower-case mnemonic", "$gsn*70", Decoded::Undecodable, undecodable);
        row("trailing text", "$GSN*70 x", Decoded::Undecodable, undecodable);
        row("bad checksum", "$GSN,12-345*41", Decoded::BadChecksum, bad + "41 vs 40.");
        row("one digit", "$GSN*7", Decoded::BadChecksum, bad + "07 vs 70.");
        row("three digits", "$GSN*170", Decoded::BadChecksum, bad + "170 vs 70.");
        row("leading zeros", "$GSN*0005", Decoded::BadChecksum, bad + "05 vs 70.");
        row("GNX134 NPR second check", '$' + npr + "*63", Decoded::AcceptedNprChecksum,
            "Bad checksum detected on NPR frame.");
        row("NPR failing both", "$NPR,1*00", Decoded::BadChecksum, bad + "00 vs 7B.");
        row("NPRF gets no second check", "$NPRF," + npr.mid(4) + "*25", Decoded::BadChecksum,
            bad + "25 vs 0C.");
    }
    void decode()
    {
        QFETCH(QString, line);
        QFETCH(int, status);
        QFETCH(QString, text);

        const Decoded decoded = GnxFrame::decodeLine(line);
        QCOMPARE(int(decoded.status), status);
        // Indexed by status, as the link picks them.
        const QString texts[] = {QString(), GnxFrame::undecodableWarning(line),
                                 GnxFrame::badChecksumError(line, decoded),
                                 GnxFrame::nprChecksumWarning(decoded.mnemonic)};
        QCOMPARE(texts[decoded.status], text);
    }
};

QTEST_GUILESS_MAIN(TestGnxFrame)
#include "tst_gnxframe.moc"
