// The setups' JSON: each field's round trip, the enumerations' texts against the window's combo
// boxes, and the exact message for each kind of bad input.
#include "TestSupport.h"
#include "com/SetupJson.h"
#include "common/WindowFixture.h"
#include "mrl/utils/Exception.h"

#include <QComboBox>
#include <QJsonDocument>

using OrviaGonioManager::Com::GnxLink;
namespace SetupJson = OrviaGonioManager::Com::SetupJson;

namespace {

struct Setups
{
    GnxLink::SetupSoftware s;
    GnxLink::SetupHardware h;
    QJsonObject json() const { return SetupJson::toJson(s, h); }
    void apply(const QJsonObject& o) { SetupJson::apply(o, s, h); }
};

QJsonValue field(const QJsonObject& o, const QString& path)
{
    return o[path.section('.', 0, 0)].toObject()[path.section('.', 1)];
}

// Sets one field on default setups and reads them back: only that field may differ, it shows as
// expected, and the whole object sets the same setups again. Empty, or what went wrong.
QString checkField(const QString& path, const QJsonValue& input, const QJsonValue& shown, Setups& x)
try {
    x.apply({{path.section('.', 0, 0), QJsonObject{{path.section('.', 1), input}}}});
    const QJsonObject got = x.json();
    const QStringList changed = SetupJson::differences(got, Setups().json());
    Setups again;
    again.apply(got);
    if (field(got, path) != shown || (changed != QStringList{path} && !changed.isEmpty()) ||
        again.json() != got)
        return QString::fromUtf8(QJsonDocument(got).toJson(QJsonDocument::Compact));
    return {};
} catch (const MRL::Utils::Exception& e) {
    return e.message();
}

const QMap<QString, int (*)(const Setups&)> kEnumFields{
    {"software.coordType", [](const Setups& x) { return int(x.s.coordType); }},
    {"software.distType", [](const Setups& x) { return int(x.s.distType); }},
    {"software.band", [](const Setups& x) { return int(x.s.band); }},
    {"hardware.directionMode", [](const Setups& x) { return int(x.h.directionMode); }},
    {"hardware.antennaPosition", [](const Setups& x) { return int(x.h.antennaPosition); }},
    {"hardware.antennaType", [](const Setups& x) { return int(x.h.antennaType); }},
    {"hardware.compassMode", [](const Setups& x) { return int(x.h.compassMode); }},
};

} // namespace

class TestSetupJson : public QObject, private WindowFixture
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        QVERIFY(setUpWorkDir());
        window_ = std::make_unique<MainWindow>();
    }
    void cleanupTestCase() { tearDown(); }

    // The enumerations are in comboTexts.
    void roundTrip_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QJsonValue>("input");
        QTest::addColumn<QJsonValue>("shown");
        const auto row = [](const char* path, const QJsonValue& input, const QJsonValue& shown = {}) {
            QTest::newRow(path) << QString(path) << input << (shown.isNull() ? input : shown);
        };
        for (const char* flag : {"software.audio", "software.backlight", "software.gpsAcquisition",
                                 "software.allToFavorites", "hardware.proximityMode"})
            row(flag, true);
        row("software.contrast", 40);
        row("software.directionOffset", 65535);
        row("hardware.cableLength", -2147483647 - 1);
        row("hardware.declination", "E12.5");
        row("software.band", "b9", "B9: 399.900 MHz to 399.980 MHz (A2, A3, ZE-A3)"); // a band by its name
        row("hardware.compassMode", "AUTO", "Auto");
    }

    void roundTrip()
    {
        QFETCH(QString, path);
        QFETCH(QJsonValue, input);
        QFETCH(QJsonValue, shown);
        Setups x;
        QCOMPARE(checkField(path, input, shown, x), QString());
    }

    void comboTexts_data()
    {
        QTest::addColumn<QString>("combo");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QStringList>("ends"); // the first and last entries, as the window shows them
        const QList<QStringList> rows{
            {"comboBoxSetupSoftwareCoordType", "software.coordType", "xx.xxx°", "xx°xx'xx\""},
            {"comboBoxSetupSoftwareDistType", "software.distType", "km", "nautical miles"},
            {"comboBoxSetupSoftwareOrviaBand", "software.band",
             "B1: 401.610 MHz to 401.690 MHz (A2, A3, ZE-A3)", "INVALID"},
            {"comboBoxHardwareDirectionMode", "hardware.directionMode", "Goniometry", "MSG_decoding"},
            {"comboBoxHardwareAntennaPosition", "hardware.antennaPosition", "High", "Low"},
            {"comboBoxHardwareAntennaMode", "hardware.antennaType", "ANX234", "ANX234_Extended"},
            {"comboBoxHardwareCompassMode", "hardware.compassMode", "Fixed", "Undefined"}};
        for (const QStringList& r : rows)
            QTest::newRow(qPrintable(r[1])) << r[0] << r[1] << r.mid(2);
        QCOMPARE(rows.size(), kEnumFields.size()); // every enumeration has its combo
    }

    // Entry i of the combo is value i in the record and its text in the JSON; no two entries
    // share a text, even ignoring case.
    void comboTexts()
    {
        QFETCH(QString, combo);
        QFETCH(QString, path);
        QFETCH(QStringList, ends);
        const auto* box = window_->findChild<QComboBox*>(combo);
        QVERIFY(box);
        QCOMPARE((QStringList{box->itemText(0), box->itemText(box->count() - 1)}), ends);
        QSet<QString> lower;
        for (int i = 0; i < box->count(); ++i) {
            lower << box->itemText(i).toLower();
            Setups x;
            QCOMPARE(checkField(path, box->itemText(i), box->itemText(i), x), QString());
            QCOMPARE(kEnumFields[path](x), i);
        }
        QCOMPARE(lower.size(), box->count());
    }

    void badInput_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<QString>("message");
        const auto row = [](const char* json, const char* message) {
            QTest::newRow(json) << QByteArray(json) << QString::fromUtf8(message);
        };
        row(R"({"software": {"loudness": 7}})", "software.loudness: no such field");
        row(R"({"firmware": {}})", "firmware: no such field");
        row(R"({"hardware": [1]})", "hardware: [1] is not an object");
        row(R"({"software": {"contrast": "7"}})",
            R"(software.contrast: "7" is not a whole number from 0 to 40)");
        row(R"({"software": {"contrast": 41}})", "software.contrast: 41 is not a whole number from 0 to 40");
        row(R"({"software": {"directionOffset": 1.5}})",
            "software.directionOffset: 1.5 is not a whole number from 0 to 65535");
        row(R"({"hardware": {"cableLength": -2147483649}})",
            "hardware.cableLength: -2147483649 is not a whole number from -2147483648 to 2147483647");
        row(R"({"software": {"audio": 1}})", "software.audio: 1 is not true or false");
        row(R"({"hardware": {"declination": 1.5}})", "hardware.declination: 1.5 is not a text");
        row(R"({"software": {"coordType": "COORDTYPE_DEG"}})",
            "software.coordType: \"COORDTYPE_DEG\" is not one of \"xx.xxx°\", \"xx°xx.xx'\", "
            "\"xx°xx'xx\\\"\"");
        row(R"({"hardware": {"compassMode": 2}})",
            R"(hardware.compassMode: 2 is not one of "Fixed", "Compass", "Auto", "Undefined")");
        // A good field before the bad one is not applied either.
        row(R"({"software": {"audio": true, "band": "B10"}})",
            R"-(software.band: "B10" is not one of "B1: 401.610 MHz to 401.690 MHz (A2, A3, ZE-A3)", )-"
            R"-("B2: 401.530 MHz to 401.610 MHz (HDA4)", "B3: 401.460 MHz to 401.540 MHz (HDA4)", )-"
            R"-("B4: 401.390 MHz to 401.470 MHz (HDA4)", )-"
            R"-("B5: 401.310 MHz to 401.390 MHz (A2, A3, ZE-A3, VLD-A4)", )-"
            R"-("B6: 401.110 MHz to 401.190 MHz (A2, A3, ZE-A3, VLD-A4)", )-"
            R"-("B7: 401.010 MHz to 401.090 MHz (A2, A3, ZE-A3)", )-"
            R"-("B8: 399.970 MHz to 400.050 MHz (A2, A3, ZE-A3)", )-"
            R"-("B9: 399.900 MHz to 399.980 MHz (A2, A3, ZE-A3)", "INVALID")-");
    }

    void badInput()
    {
        QFETCH(QByteArray, json);
        QFETCH(QString, message);
        Setups x;
        QCOMPARE(TestSupport::thrown([&] { x.apply(QJsonDocument::fromJson(json).object()); }), message);
        QCOMPARE(x.json(), Setups().json());
    }
};

QTEST_MAIN(TestSetupJson)
#include "tst_setupjson.moc"
