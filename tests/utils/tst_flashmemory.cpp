#include "mrl/utils/Exception.h"
#include "utils/FlashDecoder.h"
#include "utils/FlashMemory.h"
#include "utils/PlatformNumber.h"

#include <QSignalSpy>
#include <QTest>

using OrviaGonioManager::Com::GnxLink;
using OrviaGonioManager::Com::OrviaRxMessage_t;
using OrviaGonioManager::Utils::FlashDecoder;
using OrviaGonioManager::Utils::FlashMemory;
namespace PlatformNumber = OrviaGonioManager::Utils::PlatformNumber;

namespace {

const int PlatformDump = 1, SingleDump = 2; // the first generation dumps each platform apart

using Values = QMap<QString, qint64>;
const QString kPlatformId = "1A2B3";

// First bit and width of each header field; signed fields have their sign bit above the value bits.
const QMap<QString, QPair<int, int>>& fields(int layout)
{
    static const QMap<QString, QPair<int, int>> platform = {
        {"F3", {0, 1}},   {"F2", {1, 1}},     {"hour", {8, 5}},  {"minute", {13, 6}}, {"second", {19, 6}},
        {"day", {25, 5}}, {"month", {30, 4}}, {"year", {34, 7}}, {"A", {41, 29}},     {"B", {70, 9}},
        {"C", {79, 9}},   {"D", {88, 10}},    {"E", {98, 16}},   {"lat", {114, 25}},  {"lon", {139, 24}},
        {"G", {163, 9}},  {"code", {173, 3}}};
    static const QMap<QString, QPair<int, int>> single = {
        {"H", {0, 4}},      {"F3", {4, 1}},     {"F2", {5, 1}},      {"F1", {6, 1}},      {"end", {7, 1}},
        {"id", {8, 28}},    {"hour", {40, 5}},  {"minute", {45, 6}}, {"second", {51, 6}}, {"day", {57, 5}},
        {"month", {62, 4}}, {"year", {66, 7}},  {"A", {73, 29}},     {"B", {102, 9}},     {"D", {111, 10}},
        {"E", {121, 16}},   {"lat", {137, 25}}, {"lon", {162, 24}},  {"G", {186, 9}},     {"K", {195, 3}},
        {"bits", {198, 9}}};
    return layout == PlatformDump ? platform : single;
}

// Payload bytes, all different.
const QByteArray kPayload = "0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ+/";

// One record built bit by bit, least-significant bit first: bit k is bit k % 8 of byte k / 8. In a
// single dump one byte follows every record.
QByteArray record(int layout, const Values& values = {})
{
    Values v = {{"day", 1}, {"month", 1}, {"code", 0}, {"bits", 32}};
    v.insert(values);
    QByteArray h(layout == PlatformDump ? 22 : 26, 0);
    for (auto it = v.cbegin(); it != v.cend(); ++it) {
        const auto [first, width] = fields(layout).value(it.key(), {0, 0});
        for (int bit = first; bit < first + width; ++bit)
            if ((quint64(it.value()) >> (bit - first)) & 1u)
                h[bit / 8] = char(h[bit / 8] | (1 << bit % 8));
    }
    return h + (layout == PlatformDump ? kPayload.left(int(v["code"] + 1) * 4)
                                       : kPayload.left(int(v["bits"] + 7) / 8) + '\0');
}

// The records handed on by the object, in order.
QList<OrviaRxMessage_t> decode(int layout, const QByteArray& dump, QString& error)
{
    FlashMemory* flash = FlashMemory::instance();
    QSignalSpy decoded(flash, &FlashMemory::sigOrviaDecoded);
    try {
        layout == PlatformDump ? flash->decodePlatformDump(5, kPlatformId, dump) : flash->decodeDump(dump);
    } catch (const MRL::Utils::Exception& e) {
        error = e.message();
    }
    QList<OrviaRxMessage_t> out;
    for (const QList<QVariant>& args : decoded)
        if (args.at(1).value<GnxLink::RxOrigin_t>() == GnxLink::RXORIGIN_FLASH)
            out << args.at(0).value<OrviaRxMessage_t>();
    return out;
}

// The members of the one record of a dump, end mark included.
QVariantMap decodeOne(int layout, const Values& v = {})
{
    QString error;
    const auto out = decode(layout, record(layout, v) + (layout == SingleDump ? "\xff" : ""), error);
    if (out.size() != 1 || !error.isEmpty())
        QTest::qFail(qPrintable("dump not decoded: " + error), __FILE__, __LINE__);
    const OrviaRxMessage_t m = out.value(0);
#define M(member) std::pair<QString, QVariant>(#member, m.member)
#define D(member) std::pair<QString, QVariant>(#member, QString::number(m.member, 'f', 5)) // degrees
    QVariantMap members{M(platformIndex), M(mjd),          M(secondsOfDay), M(platformId), M(frequency),
                        M(flagBit2),      M(flagBit1),     M(flagBit0),     M(direction),  M(v1FlashValue),
                        M(band),          M(extraCode),    M(level),        M(period),     D(gnxLatitude),
                        D(gnxLongitude),  M(gnxDirection), M(payload)};
    members["atLongitudeLimit"] = FlashDecoder::atLongitudeLimit(m.gnxLongitude);
    members["number"] = PlatformNumber::shortest(m.platformId);
    members["positionPayload"] = PlatformNumber::positionPayload(m);
    return members;
#undef M
#undef D
}

} // namespace

class TestFlashMemory : public QObject
{
    Q_OBJECT

private slots:
    void decodeRecord_data()
    {
        QTest::addColumn<int>("layout");
        QTest::addColumn<Values>("values");
        QTest::addColumn<QVariantMap>("expected"); // the members that differ from an all-zero header

        for (const int layout : {PlatformDump, SingleDump}) {
            const auto row = [&](const char* name, const Values& values, const QVariantMap& expected) {
                QTest::addRow("%s: %s", layout == PlatformDump ? "platform" : "single", name)
                    << layout << values << expected;
            };
            row("F3", {{"F3", 1}}, {{"flagBit0", true}});
            row("F2", {{"F2", 1}}, {{"flagBit1", true}});
            row("frequency max", {{"A", 0x1FFFFFFF}}, {{"frequency", 536870911u}});
            row("direction max", {{"B", 511}}, {{"direction", 511}});
            row("level min", {{"D", -512}}, {{"level", -512}});
            row("level max", {{"D", 511}}, {{"level", 511}});
            row("period max", {{"E", 65535}}, {{"period", 65535u}});
            row("latitude min", {{"lat", -16777216}}, {{"gnxLatitude", "-279.62027"}});
            row("latitude max", {{"lat", 16777215}}, {{"gnxLatitude", "279.62025"}});
            // A receiver beyond the field is stored at its limit: a position there is not trusted.
            row("longitude min", {{"lon", -8388608}},
                {{"gnxLongitude", "-139.81013"}, {"atLongitudeLimit", true}});
            row("longitude max", {{"lon", 8388607}},
                {{"gnxLongitude", "139.81012"}, {"atLongitudeLimit", true}});
            row("longitude inside", {{"lon", -8388607}}, {{"gnxLongitude", "-139.81012"}});
            row("heading max", {{"G", 511}}, {{"gnxDirection", 511u}});
            row("last second of 2127",
                {{"year", 127}, {"month", 12}, {"day", 31}, {"hour", 23}, {"minute", 59}, {"second", 59}},
                {{"mjd", 98294u}, {"secondsOfDay", 86399.0}});
            if (layout == PlatformDump) {
                row("C max", {{"C", 511}}, {{"v1FlashValue", 511}});
                row("payload code 7", {{"code", 7}},
                    {{"payload", kPayload.left(32)}, {"positionPayload", kPayload.left(32)}});
                continue;
            }
            row("F1", {{"F1", 1}}, {{"flagBit2", true}});
            row("band max", {{"H", 15}}, {{"band", 15}});
            row("K max", {{"K", 7}}, {{"extraCode", 7}});
            // Beside the RX table the platform is its number, and a GPS format reads the payload
            // with a zero in front only where the filler byte was dropped.
            row("identifier 0x12345", {{"id", 0x12345}}, {{"platformId", "0012345"}, {"number", "12345"}});
            row("identifier 0x100000", {{"id", 0x100000}},
                {{"platformId", "0100000"}, {"number", "0100000"}});
            row("identifier max", {{"id", 0xFFFFFFF}}, {{"platformId", "FFFFFFF"}, {"number", "FFFFFFF"}});
            row("payload of 17 bits", {{"bits", 17}},
                {{"payload", kPayload.left(3).mid(1)}, {"positionPayload", '\0' + kPayload.left(3).mid(1)}});
            row("payload of 511 bits", {{"bits", 511}},
                {{"payload", kPayload.left(64).mid(1)},
                 {"positionPayload", '\0' + kPayload.left(64).mid(1)}});
            row("K 2 keeps the first byte", {{"bits", 15}, {"K", 2}},
                {{"payload", kPayload.left(2)}, {"extraCode", 2}, {"positionPayload", kPayload.left(2)}});
        }
    }

    // The other members keep what an all-zero header gives.
    void decodeRecord()
    {
        QFETCH(int, layout);
        QFETCH(Values, values);
        QFETCH(QVariantMap, expected);
        QVariantMap want = decodeOne(layout);
        const bool platform = layout == PlatformDump;
        QCOMPARE(QVariantList({want["mjd"], want["platformIndex"], want["platformId"], want["payload"],
                               want["number"], want["positionPayload"]}),
                 QVariantList({51544u, platform ? 5 : -1, platform ? kPlatformId : "0000000",
                               platform ? kPayload.left(4) : kPayload.left(4).mid(1), // 2000-01-01
                               platform ? kPlatformId : "00000",
                               platform ? kPayload.left(4) : '\0' + kPayload.left(4).mid(1)}));
        want.insert(expected);
        const QVariantMap got = decodeOne(layout, values);
        for (auto it = want.cbegin(); it != want.cend(); ++it)
            QVERIFY2(got[it.key()] == it.value(), qPrintable(it.key() + ": " + got[it.key()].toString()));
    }

    // A failure comes after the records before it were handed on.
    void framing_data()
    {
        QTest::addColumn<int>("layout");
        QTest::addColumn<QByteArray>("dump");
        QTest::addColumn<int>("records");
        QTest::addColumn<QString>("error");

        const QString badHeader = "Unable to decode flash memory (bad header).";
        const QString badPayload = "Unable to decode flash memory (bad payload).";
        const QByteArray p0 = record(PlatformDump, {{"A", 1}});
        const QByteArray p7 = record(PlatformDump, {{"A", 2}, {"code", 7}});
        const QByteArray s0 = record(SingleDump, {{"A", 1}});
        const auto row = [](int layout, const char* name, const QByteArray& dump, int records,
                            const QString& error) {
            QTest::addRow("%s: %s", layout == PlatformDump ? "platform" : "single", name)
                << layout << dump << records << error;
        };
        row(PlatformDump, "exactly one record", p0, 1, "");
        row(PlatformDump, "one record and one byte", p0 + '\0', 1, badHeader);
        row(PlatformDump, "header only", p0.left(22), 0, badHeader);
        row(PlatformDump, "second payload one byte short", p0 + p7.chopped(1), 1, badPayload);
        row(PlatformDump, "erased memory is not an end", p0 + QByteArray(54, char(0xFF)), 2, "");
        row(SingleDump, "first byte 0x80", char(0x80) + s0, 0, "");
        row(SingleDump, "record then 0x80", s0 + char(0x80), 1, "");
        row(SingleDump, "record ending at the end", s0, 0, badPayload);
        row(SingleDump, "record then 0x7F", s0 + char(0x7F), 1, badHeader);
        row(SingleDump, "trailing byte of a record is not read",
            s0.chopped(1) + char(0xFF) + record(SingleDump, {{"A", 2}, {"bits", 0}}) + char(0xFF), 2, "");
    }

    void framing()
    {
        QFETCH(int, layout);
        QFETCH(QByteArray, dump);
        QFETCH(int, records);
        QFETCH(QString, error);
        QString thrown;
        QCOMPARE(decode(layout, dump, thrown).size(), records);
        QCOMPARE(thrown, error);
    }
};

QTEST_GUILESS_MAIN(TestFlashMemory)
#include "tst_flashmemory.moc"
