// The platforms file checked before an import: the first bad line is named by its number in the
// file, its column title and what is wrong with it; good files give their platforms.
#include "com/PlatformsCheck.h"
#include "utils/GpsFormat.h"

#include <QBuffer>
#include <QTemporaryDir>
#include <QTest>

using namespace OrviaGonioManager::Com;
using OrviaGonioManager::Utils::GpsFormat;
using OrviaGonioManager::Utils::GpsFormat_t;

Q_DECLARE_METATYPE(GnxLink::GnxVersion_t)

namespace {

const auto V1 = GnxLink::GNX_V1;
const auto V2 = GnxLink::GNX_V2;
const QString kV1Titles =
    QStringLiteral("Orvia ID, Label, GPS Format Name, Repetition period, Mean Direction Values");
const QString kV2Titles = QStringLiteral("Orvia ID, Label, GPS Format Name, Repetition period, Orvia Band, "
                                         "Modulation, Frequency Mode, Narrow Mode Frequency");

// A good line of each generation, with the fields to replace given by column.
QString goodLine(GnxLink::GnxVersion_t version, const QMap<int, QString>& replaced = {})
{
    QStringList fields = version == V1
                             ? QStringList{"1A2B3", "Float", "FMT", "120", "7"}
                             : QStringList{"1A2B3", "Float", "FMT", "120", "5", "1", "0", "401320000"};
    for (auto it = replaced.begin(); it != replaced.end(); ++it)
        fields[it.key()] = it.value();
    return fields.join(',');
}

GpsFormat_t format(const QString& name, qint32 dataLen, int encryptionType)
{
    GpsFormat_t f;
    f.name = name;
    f.dataLen = dataLen;
    f.encryptionType = GpsFormat::EncryptionType_t(encryptionType);
    return f;
}

} // namespace

class TestPlatformsCheck : public QObject
{
    Q_OBJECT

    QTemporaryDir dir_;

    // Header, a comment and an empty line, a good line (line 4), then the body.
    QString write(GnxLink::GnxVersion_t version, const QStringList& body)
    {
        const QString path = dir_.filePath(QStringLiteral("platforms.csv"));
        QFile file(path);
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            return {};
        file.write((QStringList{PlatformsFile::header(version), "# field kit", "", goodLine(version)} + body)
                       .join('\n')
                       .toUtf8() +
                   '\n');
        return path;
    }

private slots:
    void initTestCase()
    {
        QByteArray text = "3\n";
        for (const GpsFormat_t& f : {format("FMT", 192, 1), format("BADLEN", 0, 0), format("BADENC", 8, 7)})
            text += GpsFormat::gpsFormatLine(f).toUtf8() + '\n';
        QBuffer buffer(&text);
        buffer.open(QIODevice::ReadOnly);
        GpsFormat::instance()->readGpsFormats(buffer);
    }

    // Each kind of bad field, on line 5, followed by another bad line that is never reached.
    void badLine_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<QStringList>("body");
        QTest::addColumn<int>("line");
        QTest::addColumn<QString>("field");
        QTest::addColumn<QString>("problem");
        const auto row = [](const char* name, GnxLink::GnxVersion_t version, const QString& line,
                            const QString& field, const QString& problem) {
            QTest::addRow("GNX%d34 %s", int(version), name)
                << version << QStringList{line, "ZZZZZ"} << 5 << field << problem;
        };
        for (const auto version : {V1, V2}) {
            const auto bad = [&](int column, const QString& value) {
                return goodLine(version, {{column, value}});
            };
            const QString columns = version == V1
                                        ? "%1 columns where a GNX134 line has 5 (" + kV1Titles + ")"
                                        : "%1 columns where a GNX234 line has 8 (" + kV2Titles + ")";
            row("too few columns", version, "1A2B3,Float,FMT,120", "", columns.arg(4));
            row("comma in the label", version, bad(1, "north, east"), "", columns.arg(version == V1 ? 6 : 9));
            row("the other generation's line", version, goodLine(version == V1 ? V2 : V1), "",
                version == V1 ? columns.arg(8) + "; is it a GNX234 file?"
                              : columns.arg(5) + "; is it a GNX134 file?");
            for (const char* id : {"ZZZZZ", "123456", "1A2B3 ", ""})
                row(qPrintable(QString("id \"%1\"").arg(id)), version, bad(0, id), "Orvia ID",
                    QString("\"%1\" is not 5 or 7 hexadecimal digits").arg(id));
            row("label with Ω", version, bad(1, "Cap Ω"), "Label",
                "\"Cap Ω\" holds \"Ω\", which the receiver cannot take (Latin-1 characters only)");
            for (const char* label : {"A*B", "$A"})
                row(label, version, bad(1, label), "Label",
                    QString("\"%1\" holds \"%2\", which would break the command sent to the receiver")
                        .arg(label, QString(label).remove('A').remove('B')));
            row("unknown format", version, bad(2, "NOPE"), "GPS Format Name",
                "\"NOPE\" is not a known GPS format");
            row("format name with *", version, bad(2, "F*"), "GPS Format Name",
                "\"F*\" holds \"*\", which would break the command sent to the receiver");
            row("format data length 0", version, bad(2, "BADLEN"), "GPS Format Name",
                "GPS format \"BADLEN\" has data length 0; the receiver takes 1 to 254");
            row("format encryption 7", version, bad(2, "BADENC"), "GPS Format Name",
                "GPS format \"BADENC\" has encryption type 7; the receiver takes 0 to 2");
            for (const char* period : {"65536", "-1", "12.5", "", "0x10", "99999999999999999999"})
                row(qPrintable(QString("period \"%1\"").arg(period)), version, bad(3, period),
                    "Repetition period", QString("\"%1\" is not a whole number from 0 to 65535").arg(period));
        }
        row("mean direction 256", V1, goodLine(V1, {{4, "256"}}), "Mean Direction Values",
            "\"256\" is not a whole number from 0 to 255");
        row("band 9", V2, goodLine(V2, {{4, "9"}}), "Orvia Band",
            "\"9\" is not a known value: 0 (B1) to 8 (B9)");
        row("band B1", V2, goodLine(V2, {{4, "B1"}}), "Orvia Band",
            "\"B1\" is not a known value: 0 (B1) to 8 (B9)");
        row("modulation 3", V2, goodLine(V2, {{5, "3"}}), "Modulation",
            "\"3\" is not a known value: 0 (A2), 1 (A3) or 2 (A4)");
        row("frequency mode 2", V2, goodLine(V2, {{6, "2"}}), "Frequency Mode",
            "\"2\" is not a known value: 0 (NARROW) or 1 (WIDE)");
        for (const char* frequency : {"-5", "2147483648"})
            row(qPrintable(QString("narrow frequency %1").arg(frequency)), V2, goodLine(V2, {{7, frequency}}),
                "Narrow Mode Frequency",
                QString("\"%1\" is not a whole number from 0 to 2147483647").arg(frequency));
        // Line 4 is the first platform: the one after the last slot is on line 4 + the slot count.
        for (const auto& [version, slotTotal] : {std::pair{V1, 16}, std::pair{V2, 64}}) {
            QTest::addRow("GNX%d34 one platform too many", int(version))
                << version << QStringList(slotTotal, goodLine(version)) << 4 + slotTotal << QString()
                << QString("one platform too many: a GNX%1 has %2 favourite slots")
                       .arg(version == V1 ? "134" : "234")
                       .arg(slotTotal);
        }
    }
    void badLine()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(QStringList, body);
        QFETCH(int, line);
        QFETCH(QString, field);
        QFETCH(QString, problem);
        const QString path = write(version, body);
        try {
            PlatformsCheck::checkFile(path, version);
            QFAIL("no error");
        } catch (const PlatformsCheck::Error& e) {
            QCOMPARE(e.line(), line);
            QCOMPARE(e.field(), field);
            QCOMPARE(e.message(),
                     field.isEmpty()
                         ? QString("%1, line %2: %3").arg(path).arg(line).arg(problem)
                         : QString("%1, line %2, \"%3\": %4").arg(path).arg(line).arg(field, problem));
        }
    }

    // A good file: its platforms with their line numbers and resolved formats; format names are
    // only texts when the receiver's formats are not known yet; a missing file is an error too.
    void goodFile_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::newRow("GNX134") << V1;
        QTest::newRow("GNX234") << V2;
    }
    void goodFile()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        const QString path =
            write(version,
                  {"# next", goodLine(version, {{0, "abcdef1"}, {1, "Bouée à l'été"}, {2, ""}, {3, "0"}})});
        const QList<PlatformsCheck::Line> lines = PlatformsCheck::checkFile(path, version);
        QCOMPARE(lines.size(), 2);
        QCOMPARE(lines[0].number, 4);
        QCOMPARE(lines[1].number, 6);
        QCOMPARE(lines[0].platform.gpsFormat, GpsFormat::instance()->getGpsFormat("FMT"));
        const GnxLink::PlatformInfo& p = lines[1].platform;
        QCOMPARE(p.gpsFormat, nullptr);
        QCOMPARE(QStringList({p.id, p.label, lines[1].gpsFormatName, QString::number(p.repetitionPeriod)}),
                 QStringList({"abcdef1", "Bouée à l'été", "", "0"}));
        QCOMPARE(
            (QList<int>{p.meanDirectionValues, p.band, p.modulation, p.frequencyMode, p.narrowFrequency}),
            version == V1 ? (QList<int>{7, 0, 0, 0, 0}) : (QList<int>{0, 5, 1, 0, 401320000}));

        const QString unknown = write(version, {goodLine(version, {{2, "ON-THE-RECEIVER"}})});
        QCOMPARE(PlatformsCheck::checkFile(unknown, version, PlatformsCheck::Formats::TextOnly).size(), 2);

        const QString missing = dir_.filePath("missing.csv");
        try {
            PlatformsCheck::checkFile(missing, version);
            QFAIL("no error");
        } catch (const PlatformsCheck::Error& e) {
            QCOMPARE(e.line(), 0);
            QCOMPARE(e.message(), "Unable to open platforms file " + missing);
        }
    }
};

QTEST_GUILESS_MAIN(TestPlatformsCheck)
#include "tst_platformscheck.moc"
