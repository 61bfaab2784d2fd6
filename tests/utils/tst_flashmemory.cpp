#include "BitWriter.h"

#include "mrl/utils/Exception.h"
#include "utils/FlashDecoder.h"
#include "utils/FlashMemory.h"

#include <QSignalSpy>
#include <QTest>

#include <cstring>
#include <memory>

using OrviaGonioManager::Com::GnxLink;
using OrviaGonioManager::Com::OrviaRxMessage_t;
using OrviaGonioManager::Utils::FlashDecoder;
using OrviaGonioManager::Utils::FlashMemory;

namespace {

enum Layout
{
    PlatformDump = 1, // first generation, one dump per platform
    SingleDump = 2,
};

struct Field
{
    int first;
    int width;
    bool isSigned = false; // width value bits, then the sign bit
};

using Values = QMap<QString, qint64>;

const QMap<QString, Field>& fields(int layout)
{
    static const QMap<QString, Field> platform = {
        {"F3", {0, 1}},      {"F2", {1, 1}},           {"hour", {8, 5}},         {"minute", {13, 6}},
        {"second", {19, 6}}, {"day", {25, 5}},         {"month", {30, 4}},       {"year", {34, 7}},
        {"A", {41, 29}},     {"B", {70, 9}},           {"C", {79, 9}},           {"D", {88, 9, true}},
        {"E", {98, 16}},     {"lat", {114, 24, true}}, {"lon", {139, 23, true}}, {"G", {163, 9}},
        {"code", {173, 3}},
    };
    static const QMap<QString, Field> single = {
        {"H", {0, 4}},     {"F3", {4, 1}},           {"F2", {5, 1}},
        {"F1", {6, 1}},    {"end", {7, 1}},          {"id", {8, 28}},
        {"hour", {40, 5}}, {"minute", {45, 6}},      {"second", {51, 6}},
        {"day", {57, 5}},  {"month", {62, 4}},       {"year", {66, 7}},
        {"A", {73, 29}},   {"B", {102, 9}},          {"D", {111, 9, true}},
        {"E", {121, 16}},  {"lat", {137, 24, true}}, {"lon", {162, 23, true}},
        {"G", {186, 9}},   {"K", {195, 3}},          {"bits", {198, 9}},
    };
    return layout == PlatformDump ? platform : single;
}

QByteArray header(int layout, Values values)
{
    if (!values.contains("day"))
        values["day"] = 1;
    if (!values.contains("month"))
        values["month"] = 1;
    if (layout == SingleDump && !values.contains("bits"))
        values["bits"] = 32;
    BitWriter w(layout == PlatformDump ? FlashDecoder::kPlatformHeaderSize : FlashDecoder::kDumpHeaderSize);
    for (auto it = values.cbegin(); it != values.cend(); ++it) {
        const Field f = fields(layout).value(it.key(), {-1, 0});
        if (f.first < 0)
            qFatal("unknown field %s", qPrintable(it.key()));
        if (f.isSigned)
            w.putSigned(f.first, f.width, it.value());
        else
            w.put(f.first, f.width, quint64(it.value()));
    }
    return w.bytes();
}

QByteArray pattern(int bytes)
{
    QByteArray p(bytes, '\0');
    for (int i = 0; i < bytes; ++i)
        p[i] = char(i + 1);
    return p;
}

int payloadBytes(int layout, const Values& values)
{
    if (layout == PlatformDump)
        return int(values.value("code", 0) + 1) * 4;
    return int(values.value("bits", 32) + 7) / 8;
}

// One record: header, payload, and in a single dump the byte that follows every record.
QByteArray record(int layout, const Values& values = {})
{
    QByteArray r = header(layout, values) + pattern(payloadBytes(layout, values));
    if (layout == SingleDump)
        r += '\0';
    return r;
}

const QString kPlatformId = "1A2B3";
const quint32 kPlatformIndex = 5;

QList<OrviaRxMessage_t> decode(int layout, const QByteArray& dump, QString* error = nullptr,
                               const QString& platformId = kPlatformId)
{
    QList<OrviaRxMessage_t> out;
    const auto sink = [&](const OrviaRxMessage_t& m) { out << m; };
    try {
        if (layout == PlatformDump)
            FlashDecoder::decodePlatformDump(kPlatformIndex, platformId, dump, sink);
        else
            FlashDecoder::decodeDump(dump, sink);
    } catch (const MRL::Utils::Exception& e) {
        if (error)
            *error = e.message();
    }
    return out;
}

QVariantMap members(const OrviaRxMessage_t& m)
{
    return {{"platformIndex", m.platformIndex},
            {"mjd", m.mjd},
            {"secondsOfDay", m.secondsOfDay},
            {"platformId", m.platformId},
            {"frequency", m.frequency},
            {"flagBit2", m.flagBit2},
            {"flagBit1", m.flagBit1},
            {"flagBit0", m.flagBit0},
            {"direction", m.direction},
            {"v1FlashValue", m.v1FlashValue},
            {"band", m.band},
            {"extraCode", m.extraCode},
            {"level", m.level},
            {"period", m.period},
            {"gnxLatitude", m.gnxLatitude},
            {"gnxLongitude", m.gnxLongitude},
            {"gnxDirection", m.gnxDirection},
            {"payload", m.payload}};
}

void compareMembers(const QVariantMap& actual, const QVariantMap& expected)
{
    QCOMPARE(actual.keys(), expected.keys());
    for (auto it = expected.cbegin(); it != expected.cend(); ++it) {
        if (actual.value(it.key()) != it.value())
            QFAIL(qPrintable(QString("%1: got %2, expected %3")
                                 .arg(it.key(), actual.value(it.key()).toString(), it.value().toString())));
    }
}

} // namespace

class TestFlashMemory : public QObject
{
    Q_OBJECT

private slots:
    // A short header reads as zeros beyond its end, never past it.
    void shortHeader_data()
    {
        QTest::addColumn<int>("layout");
        QTest::addColumn<int>("size");
        for (const int layout : {PlatformDump, SingleDump})
            for (const int size : {0, 1, 9, 21, layout == PlatformDump ? 20 : 25})
                QTest::addRow("%s, %d bytes", layout == PlatformDump ? "platform" : "single", size)
                    << layout << size;
    }

    void shortHeader()
    {
        QFETCH(int, layout);
        QFETCH(int, size);
        const QByteArray full =
            header(layout, {{"A", 0x1FFFFFFF}, {"lat", -1}, {layout == PlatformDump ? "code" : "bits", 7}});
        // Heap copy of exactly size bytes, so that the address sanitizer sees any read past it.
        std::unique_ptr<uchar[]> bytes(new uchar[size_t(qMax(size, 1))]);
        std::memcpy(bytes.get(), full.constData(), size_t(size));
        QByteArray truncated = full.left(size);
        truncated.append(QByteArray(full.size() - size, '\0'));
        int payloadBytes = -1;
        int expectedBytes = -1;
        OrviaRxMessage_t got, want;
        if (layout == PlatformDump) {
            got = FlashDecoder::decodePlatformHeader(size ? bytes.get() : nullptr, size, payloadBytes);
            want = FlashDecoder::decodePlatformHeader(reinterpret_cast<const uchar*>(truncated.constData()),
                                                      truncated.size(), expectedBytes);
        } else {
            got = FlashDecoder::decodeDumpHeader(size ? bytes.get() : nullptr, size, payloadBytes);
            want = FlashDecoder::decodeDumpHeader(reinterpret_cast<const uchar*>(truncated.constData()),
                                                  truncated.size(), expectedBytes);
        }
        QCOMPARE(payloadBytes, expectedBytes);
        compareMembers(members(got), members(want));
    }

    void fieldLimits_data()
    {
        QTest::addColumn<int>("layout");
        QTest::addColumn<QString>("field");
        QTest::addColumn<qint64>("raw");
        QTest::addColumn<QString>("member");
        QTest::addColumn<QVariant>("expected");

        for (const int layout : {PlatformDump, SingleDump}) {
            const char* l = layout == PlatformDump ? "platform" : "single";
            const auto row = [&](const char* name, const QString& field, qint64 raw, const QString& member,
                                 const QVariant& expected) {
                QTest::addRow("%s: %s", l, name) << layout << field << raw << member << expected;
            };
            row("F3", "F3", 1, "flagBit0", true);
            row("F2", "F2", 1, "flagBit1", true);
            row("frequency max", "A", 0x1FFFFFFF, "frequency", 536870911u);
            row("direction max", "B", 511, "direction", 511);
            row("level min", "D", -512, "level", -512);
            row("level max", "D", 511, "level", 511);
            row("level -1", "D", -1, "level", -1);
            row("period max", "E", 65535, "period", 65535u);
            row("latitude min", "lat", -16777216, "gnxLatitude", -16777216 / 60000.0);
            row("latitude max", "lat", 16777215, "gnxLatitude", 16777215 / 60000.0);
            row("latitude -1", "lat", -1, "gnxLatitude", -1 / 60000.0);
            row("longitude min", "lon", -8388608, "gnxLongitude", -8388608 / 60000.0);
            row("longitude max", "lon", 8388607, "gnxLongitude", 8388607 / 60000.0);
            row("heading max", "G", 511, "gnxDirection", 511u);
            if (layout == PlatformDump) {
                row("C max", "C", 511, "v1FlashValue", 511);
            } else {
                row("F1", "F1", 1, "flagBit2", true);
                row("band max", "H", 15, "band", 15);
                row("K max", "K", 7, "extraCode", 7);
                row("identifier 0x12345", "id", 0x12345, "platformId", "0012345");
                row("identifier 0xABCDEF0", "id", 0xABCDEF0, "platformId", "ABCDEF0");
                row("identifier max", "id", 0xFFFFFFF, "platformId", "FFFFFFF");
            }
        }
    }

    // Each field alone at its limit changes its own member and nothing else.
    void fieldLimits()
    {
        QFETCH(int, layout);
        QFETCH(QString, field);
        QFETCH(qint64, raw);
        QFETCH(QString, member);
        QFETCH(QVariant, expected);

        const QByteArray end = layout == SingleDump ? QByteArray(1, char(0xFF)) : QByteArray();
        const QList<OrviaRxMessage_t> base = decode(layout, record(layout) + end);
        const QList<OrviaRxMessage_t> changed = decode(layout, record(layout, {{field, raw}}) + end);
        QCOMPARE(base.size(), 1);
        QCOMPARE(changed.size(), 1);
        QVariantMap want = members(base.first());
        QVERIFY(want.contains(member));
        want[member] = expected;
        compareMembers(members(changed.first()), want);
    }

    void defaults()
    {
        const OrviaRxMessage_t v1 = decode(PlatformDump, record(PlatformDump)).value(0);
        QCOMPARE(v1.platformIndex, 5);
        QCOMPARE(v1.platformId, kPlatformId);
        QCOMPARE(v1.flagBit2, false);
        QCOMPARE(v1.band, qint16(0));
        QCOMPARE(v1.extraCode, qint16(0));
        const OrviaRxMessage_t v2 = decode(SingleDump, record(SingleDump) + char(0xFF)).value(0);
        QCOMPARE(v2.platformIndex, -1);
        QCOMPARE(v2.platformId, QString("0000000"));
        QCOMPARE(v2.v1FlashValue, qint16(0));
        QCOMPARE(QString::number(decode(SingleDump, record(SingleDump, {{"lat", -16777216}}) + char(0xFF))
                                     .value(0)
                                     .gnxLatitude,
                                 'f', 5),
                 QString("-279.62027"));
    }

    void dateTime_data()
    {
        QTest::addColumn<int>("layout");
        QTest::addColumn<QDateTime>("utc");

        for (const int layout : {PlatformDump, SingleDump}) {
            const char* l = layout == PlatformDump ? "platform" : "single";
            QTest::addRow("%s: 2000-01-01", l)
                << layout << QDateTime(QDate(2000, 1, 1), QTime(0, 0), Qt::UTC);
            QTest::addRow("%s: leap day", l)
                << layout << QDateTime(QDate(2024, 2, 29), QTime(12, 34, 56), Qt::UTC);
            QTest::addRow("%s: last second of 2127", l)
                << layout << QDateTime(QDate(2127, 12, 31), QTime(23, 59, 59), Qt::UTC);
            QTest::addRow("%s: 2063-07-15", l)
                << layout << QDateTime(QDate(2063, 7, 15), QTime(1, 2, 3), Qt::UTC);
        }
    }

    void dateTime()
    {
        QFETCH(int, layout);
        QFETCH(QDateTime, utc);
        const Values v = {{"year", utc.date().year() - 2000}, {"month", utc.date().month()},
                          {"day", utc.date().day()},          {"hour", utc.time().hour()},
                          {"minute", utc.time().minute()},    {"second", utc.time().second()}};
        const OrviaRxMessage_t m = decode(layout, record(layout, v) + char(0xFF)).value(0);
        const qint64 ms = utc.toMSecsSinceEpoch() + 3506716800000LL;
        QCOMPARE(m.mjd, quint64(ms / 86400000));
        QCOMPARE(m.secondsOfDay, double(ms % 86400000) / 1000.0);
        if (utc.date() == QDate(2024, 2, 29)) {
            QCOMPARE(m.mjd, quint64(60369));
            QCOMPARE(m.secondsOfDay, 45296.0);
        }
    }

    void impossibleDateStillDecodes()
    {
        const Values v = {{"month", 15}, {"day", 31}, {"hour", 31}, {"minute", 63}, {"second", 63}};
        QCOMPARE(decode(SingleDump, record(SingleDump, v) + char(0xFF)).size(), 1);
        QCOMPARE(decode(PlatformDump, record(PlatformDump, v)).size(), 1);
    }

    void payload_data()
    {
        QTest::addColumn<int>("layout");
        QTest::addColumn<Values>("values");
        QTest::addColumn<QString>("platformId");
        QTest::addColumn<QByteArray>("expected");

        QTest::newRow("platform: code 0")
            << int(PlatformDump) << Values{{"code", 0}} << kPlatformId << pattern(4);
        QTest::newRow("platform: code 7")
            << int(PlatformDump) << Values{{"code", 7}} << kPlatformId << pattern(32);
        QTest::newRow("platform: code 3")
            << int(PlatformDump) << Values{{"code", 3}} << kPlatformId << pattern(16);
        QTest::newRow("platform: 7-character id drops the filler")
            << int(PlatformDump) << Values{{"code", 1}} << "1234567" << pattern(8).mid(1);
        QTest::newRow("platform: empty id") << int(PlatformDump) << Values{} << "" << pattern(4);

        const auto single = [](const char* name, qint64 bits, qint64 k, const QByteArray& expected) {
            QTest::addRow("single: %s", name)
                << int(SingleDump) << Values{{"bits", bits}, {"K", k}} << QString() << expected;
        };
        single("0 bits", 0, 0, QByteArray());
        single("1 bit, filler only", 1, 0, QByteArray());
        single("8 bits, filler only", 8, 0, QByteArray());
        single("9 bits", 9, 0, pattern(2).mid(1));
        single("15 bits", 15, 0, pattern(2).mid(1));
        single("17 bits", 17, 0, pattern(3).mid(1));
        single("511 bits", 511, 0, pattern(64).mid(1));
        single("K 2 keeps the first byte", 16, 2, pattern(2));
        single("511 bits, K 2", 511, 2, pattern(64));
        single("0 bits, K 2", 0, 2, QByteArray());
        single("K 7", 100, 7, pattern(13).mid(1));
    }

    void payload()
    {
        QFETCH(int, layout);
        QFETCH(Values, values);
        QFETCH(QString, platformId);
        QFETCH(QByteArray, expected);
        QString error;
        const QByteArray dump =
            record(layout, values) + (layout == SingleDump ? QByteArray(1, char(0x80)) : "");
        const QList<OrviaRxMessage_t> out = decode(layout, dump, &error, platformId);
        QCOMPARE(error, QString());
        QCOMPARE(out.size(), 1);
        QCOMPARE(out.first().payload.toHex(), expected.toHex());
    }

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
        const auto platform = [](const char* name, const QByteArray& dump, int records,
                                 const QString& error) {
            QTest::addRow("platform: %s", name) << int(PlatformDump) << dump << records << error;
        };
        platform("empty", QByteArray(), 0, "");
        platform("exactly one record", p0, 1, "");
        platform("one record and one byte", p0 + '\0', 1, badHeader);
        platform("one record and a full header", p0 + QByteArray(22, '\0'), 1, badHeader);
        platform("two records", p0 + p7, 2, "");
        platform("header only", p0.left(22), 0, badHeader);
        platform("header and one payload byte", p0.left(23), 0, badPayload);
        platform("payload one byte short", p0.left(p0.size() - 1), 0, badPayload);
        platform("second payload short", p0 + p7.left(p7.size() - 1), 1, badPayload);
        platform("erased memory is not an end", p0 + QByteArray(54, char(0xFF)), 2, "");

        const QByteArray s0 = record(SingleDump, {{"A", 1}});
        const QByteArray s1 = record(SingleDump, {{"A", 2}, {"bits", 0}});
        const QByteArray ff(1, char(0xFF));
        const auto single = [](const char* name, const QByteArray& dump, int records, const QString& error) {
            QTest::addRow("single: %s", name) << int(SingleDump) << dump << records << error;
        };
        single("empty", QByteArray(), 0, "");
        single("first byte 0x80", QByteArray(1, char(0x80)) + s0, 0, "");
        single("erased", QByteArray(64, char(0xFF)), 0, "");
        single("record then 0xFF", s0 + ff, 1, "");
        single("record then 0x80", s0 + char(0x80), 1, "");
        single("record ending at the end", s0, 0, badPayload);
        single("record without its trailing byte", s0.chopped(1), 0, badPayload);
        single("header only", s0.left(26), 0, badHeader);
        single("header and a byte, no payload", record(SingleDump, {{"bits", 0}}).left(27), 0, badPayload);
        single("record then 0x7F", s0 + char(0x7F), 1, badHeader);
        single("two records", s0 + s1 + ff, 2, "");
        single("trailing byte of a record is not read", s0.chopped(1) + ff + s1 + ff, 2, "");
        single("second record ending at the end", s0 + s0, 1, badPayload);
        single("second header short", s0 + s1.left(20), 1, badHeader);
        single("end mark inside garbage", s0 + ff + QByteArray(100, '\x11'), 1, "");
    }

    void framing()
    {
        QFETCH(int, layout);
        QFETCH(QByteArray, dump);
        QFETCH(int, records);
        QFETCH(QString, error);
        QString thrown;
        const QList<OrviaRxMessage_t> out = decode(layout, dump, &thrown);
        QCOMPARE(thrown, error);
        QCOMPARE(out.size(), records);
        if (!out.isEmpty())
            QCOMPARE(out.first().frequency, 1u);
    }

    // Through the object: one signal per record, the ones before a failure included.
    void signalsBeforeFailure_data()
    {
        QTest::addColumn<int>("layout");
        QTest::newRow("platform") << int(PlatformDump);
        QTest::newRow("single") << int(SingleDump);
    }

    void signalsBeforeFailure()
    {
        QFETCH(int, layout);
        FlashMemory* flash = FlashMemory::instance();
        QSignalSpy decoded(flash, &FlashMemory::sigOrviaDecoded);
        const QByteArray dump =
            record(layout, {{"A", 1}}) + record(layout, {{"A", 2}}) + record(layout).left(10);
        QString error;
        try {
            if (layout == PlatformDump)
                flash->decodePlatformDump(kPlatformIndex, kPlatformId, dump);
            else
                flash->decodeDump(dump);
        } catch (const MRL::Utils::Exception& e) {
            error = e.message();
            QCOMPARE(e.severity(), 2);
        }
        QCOMPARE(error, QString("Unable to decode flash memory (bad header)."));
        QCOMPARE(decoded.count(), 2);
        for (int i = 0; i < 2; ++i) {
            const auto m = decoded.at(i).at(0).value<OrviaRxMessage_t>();
            QCOMPARE(m.frequency, quint32(i + 1));
            QCOMPARE(decoded.at(i).at(1).value<GnxLink::RxOrigin_t>(), GnxLink::RXORIGIN_FLASH);
        }
    }
};

QTEST_GUILESS_MAIN(TestFlashMemory)
#include "tst_flashmemory.moc"
