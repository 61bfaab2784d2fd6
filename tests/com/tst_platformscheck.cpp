// The platforms file checked before an import: the first bad line is named by its number in the
// file, its column title and what is wrong with it; good files give their platforms.
#include "TestSupport.h"
#include "com/PlatformsCheck.h"

#include <QTemporaryDir>
#include <QTest>

using namespace OrviaGonioManager::Com;
using OrviaGonioManager::Utils::GpsFormat;

Q_DECLARE_METATYPE(GnxLink::GnxVersion_t)

namespace {

const auto V1 = GnxLink::GNX_V1;
const auto V2 = GnxLink::GNX_V2;

// A good line of each generation, with the field of the given column replaced.
QString goodLine(GnxLink::GnxVersion_t version, int column = -1, const QString& value = {})
{
    QStringList fields =
        QString(version == V1 ? "1A2B3,Float,FMT,120,7" : "1A2B3,Float,FMT,120,5,1,0,401320000").split(',');
    if (column >= 0)
        fields[column] = value;
    return fields.join(',');
}

} // namespace

class TestPlatformsCheck : public QObject
{
    Q_OBJECT

    QTemporaryDir dir_;

    // Header, a comment and an empty line, a good line (line 4), then the body.
    QString write(GnxLink::GnxVersion_t version, const QStringList& body)
    {
        QFile file(dir_.filePath(QStringLiteral("platforms.csv")));
        const QStringList all{PlatformsFile::header(version), "# field kit", "", goodLine(version)};
        if (file.open(QIODevice::WriteOnly | QIODevice::Truncate))
            file.write((all + body).join('\n').toUtf8() + '\n');
        return file.fileName();
    }
    static QString errorOf(const QString& path, GnxLink::GnxVersion_t version)
    {
        try {
            PlatformsCheck::checkFile(path, version);
            return QStringLiteral("no error");
        } catch (const PlatformsCheck::Error& e) {
            return e.message();
        }
    }

private slots:
    void initTestCase()
    {
        QByteArray text = "3\n";
        OrviaGonioManager::Utils::GpsFormat_t f;
        for (const auto& [name, dataLen, encryption] :
             {std::tuple{"FMT", 192, 1}, std::tuple{"BADLEN", 0, 0}, std::tuple{"BADENC", 8, 7}}) {
            f.name = name;
            f.dataLen = dataLen;
            f.encryptionType = GpsFormat::EncryptionType_t(encryption);
            text += GpsFormat::gpsFormatLine(f).toUtf8() + '\n';
        }
        TestSupport::loadGpsFormats(text);
    }

    // Each kind of bad line, after the good line 4, and followed by a bad line never reached.
    // The checks both generations share are run on one.
    void badLine_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::addColumn<QStringList>("body"); // the bad line is the last but one
        QTest::addColumn<QString>("error");    // after the file name and line number
        const auto row = [](const QString& name, GnxLink::GnxVersion_t version, const QStringList& lines,
                            const QString& error) {
            QTest::addRow("GNX%d34 %s", int(version), qPrintable(name))
                << version << lines + QStringList{"ZZZZZ"} << error;
        };
        const QString v1Titles = "Orvia ID, Label, GPS Format Name, Repetition period, Mean Direction Values";
        const QString v2Titles =
            v1Titles.section(", ", 0, 3) + ", Orvia Band, Modulation, Frequency Mode, Narrow Mode Frequency";
        row("too few columns", V1, {"1A2B3,Float,FMT,120"},
            ": 4 columns where a GNX134 line has 5 (" + v1Titles + ")");
        row("GNX234 line", V1, {goodLine(V2)},
            ": 8 columns where a GNX134 line has 5 (" + v1Titles + "); is it a GNX234 file?");
        row("GNX134 line", V2, {goodLine(V1)},
            ": 5 columns where a GNX234 line has 8 (" + v2Titles + "); is it a GNX134 file?");
        row("one platform too many", V1, QStringList(16, goodLine(V1)),
            ": one platform too many: a GNX134 has 16 favourite slots");
        // By column, the bad values and the problem, %1 being the quoted value.
        const QString whole = "%1 is not a whole number from 0 to ";
        const std::tuple<GnxLink::GnxVersion_t, int, QStringList, QString> fields[] = {
            {V1, 0, {"ZZZZZ", "123456", "1A2B3 ", ""}, "%1 is not 5 or 7 hexadecimal digits"},
            {V1, 1, {"Cap Ω"}, "%1 holds \"Ω\", which the receiver cannot take (Latin-1 characters only)"},
            {V1, 1, {"A$"}, "%1 holds \"$\", which would break the command sent to the receiver"},
            {V1, 2, {"F*"}, "%1 holds \"*\", which would break the command sent to the receiver"},
            {V1, 2, {"NOPE"}, "%1 is not a known GPS format"},
            {V1, 2, {"BADLEN"}, "GPS format %1 has data length 0; the receiver takes 1 to 254"},
            {V1, 2, {"BADENC"}, "GPS format %1 has encryption type 7; the receiver takes 0 to 2"},
            {V1, 3, {"65536", "-1", "12.5", "", "0x10", QString(20, '9')}, whole + "65535"},
            {V1, 4, {"256"}, whole + "255"},
            {V2, 4, {"9"}, "%1 is not a known value: 0 (B1) to 8 (B9)"},
            {V2, 5, {"3"}, "%1 is not a known value: 0 (A2), 1 (A3) or 2 (A4)"},
            {V2, 6, {"2"}, "%1 is not a known value: 0 (NARROW) or 1 (WIDE)"},
            {V2, 7, {"2147483648"}, whole + "2147483647"},
        };
        for (const auto& [version, column, values, problem] : fields) {
            const QString title = (version == V1 ? v1Titles : v2Titles).split(", ")[column];
            for (const QString& value : values)
                row(title + " \"" + value + '"', version, {goodLine(version, column, value)},
                    ", \"" + title + "\": " + QString(problem).arg('"' + value + '"'));
        }
    }
    void badLine()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        QFETCH(QStringList, body);
        QFETCH(QString, error);
        const QString path = write(version, body);
        QCOMPARE(errorOf(path, version), QString("%1, line %2").arg(path).arg(3 + body.size()) + error);
    }

    // A good file: its platforms with their line numbers and resolved formats; a missing file.
    void goodFile_data()
    {
        QTest::addColumn<GnxLink::GnxVersion_t>("version");
        QTest::newRow("GNX134") << V1;
        QTest::newRow("GNX234") << V2;
    }
    void goodFile()
    {
        QFETCH(GnxLink::GnxVersion_t, version);
        const QList<PlatformsCheck::Line> lines = PlatformsCheck::checkFile(
            write(version, {"# next", "abcdef1,Bouée à l'été,,0," + goodLine(version).section(',', 4)}),
            version);
        QCOMPARE((QList<int>{int(lines.size()), lines.value(0).number, lines.value(1).number}),
                 (QList<int>{2, 4, 6}));
        QCOMPARE(lines[0].platform.gpsFormat, GpsFormat::instance()->getGpsFormat("FMT"));
        const GnxLink::PlatformInfo& p = lines[1].platform;
        QCOMPARE(p.gpsFormat, nullptr);
        QCOMPARE(QStringList({p.id, p.label, lines[1].gpsFormatName, QString::number(p.repetitionPeriod)}),
                 QStringList({"abcdef1", "Bouée à l'été", "", "0"}));
        QCOMPARE(
            (QList<int>{p.meanDirectionValues, p.band, p.modulation, p.frequencyMode, p.narrowFrequency}),
            version == V1 ? (QList<int>{7, 0, 0, 0, 0}) : (QList<int>{0, 5, 1, 0, 401320000}));
        const QString missing = dir_.filePath("missing.csv");
        QCOMPARE(errorOf(missing, version), "Unable to open platforms file " + missing);
    }
};

QTEST_GUILESS_MAIN(TestPlatformsCheck)
#include "tst_platformscheck.moc"
