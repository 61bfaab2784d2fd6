#include "com/TestSupport.h"
#include "utils/CoordinateText.h"
#include "utils/GpsFormat.h"

#include <QDir>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/resource.h>

namespace CoordinateText = OrviaGonioManager::Utils::CoordinateText;
using OrviaGonioManager::Utils::GpsCoordinate_t;
using OrviaGonioManager::Utils::GpsFormat;
using OrviaGonioManager::Utils::GpsFormat_t;

Q_DECLARE_METATYPE(GpsCoordinate_t)

namespace {

// Every field differs from its neighbours so that a shifted column shows.
const QStringList kBase =
    QString("Fmt A,TypeX,Météo,Desc,64,0,1,1,24,1,1,0,1,0,25,1,26,23,2,3,4,5,1,1,9,10,16,26,40,7,1")
        .split(',');
const QString kNewFormat =
    "New GPS Format,,,Created by Orvia Gonio Manager," + QStringList(27, "0").join(',');

QString lineWith(int index, const QString& value, const QString& end = "#")
{
    QStringList parts = kBase;
    parts[index] = value;
    return parts.join(',') + end;
}

// The 31 fields as held in memory, numbers in decimal.
QStringList fields(const GpsFormat_t& f)
{
    QStringList v = {f.name, f.type, f.manufacturer, f.description, QString::number(f.payloadLength)};
    for (const GpsCoordinate_t& c : {f.latitude, f.longitude})
        for (const qint32 n : {c.signPos, c.signLen, c.pos, c.len, c.T, c.U, c.V, c.W, c.TY})
            v << QString::number(n);
    for (const qint64 n : {qint64(f.encryptionType), qint64(f.polynom), qint64(f.crcPos), qint64(f.crcLen),
                           qint64(f.dataPos), qint64(f.dataLen), qint64(f.indexPos), qint64(f.gpsCheck)})
        v << QString::number(n);
    return v;
}

// Names in collection order, each with its origin.
QStringList names()
{
    QStringList list;
    for (const GpsFormat_t* f : GpsFormat::instance()->gpsFormats())
        list << f->name + ":" + QString::number(f->origin);
    return list;
}

void load(const QString& text)
{
    TestSupport::loadGpsFormats(text.toUtf8());
}

GpsFormat_t parsed(const QString& line)
{
    GpsFormat_t f;
    GpsFormat::parseGpsFormatLine(line, f);
    return f;
}

QByteArray fileContents(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(unreadable)");
}

} // namespace

class TestGpsFormat : public QObject
{
    Q_OBJECT

private slots:
    void init() { load("0\n"); }

    // Each row changes one field of kBase: read into its own member, and compared with or without the texts.
    void parseAndCompare_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<int>("index");
        QTest::addColumn<QString>("value"); // as held in memory

        for (int i = 0; i < 31; ++i) {
            const QString changed = i < 4     ? kBase[i] + "9"
                                    : i == 30 ? "0"
                                              : QString::number(kBase[i].toInt() + 100);
            QTest::addRow("field %d", i) << lineWith(i, changed) << i
                                         << (i == 24 ? QString::number(changed.toInt(nullptr, 16)) : changed);
        }
        QTest::newRow("without #") << kBase.join(',') << 0 << "Fmt A";
        QTest::newRow("gpsCheck 2 is true") << lineWith(30, "2") << 30 << "1";
    }

    void parseAndCompare()
    {
        QFETCH(QString, line);
        QFETCH(int, index);
        QFETCH(QString, value);
        const GpsFormat_t f = parsed(line);
        QStringList expected = kBase;
        expected[index] = value;
        QCOMPARE(fields(f), expected);
        const GpsFormat_t base = parsed(kBase.join(','));
        QCOMPARE(GpsFormat::compareGpsFormats(base, f, false),
                 value == kBase[index] || (index >= 1 && index <= 3));
        QCOMPARE(GpsFormat::compareGpsFormats(f, base, true), value == kBase[index]);
    }

    void readWriteFile()
    {
        GpsFormat* gps = GpsFormat::instance();
        QSignalSpy added(gps, &GpsFormat::sigNewGpsFormat);
        load("4\n\n" + lineWith(0, "Zulu") + "\r\n" + lineWith(3, "a,b") + "\n" +
             lineWith(30, "2").replace("Fmt A", "Alpha") + "\n" +
             lineWith(0, "Zulu", "").replace("Desc", "Later") + "\n" +
             QStringList(kBase.mid(0, 30)).join(',') + "\n" + lineWith(0, "Mid")); // no final line feed
        QCOMPARE(added.count(), 4); // one per accepted line, duplicates included
        QCOMPARE(names(), QStringList({"Alpha:2", "Mid:2", "Zulu:2"}));

        gps->newGpsFormat();
        GpsFormat_t imported = parsed(lineWith(0, "A"));
        imported.polynom = 0xBEEF;
        imported.gpsCheck = false;
        QVERIFY(gps->importGpsFormat(imported));
        QTemporaryDir dir;
        const QString path = dir.filePath("format.vtl");
        gps->writeGpsFormatsFile(path);
        const QByteArray text = fileContents(path);
        QCOMPARE(text,
                 ("5\nA,TypeX,Météo,Imported from Gnx,64,0,1,1,24,1,1,0,1,0,25,1,26,23,2,3,4,5,1,1,beef,10,"
                  "16,26,40,7,0#\n" +
                  lineWith(0, "Alpha") + "\n" + lineWith(0, "Mid") + "\n" + kNewFormat + "#\n" +
                  lineWith(0, "Zulu").replace("Desc", "Later") + "\n")
                     .toUtf8());
        gps->readGpsFormatsFile(path);
        QCOMPARE(names(), QStringList({"A:2", "Alpha:2", "Mid:2", "New GPS Format:2", "Zulu:2"}));
        QCOMPARE(gps->gpsFormatsText(), text);

        const QString absent = dir.filePath("absent.vtl");
        QCOMPARE(TestSupport::thrown([&] { gps->readGpsFormatsFile(absent); }),
                 QString("Unable to open GPS formats file %1").arg(absent));
        QCOMPARE(gps->count(), 0);
    }

    void failedWriteKeepsOldFile()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("format.vtl");
        GpsFormat::instance()->writeGpsFormatsFile(path);
        QCOMPARE(fileContents(path), QByteArray("0\n"));

        QString big = "200\n"; // more than the write buffer holds
        for (int i = 0; i < 200; ++i)
            big += lineWith(0, QString::number(i)) + "\n";
        load(big);
        // A file size limit stands in for a full disk: the write fails half-way.
        struct rlimit saved;
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &saved), 0);
        std::signal(SIGXFSZ, SIG_IGN); // the failed write returns an error instead
        const struct rlimit small = {4096, saved.rlim_max};
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);
        const QString error = TestSupport::thrown([&] { GpsFormat::instance()->writeGpsFormatsFile(path); });
        setrlimit(RLIMIT_FSIZE, &saved);
        QCOMPARE(error, QString("Unable to write GPS formats file %1").arg(path));
        QCOMPARE(fileContents(path), QByteArray("0\n"));
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList({"format.vtl"})); // no leftovers
    }

    void newImportSaveDelete()
    {
        GpsFormat* gps = GpsFormat::instance();
        load("2\n" + lineWith(0, "A") + "\n" + lineWith(0, "B") + "\n");
        GpsFormat_t* a = gps->getGpsFormat("A");
        QSignalSpy added(gps, &GpsFormat::sigNewGpsFormat);
        gps->newGpsFormat();
        gps->newGpsFormat(); // replaces the first one
        QCOMPARE(added.count(), 2);
        QCOMPARE(fields(*gps->getGpsFormat("New GPS Format")), kNewFormat.split(','));
        gps->deleteGpsFormat("absent");
        gps->deleteGpsFormat("New GPS Format");

        // A known name gives the stored format: silently with the same numbers, else with a warning.
        QVERIFY(!gps->importGpsFormat(parsed(lineWith(0, ""))));
        GpsFormat_t other = parsed(lineWith(3, "from the receiver").replace("Fmt A", "A"));
        QTest::failOnWarning(QRegularExpression("GPS format"));
        QCOMPARE(gps->importGpsFormat(other), a);
        other.latitude.len = 20;
        QTest::ignoreMessage(QtWarningMsg,
                             "A GPS format with the same name \"A\" but with different values already "
                             "exists. Use format from file.");
        QCOMPARE(gps->importGpsFormat(other), a);
        GpsFormat_t fresh = parsed(lineWith(0, "Fresh"));
        fresh.origin = GpsFormat::ORIGIN_FILE;
        GpsFormat_t* copy = gps->importGpsFormat(fresh);
        QCOMPARE(gps->getGpsFormat("Fresh"), copy);
        QCOMPARE(added.count(), 3);
        fresh.description = "Imported from Gnx";
        QCOMPARE(fields(*gps->getGpsFormat("Fresh")), fields(fresh));

        GpsFormat_t edited = *a;
        QCOMPARE(TestSupport::thrown([&] { gps->saveGpsFormat("C", edited); }),
                 QString("Unable to save GPS format C."));
        QVERIFY(!gps->saveGpsFormat("A", edited)); // nothing changed
        QCOMPARE(names(), QStringList({"A:2", "B:2", "Fresh:1"}));
        edited.name = "B";
        QCOMPARE(TestSupport::thrown([&] { gps->saveGpsFormat("A", edited); }),
                 QString("Unable to save GPS format B: name already used."));
        QCOMPARE(names(), QStringList({"A:0", "B:2", "Fresh:1"})); // the refused rename already claimed it
        edited.name = "A";
        edited.description = "New text"; // a text alone is a change
        QVERIFY(gps->saveGpsFormat("A", edited));
        edited.name = "Z";
        QVERIFY(gps->saveGpsFormat("A", edited));
        QCOMPARE(names(), QStringList({"B:2", "Fresh:1", "Z:0"}));
        QCOMPARE(gps->getGpsFormat("Z"), a); // same object: pointers elsewhere stay valid
        QCOMPARE(fields(*a), fields(edited));
        gps->deleteGpsFormat("Z");
        QCOMPARE(a->name, QString("Z")); // still readable by whoever held it
    }

    // Bits are numbered MSB-first from the first payload byte; 5265c0 is 5,400,000. A latitude's range is 90.
    void decodeCoordinate_data()
    {
        QTest::addColumn<QByteArray>("payload");
        QTest::addColumn<GpsCoordinate_t>("coordinate");
        QTest::addColumn<double>("expected");
        const auto row = [](const char* name, const char* hex, const GpsCoordinate_t& c, double expected) {
            QTest::newRow(name) << QByteArray::fromHex(hex) << c << expected;
        };
        row("90 degrees", "5265c0", {0, 0, 0, 24, 1, 1, 0, 1, 0}, 90.0);
        row("TY folds above the range", "5265c1", {0, 0, 0, 24, 1, 1, 0, 1, 1},
            (5400001 - 10800000) / 60000.0);
        row("sign beyond the payload", "ea60", {16, 1, 0, 16, 1, 1, 0, 1, 0}, 1.0);
        row("sign 11 multiplies by -5", "c00c", {0, 2, 8, 8, 5000, 1, 0, 1, 0}, -5.0);
        row("T/U, then V/W", "ea60", {0, 0, 0, 16, 3, 2, -30000, 1, 0}, 1.0);
        row("W 0 gives NaN", "5265c0", {0, 0, 0, 24, 1, 1, 0, 0, 0}, qQNaN());
        row("value one bit beyond the end gives V/W", "00ff", {0, 0, 9, 8, 1, 1, 60000, 1, 0}, 1.0);
        row("40 bits keep the last 32", "0102030405", {0, 0, 0, 40, 1, 1, 0, 1, 0}, 0x02030405 / 60000.0);
    }

    void decodeCoordinate()
    {
        QFETCH(QByteArray, payload);
        QFETCH(GpsCoordinate_t, coordinate);
        QFETCH(double, expected);
        const double result = GpsFormat::decodeCoordinate(payload, coordinate, GpsFormat::kLatitudeLimit);
        QCOMPARE(QString::number(result, 'g', 17), QString::number(expected, 'g', 17)); // NaN included
    }

    void decodePosition()
    {
        GpsFormat* gps = GpsFormat::instance();
        double latitude = 12.5, longitude = -7.25;
        // Latitude: bits 0..23; longitude: sign at bit 24, value at bits 25..48; both fold above their range.
        load("1\nPos,,,,8,0,0,0,24,1,1,0,1,1,24,1,25,24,1,1,0,1,1,0,0,0,0,0,0,0,0#\n");
        for (const QString name : {"", "pos"})
            QVERIFY(!gps->decodePosition(name, QByteArray::fromHex("5265c0"), latitude, longitude));
        QCOMPARE(QList<double>({latitude, longitude}), QList<double>({12.5, -7.25}));
        // 90 degrees kept at the bound; sign 0 and 5,400,001 (0x5265c1) left-aligned in the next 25 bits.
        QVERIFY(gps->decodePosition("Pos", QByteArray::fromHex("5265c02932e080"), latitude, longitude));
        QCOMPARE(QList<double>({latitude, longitude}), QList<double>({90.0, 5400001 / 60000.0})); // range 180
    }

    // Positions as the RX table shows them, by the setup's coordinate type (combo order).
    void coordinateText_data()
    {
        QTest::addColumn<double>("degrees");
        QTest::addColumn<int>("type");
        QTest::addColumn<QString>("text");
        const auto row = [](const char* name, double degrees, int type, const char* text) {
            QTest::newRow(name) << degrees << type << QString::fromUtf8(text);
        };
        row("decimal", -12.345678, 0, "-12.34568");
        row("degrees and minutes", 48.5125, 1, "48°30.75'");
        row("south of the equator by minutes", -0.5, 1, "-0°30.00'");
        row("minutes carry into degrees", 59.9999999, 1, "60°00.00'");
        row("degrees, minutes, seconds", 12.3456, 2, "12°20'44\"");
        row("rounded to zero has no sign", -0.0000001, 2, "0°00'00\"");
        row("not a number", qQNaN(), 1, "nan");
        row("far beyond a coordinate", 1e15, 2, "1000000000000000.00000");
    }

    void coordinateText()
    {
        QFETCH(double, degrees);
        QFETCH(int, type);
        QFETCH(QString, text);
        QCOMPARE(CoordinateText::format(degrees, OrviaGonioManager::Com::GnxLink::CoordType_t(type)), text);
    }
};

QTEST_GUILESS_MAIN(TestGpsFormat)
#include "tst_gpsformat.moc"
