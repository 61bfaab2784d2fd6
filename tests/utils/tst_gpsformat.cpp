#include "mrl/utils/Exception.h"
#include "utils/GpsFormat.h"

#include <QBuffer>
#include <QDir>
#include <QFile>
#include <QMetaEnum>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <csignal>
#include <sys/resource.h>

using OrviaGonioManager::Utils::GpsCoordinate_t;
using OrviaGonioManager::Utils::GpsFormat;
using OrviaGonioManager::Utils::GpsFormat_t;

namespace {

// A complete line; every field differs from its neighbours so that a shifted column shows.
const QStringList kBaseParts = {"Fmt A", "TypeX", "Maker", "Desc", "64", "0",  "1",  "1", "24", "1", "1",
                                "0",     "1",     "0",     "25",   "1",  "26", "23", "2", "3",  "4", "5",
                                "1",     "1",     "1021",  "10",   "16", "26", "40", "7", "2"};

QVariantList baseValues()
{
    return {QString("Fmt A"),
            QString("TypeX"),
            QString("Maker"),
            QString("Desc"),
            64LL,
            0LL,
            1LL,
            1LL,
            24LL,
            1LL,
            1LL,
            0LL,
            1LL,
            0LL,
            25LL,
            1LL,
            26LL,
            23LL,
            2LL,
            3LL,
            4LL,
            5LL,
            1LL,
            1LL,
            0x1021LL,
            10LL,
            16LL,
            26LL,
            40LL,
            7LL,
            true};
}

QString lineWith(int index, const QString& value, const QString& end = "#")
{
    QStringList parts = kBaseParts;
    parts[index] = value;
    return parts.join(',') + end;
}

QVariantList coordinateValues(const GpsCoordinate_t& c)
{
    return {qint64(c.signPos), qint64(c.signLen), qint64(c.pos), qint64(c.len), qint64(c.T),
            qint64(c.U),       qint64(c.V),       qint64(c.W),   qint64(c.TY)};
}

// The 31 values of a format in file order.
QVariantList values(const GpsFormat_t& f)
{
    QVariantList v = {f.name, f.type, f.manufacturer, f.description, qint64(f.payloadLength)};
    v << coordinateValues(f.latitude) << coordinateValues(f.longitude);
    v << qint64(f.encryptionType) << qint64(f.polynom) << qint64(f.crcPos) << qint64(f.crcLen)
      << qint64(f.dataPos) << qint64(f.dataLen) << qint64(f.indexPos) << f.gpsCheck;
    return v;
}

void load(const QByteArray& text)
{
    QBuffer buffer;
    buffer.setData(text);
    buffer.open(QIODevice::ReadOnly);
    GpsFormat::instance()->readGpsFormats(buffer);
}

GpsFormat_t parsed(const QString& line)
{
    GpsFormat_t f;
    if (!GpsFormat::parseGpsFormatLine(line, f))
        qFatal("line not parsed");
    return f;
}

QString exceptionText(const std::function<void()>& f)
{
    try {
        f();
    } catch (const MRL::Utils::Exception& e) {
        return e.message();
    }
    return QString();
}

} // namespace

class TestGpsFormat : public QObject
{
    Q_OBJECT

private slots:
    void init() { load("0\n"); }

    void parseLine_data()
    {
        QTest::addColumn<QString>("line");
        QTest::addColumn<bool>("accepted");
        QTest::addColumn<int>("index");      // field that differs from the base values
        QTest::addColumn<QVariant>("value"); // its expected value

        const QString base = kBaseParts.join(',');
        QTest::newRow("with #") << base + "#" << true << 0 << QVariant("Fmt A");
        QTest::newRow("without #") << base << true << 0 << QVariant("Fmt A");
        QTest::newRow("30 fields") << QStringList(kBaseParts.mid(1)).join(',') + "#" << false << 0
                                   << QVariant();
        QTest::newRow("32 fields, comma in text")
            << lineWith(3, "Desc, with comma") << false << 0 << QVariant();
        QTest::newRow("count line") << "3" << false << 0 << QVariant();
        QTest::newRow("empty line") << "" << false << 0 << QVariant();
        QTest::newRow("texts untrimmed") << lineWith(1, " spaced ") << true << 1 << QVariant(" spaced ");
        QTest::newRow("empty name") << lineWith(0, "") << true << 0 << QVariant("");
        QTest::newRow("utf-8 text") << lineWith(2, "Météo") << true << 2 << QVariant("Météo");
        QTest::newRow("negative number") << lineWith(4, "-5") << true << 4 << QVariant(-5LL);
        QTest::newRow("non-numeric") << lineWith(4, "abc") << true << 4 << QVariant(0LL);
        QTest::newRow("above int32") << lineWith(8, "2147483648") << true << 8 << QVariant(0LL);
        QTest::newRow("int32 min") << lineWith(8, "-2147483648") << true << 8 << QVariant(-2147483648LL);
        QTest::newRow("longitude TY") << lineWith(22, "7") << true << 22 << QVariant(7LL);
        QTest::newRow("polynom is hexadecimal") << lineWith(24, "8005") << true << 24 << QVariant(0x8005LL);
        QTest::newRow("polynom upper case") << lineWith(24, "A001") << true << 24 << QVariant(0xa001LL);
        QTest::newRow("polynom not hex") << lineWith(24, "xyz") << true << 24 << QVariant(0LL);
        QTest::newRow("polynom -1 keeps low bits") << lineWith(24, "-1") << true << 24 << QVariant(0xffffLL);
        QTest::newRow("polynom 10000 keeps low bits") << lineWith(24, "10000") << true << 24 << QVariant(0LL);
        QTest::newRow("encryption 2") << lineWith(23, "2") << true << 23 << QVariant(2LL);
        QTest::newRow("encryption 65535") << lineWith(23, "65535") << true << 23 << QVariant(65535LL);
        QTest::newRow("encryption above 16 bits") << lineWith(23, "65536") << true << 23 << QVariant(0LL);
        QTest::newRow("encryption negative") << lineWith(23, "-1") << true << 23 << QVariant(0LL);
        QTest::newRow("gpsCheck 2 is true") << lineWith(30, "2") << true << 30 << QVariant(true);
        QTest::newRow("gpsCheck 0") << lineWith(30, "0") << true << 30 << QVariant(false);
        QTest::newRow("gpsCheck above 16 bits") << lineWith(30, "65536") << true << 30 << QVariant(false);
        QTest::newRow("gpsCheck not a number") << lineWith(30, "yes") << true << 30 << QVariant(false);
        QTest::newRow("only one # dropped") << lineWith(30, "1", "##") << true << 30 << QVariant(false);
    }

    void parseLine()
    {
        QFETCH(QString, line);
        QFETCH(bool, accepted);
        QFETCH(int, index);
        QFETCH(QVariant, value);

        GpsFormat_t f;
        f.name = "untouched";
        QCOMPARE(GpsFormat::parseGpsFormatLine(line, f), accepted);
        if (!accepted) {
            QCOMPARE(f.name, QString("untouched"));
            return;
        }
        QVariantList expected = baseValues();
        expected[index] = value;
        QCOMPARE(values(f), expected);
        QCOMPARE(f.origin, GpsFormat::ORIGIN_GUI); // origin is the reader's business
    }

    void formatLine()
    {
        GpsFormat_t f = parsed(kBaseParts.join(','));
        f.polynom = 0xA001;
        f.gpsCheck = true;
        f.encryptionType = GpsFormat::ENCRYPTIONTYPE_2;
        f.latitude.T = -7;
        const QString line = GpsFormat::gpsFormatLine(f);
        QCOMPARE(line,
                 QString("Fmt A,TypeX,Maker,Desc,64,0,1,1,24,-7,1,0,1,0,25,1,26,23,2,3,4,5,1,2,a001,10,16,"
                         "26,40,7,1"));
        QVERIFY(GpsFormat::compareGpsFormats(parsed(line), f, true));
    }

    void readFile()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("format.vtl");
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write("4\n"
                   "\n" +
                   lineWith(0, "Zulu").toUtf8() + "\r\n" + lineWith(3, "a,b").toUtf8() + "\n" +
                   lineWith(0, "Alpha").toUtf8() + "\n" +
                   lineWith(0, "Zulu", "").replace("Desc", "Later").toUtf8() + "\n" +
                   QStringList(kBaseParts.mid(0, 30)).join(',').toUtf8() + "\n" +
                   lineWith(0, "Mid").toUtf8()); // no final line feed
        file.close();

        GpsFormat* gps = GpsFormat::instance();
        QSignalSpy added(gps, &GpsFormat::sigNewGpsFormat);
        gps->readGpsFormatsFile(path);

        QCOMPARE(added.count(), 4); // one per accepted line, duplicates included
        QCOMPARE(gps->count(), 3);
        QStringList names;
        for (const GpsFormat_t* f : gps->gpsFormats()) {
            names << f->name;
            QCOMPARE(f->origin, GpsFormat::ORIGIN_FILE);
        }
        QCOMPARE(names, QStringList({"Alpha", "Mid", "Zulu"}));
        QCOMPARE(gps->getGpsFormat("Zulu")->description, QString("Later")); // the later line wins
        QCOMPARE(added.last().at(0).value<GpsFormat_t*>(), gps->getGpsFormat("Mid"));
        QVERIFY(!gps->getGpsFormat("zulu")); // names are case-sensitive
    }

    void readMissingFileEmptiesCollection()
    {
        GpsFormat* gps = GpsFormat::instance();
        gps->newGpsFormat();
        QTemporaryDir dir;
        const QString path = dir.filePath("absent.vtl");
        QCOMPARE(exceptionText([&] { gps->readGpsFormatsFile(path); }),
                 QString("Unable to open GPS formats file %1").arg(path));
        QCOMPARE(gps->count(), 0);
        QVERIFY(!gps->getGpsFormat("New GPS Format"));
    }

    void writeReadRoundTrip()
    {
        GpsFormat* gps = GpsFormat::instance();
        load("2\n" + lineWith(0, "Mid").toUtf8() + "\n" + lineWith(0, "B", "").toUtf8() + "\n");
        gps->newGpsFormat(); // ORIGIN_GUI
        GpsFormat_t imported = parsed(lineWith(0, "A"));
        imported.polynom = 0xBEEF;
        imported.longitude.signLen = -3;
        imported.gpsCheck = false;
        QVERIFY(gps->importGpsFormat(imported)); // ORIGIN_GNX
        GpsFormat_t edited = *gps->getGpsFormat("Mid");
        edited.latitude.TY = 1;
        QVERIFY(gps->saveGpsFormat("Mid", edited));

        QList<GpsFormat_t> before;
        for (const GpsFormat_t* f : gps->gpsFormats())
            before << *f;

        QTemporaryDir dir;
        const QString path = dir.filePath("format.vtl");
        gps->writeGpsFormatsFile(path);
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QList<QByteArray> lines = file.readAll().split('\n');
        QCOMPARE(lines.size(), 6); // count, four formats, nothing after the last line feed
        QCOMPARE(lines.first(), QByteArray("4"));
        QVERIFY(lines.at(1).startsWith("A,") && lines.at(1).endsWith(",beef,10,16,26,40,7,0#"));
        QVERIFY(lines.at(4).startsWith("New GPS Format,,,Created by Orvia Gonio Manager,0,"));
        QCOMPARE(lines.last(), QByteArray());

        gps->readGpsFormatsFile(path);
        const QList<GpsFormat_t*> after = gps->gpsFormats();
        QCOMPARE(after.size(), before.size());
        for (int i = 0; i < after.size(); ++i) {
            QCOMPARE(after.at(i)->origin, GpsFormat::ORIGIN_FILE);
            QCOMPARE(values(*after.at(i)), values(before.at(i)));
        }
        QCOMPARE(after.at(0)->name, QString("A"));
        QCOMPARE(after.at(3)->name, QString("New GPS Format"));
    }

    void writeGpsCheckAsOne()
    {
        load("1\n" + lineWith(30, "2").toUtf8() + "\n");
        QVERIFY(GpsFormat::instance()->gpsFormatsText().endsWith(",7,1#\n"));
    }

    void writeEmptyCollection()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("format.vtl");
        GpsFormat::instance()->writeGpsFormatsFile(path);
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("0\n"));
    }

    void writeToMissingDirectory()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("missing/format.vtl");
        QCOMPARE(exceptionText([&] { GpsFormat::instance()->writeGpsFormatsFile(path); }),
                 QString("Unable to open GPS formats file %1").arg(path));
    }

    void failedWriteKeepsOldFile()
    {
        QTemporaryDir dir;
        const QString path = dir.filePath("format.vtl");
        const QByteArray old = "1\n" + lineWith(0, "Old").toUtf8() + "#\n";
        {
            QFile file(path);
            QVERIFY(file.open(QIODevice::WriteOnly));
            file.write(old);
        }
        QByteArray big = "200\n";
        for (int i = 0; i < 200; ++i)
            big += lineWith(0, QString("F%1").arg(i, 3, 10, QChar('0'))).toUtf8() + "\n";
        load(big);

        // A file size limit stands in for a full disk: the write fails half-way.
        struct rlimit saved;
        QCOMPARE(getrlimit(RLIMIT_FSIZE, &saved), 0);
        const auto oldHandler = std::signal(SIGXFSZ, SIG_IGN);
        struct rlimit small = saved;
        small.rlim_cur = 4096;
        QCOMPARE(setrlimit(RLIMIT_FSIZE, &small), 0);
        const QString error = exceptionText([&] { GpsFormat::instance()->writeGpsFormatsFile(path); });
        setrlimit(RLIMIT_FSIZE, &saved);
        std::signal(SIGXFSZ, oldHandler);

        QCOMPARE(error, QString("Unable to write GPS formats file %1").arg(path));
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), old);
        QCOMPARE(QDir(dir.path()).entryList(QDir::Files), QStringList({"format.vtl"})); // no leftovers
    }

    void newFormat()
    {
        GpsFormat* gps = GpsFormat::instance();
        QSignalSpy added(gps, &GpsFormat::sigNewGpsFormat);
        gps->newGpsFormat();
        gps->newGpsFormat(); // replaces the first one
        QCOMPARE(added.count(), 2);
        QCOMPARE(gps->count(), 1);
        const GpsFormat_t* f = gps->getGpsFormat("New GPS Format");
        QVERIFY(f);
        QCOMPARE(added.last().at(0).value<GpsFormat_t*>(), f);
        QCOMPARE(f->origin, GpsFormat::ORIGIN_GUI);
        QCOMPARE(f->description, QString("Created by Orvia Gonio Manager"));
        GpsFormat_t zero;
        zero.name = f->name;
        zero.description = f->description;
        QCOMPARE(values(*f), values(zero));
    }

    void importFormat()
    {
        GpsFormat* gps = GpsFormat::instance();
        load("1\n" + lineWith(0, "Known").toUtf8() + "\n");
        QSignalSpy added(gps, &GpsFormat::sigNewGpsFormat);

        GpsFormat_t unnamed = parsed(lineWith(0, ""));
        QVERIFY(!gps->importGpsFormat(unnamed));

        // Same numbers, other texts: the stored one, silently.
        GpsFormat_t sameNumbers = parsed(lineWith(0, "Known"));
        sameNumbers.description = "from the receiver";
        GpsFormat_t* known = gps->getGpsFormat("Known");
        QCOMPARE(gps->importGpsFormat(sameNumbers), known);

        // Other numbers: still the stored one, with a warning.
        GpsFormat_t otherNumbers = sameNumbers;
        otherNumbers.latitude.len = 20;
        QTest::ignoreMessage(QtWarningMsg,
                             "A GPS format with the same name \"Known\" but with different values "
                             "already exists. Use format from file.");
        QCOMPARE(gps->importGpsFormat(otherNumbers), known);
        QCOMPARE(known->latitude.len, 24);
        QCOMPARE(known->origin, GpsFormat::ORIGIN_FILE);
        QCOMPARE(added.count(), 0);

        GpsFormat_t fresh = parsed(lineWith(0, "Fresh"));
        fresh.origin = GpsFormat::ORIGIN_FILE;
        GpsFormat_t* copy = gps->importGpsFormat(fresh);
        QVERIFY(copy && copy != &fresh);
        QCOMPARE(gps->getGpsFormat("Fresh"), copy);
        QCOMPARE(copy->origin, GpsFormat::ORIGIN_GNX);
        QCOMPARE(copy->description, QString("Imported from Gnx"));
        QVERIFY(GpsFormat::compareGpsFormats(*copy, fresh, false));
        QCOMPARE(copy->type, fresh.type);
        QCOMPARE(added.count(), 1);
    }

    void save_data()
    {
        QTest::addColumn<QString>("oldName");
        QTest::addColumn<int>("index"); // field edited, -1 for none
        QTest::addColumn<QString>("value");
        QTest::addColumn<bool>("changed");
        QTest::addColumn<QString>("error");
        QTest::addColumn<QStringList>("namesAfter");

        const QStringList both = {"A", "B"};
        QTest::newRow("unknown name") << "C" << 4 << "1" << false << "Unable to save GPS format C." << both;
        QTest::newRow("no change") << "A" << -1 << "" << false << "" << both;
        QTest::newRow("description only") << "A" << 3 << "New text" << true << "" << both;
        QTest::newRow("type only") << "A" << 1 << "T2" << true << "" << both;
        QTest::newRow("number") << "A" << 9 << "3" << true << "" << both;
        QTest::newRow("gpsCheck") << "A" << 30 << "0" << true << "" << both;
        QTest::newRow("rename to own name") << "A" << 0 << "A" << false << "" << both;
        QTest::newRow("rename") << "A" << 0 << "Z" << true << "" << QStringList({"B", "Z"});
        QTest::newRow("rename to a name in use")
            << "A" << 0 << "B" << false << "Unable to save GPS format B: name already used." << both;
        QTest::newRow("rename differs in case") << "A" << 0 << "b" << true << "" << QStringList({"B", "b"});
    }

    void save()
    {
        QFETCH(QString, oldName);
        QFETCH(int, index);
        QFETCH(QString, value);
        QFETCH(bool, changed);
        QFETCH(QString, error);
        QFETCH(QStringList, namesAfter);

        GpsFormat* gps = GpsFormat::instance();
        load("2\n" + lineWith(0, "A").toUtf8() + "\n" + lineWith(0, "B").toUtf8() + "\n");
        GpsFormat_t* a = gps->getGpsFormat("A");
        const GpsFormat_t b = *gps->getGpsFormat("B");
        const GpsFormat_t aBefore = *a;
        QStringList parts = kBaseParts;
        parts[0] = "A";
        if (index >= 0)
            parts[index] = value;
        const GpsFormat_t edited = parsed(parts.join(','));

        QSignalSpy added(gps, &GpsFormat::sigNewGpsFormat);
        bool result = false;
        QCOMPARE(exceptionText([&] { result = gps->saveGpsFormat(oldName, edited); }), error);
        QCOMPARE(result, changed);
        QCOMPARE(added.count(), 0);

        QStringList names;
        for (const GpsFormat_t* f : gps->gpsFormats())
            names << f->name;
        QCOMPARE(names, namesAfter);
        QCOMPARE(values(*gps->getGpsFormat("B")), values(b));
        if (changed) {
            GpsFormat_t* saved = gps->getGpsFormat(edited.name);
            QCOMPARE(saved, a); // same object, pointers elsewhere stay valid
            QCOMPARE(values(*saved), values(edited));
            QCOMPARE(saved->origin, GpsFormat::ORIGIN_GUI);
        } else if (oldName == "A") {
            QCOMPARE(values(*a), values(aBefore));
            // A refused rename has already claimed the format for the user interface.
            QCOMPARE(a->origin, error.isEmpty() ? GpsFormat::ORIGIN_FILE : GpsFormat::ORIGIN_GUI);
        }
    }

    void deleteFormat()
    {
        GpsFormat* gps = GpsFormat::instance();
        load("2\n" + lineWith(0, "A").toUtf8() + "\n" + lineWith(0, "B").toUtf8() + "\n");
        GpsFormat_t* a = gps->getGpsFormat("A");
        gps->deleteGpsFormat("absent");
        QCOMPARE(gps->count(), 2);
        gps->deleteGpsFormat("A");
        QCOMPARE(gps->count(), 1);
        QVERIFY(!gps->getGpsFormat("A"));
        QCOMPARE(a->name, QString("A")); // still readable by whoever held it
        gps->deleteGpsFormat("B");
        QCOMPARE(gps->count(), 0);
        QVERIFY(!gps->getGpsFormat("B"));
    }

    void compare_data()
    {
        QTest::addColumn<int>("index"); // field changed in b, -1 for none, 31 for the origin
        QTest::addColumn<bool>("equalWithoutTexts");
        QTest::addColumn<bool>("equalWithTexts");

        QTest::newRow("identical") << -1 << true << true;
        QTest::newRow("origin") << 31 << true << true;
        QTest::newRow("name") << 0 << false << false;
        QTest::newRow("type") << 1 << true << false;
        QTest::newRow("manufacturer") << 2 << true << false;
        QTest::newRow("description") << 3 << true << false;
        for (int i = 4; i <= 30; ++i)
            QTest::newRow(qPrintable(QString("field %1").arg(i))) << i << false << false;
    }

    void compare()
    {
        QFETCH(int, index);
        QFETCH(bool, equalWithoutTexts);
        QFETCH(bool, equalWithTexts);

        const GpsFormat_t a = parsed(kBaseParts.join(','));
        QStringList parts = kBaseParts;
        if (index >= 0 && index < 31)
            parts[index] = index == 30 ? "0" : index == 24 ? "beef" : parts[index] + "9";
        GpsFormat_t b = parsed(parts.join(','));
        if (index == 31)
            b.origin = GpsFormat::ORIGIN_GNX;
        QCOMPARE(GpsFormat::compareGpsFormats(a, b, false), equalWithoutTexts);
        QCOMPARE(GpsFormat::compareGpsFormats(a, b, true), equalWithTexts);
        QCOMPARE(GpsFormat::compareGpsFormats(b, a, true), equalWithTexts);
    }

    void originTexts()
    {
        QCOMPARE(GpsFormat::originText(GpsFormat::ORIGIN_GUI), QString("From Orvia Gonio Manager"));
        QCOMPARE(GpsFormat::originText(GpsFormat::ORIGIN_GNX), QString("From Gonio favorite plaform"));
        QCOMPARE(GpsFormat::originText(GpsFormat::ORIGIN_FILE), QString("From VTL file"));
        QCOMPARE(QMetaEnum::fromType<GpsFormat::Origin_t>().valueToKey(GpsFormat::ORIGIN_FILE),
                 "ORIGIN_FILE");
        QCOMPARE(QMetaEnum::fromType<GpsFormat::EncryptionType_t>().valueToKey(GpsFormat::ENCRYPTIONTYPE_2),
                 "ENCRYPTIONTYPE_2");
    }

    void sampleDataFile()
    {
        const QString path = QStringLiteral(OGM_SOURCE_DIR "/Data/format.vtl");
        if (!QFile::exists(path))
            QSKIP("no sample GPS formats file in Data/");
        GpsFormat* gps = GpsFormat::instance();
        gps->readGpsFormatsFile(path);
        QVERIFY(gps->count() > 0);
        QFile file(path);
        QVERIFY(file.open(QIODevice::ReadOnly));
        const QByteArray text = file.readAll();
        QCOMPARE(text.left(text.indexOf('\n')).trimmed().toInt(), gps->count());
    }
};

QTEST_GUILESS_MAIN(TestGpsFormat)
#include "tst_gpsformat.moc"
