// The Bearings window against the emulator driving past platforms, over a pseudo-terminal: the
// flash memory read into the RX table gives a fix per platform near its true position, each
// platform keeps its label and payload positions whatever width the flash record gives its
// identifier, the antenna check finds the emulator's bias, "Apply to setup" fills the angle offset
// (which writes the software setup, as any change of it does), homing steers to a payload position,
// the window follows the RX table's filter, and a bearing unticked by hand leaves the fix.
#include "common/WindowFixture.h"
#include "geo/BearingSet.h"
#include "sim/PositionFormat.h"
#include "sim/Scenario.h"
#include "ui/BearingsWindow.h"
#include "ui/CompassWidget.h"

#include <QLabel>
#include <QRegularExpression>
#include <QSpinBox>
#include <QTableWidget>

using OrviaGonioManager::Geo::Fix;
using OrviaGonioManager::Ui::BearingsWindow;

namespace {

const char* const kDrive =
    R"({"receiver": {"path": [[43.59, 1.23], [43.605, 1.28], [43.60, 1.34], [43.62, 1.39]],
    "speed": 20}, "bias": %1, "noise": 2,
    "platforms": [{"id": "3CA97", "label": "Buoy 01", "position": [43.65, 1.26], "format": "ORV-GPS-SIGNED"},
                  {"id": "33BBA", "label": "Float 02", "position": [43.56, 1.33], "format": "ORV-GPS-TWOS"},
                  {"id": "1A9579F", "label": "Tag 03", "position": [43.64, 1.42], "format": "ORV-GPS-MINUTES-28"}]})";

} // namespace

class TestBearingsWindow : public QObject, private WindowFixture
{
    Q_OBJECT

    std::shared_ptr<const gnxsim::Scenario> scenario_;

    static std::shared_ptr<const gnxsim::Scenario> drive(int bias)
    {
        QString error;
        auto s = gnxsim::Scenario::fromJson(QString::fromUtf8(kDrive).arg(bias).toUtf8(), &error);
        if (!s)
            qWarning("scenario: %s", qPrintable(error));
        return s;
    }

    BearingsWindow* bearings() const { return window_->bearingsWindow(); }
    QTableWidget* fixTable() const
    {
        return bearings()->findChild<QTableWidget*>("tableWidgetBearingsFixes");
    }

private slots:
    void initTestCase()
    {
        QVERIFY(setUpWorkDir());
        QVERIFY(!writeFile("Data/format.vtl", gnxsim::PositionFormat::builtinsVtlFile()).isEmpty());
    }
    void init() { resetDialogs(); }
    void cleanup() { tearDown(); }

    void drive_data()
    {
        QTest::addColumn<QString>("model");
        QTest::addColumn<int>("bias");
        QTest::newRow("gnx134, no bias") << "gnx134" << 0;
        QTest::newRow("gnx234, bias 7") << "gnx234" << 7;
    }
    void drive()
    {
        QFETCH(QString, model);
        QFETCH(int, bias);
        scenario_ = drive(bias);
        QVERIFY(scenario_);
        gnxsim::Options options = simOptions(model, 0, 90);
        options.scenario = scenario_;
        QVERIFY(startAndConnect(options));
        QTRY_COMPARE_WITH_TIMEOUT(ui()->tableWidgetPlatforms->rowCount(), 3, 10000);
        ui()->pushButtonRxFlashRead->click();
        QVERIFY2(dialogs_->criticals.isEmpty(), qPrintable(dialogs_->criticals.join('|')));
        QCOMPARE(window_->rxModel()->allRowCount(), 90);
        QVERIFY(sim_->emitNpr(-1, false)); // a platform heard once
        QTRY_COMPARE_WITH_TIMEOUT(window_->rxModel()->allRowCount(), 91, 10000);

        window_->bearingsAction()->trigger();
        QVERIFY(bearings()->isVisible());
        QTRY_VERIFY_WITH_TIMEOUT(bearings()->fixesReady() && bearings()->fixes().size() == 4, 5000);
        for (const auto& platform : scenario_->platforms()) {
            const Fix& f = bearings()->fixes().at(platform.id);
            QVERIFY2(f.ok, qPrintable(f.reason));
            QCOMPARE(f.used + f.outliers, 30);
            const double miss = OrviaGonioManager::Geo::Geodesy::distance(
                f.position, {platform.position.lat, platform.position.lon});
            // A bias turns every bearing the same way: the fixes move with it.
            if (bias == 0)
                QVERIFY2(miss < std::max(f.semiMajor, 100.0),
                         qPrintable(QString("%1: %2 m off").arg(platform.id).arg(miss)));
        }
        QStringList noFix;
        for (int row = 0; row < fixTable()->rowCount(); ++row)
            if (fixTable()->item(row, 1)->text().startsWith("No fix: heard from 1 point(s)"))
                noFix << fixTable()->item(row, 0)->text();
        QCOMPARE(noFix.size(), 1);

        // The suggestion takes the bias off the current offset of 0, give or take a degree of noise.
        const auto suggested = bearings()->suggestedOffset();
        QVERIFY(suggested.has_value());
        QVERIFY2(std::abs((*suggested + bias + 180) % 360 - 180) <= 1,
                 qPrintable(QString::number(*suggested)));
        sim_->clearReceived();
        bearings()->findChild<QPushButton*>("pushButtonBearingsApply")->click();
        QCOMPARE(ui()->spinBoxSetupSoftwareDirectionOffset->value(), *suggested);
        // The spin box, like every software setup widget, writes the software setup when it
        // changes; the Bearings window itself sends nothing else.
        const QStringList sent = sim_->receivedLines();
        QVERIFY2(*suggested == 0 ? sent.isEmpty()
                                 : !sent.isEmpty() &&
                                       sent.filter(QRegularExpression("^SETUPSW,")).size() == sent.size() &&
                                       sent.first().split(',').value(7) == QString::number(*suggested),
                 qPrintable(sent.join("|")));

        // Each platform by its number, however the flash record writes it ("0033BBA" on a GNX234):
        // its label, and the payload position of every message, from flash and live alike, is the
        // one the emulator put there.
        for (int slot = 0; slot < 3; ++slot)
            QVERIFY(sim_->emitNpr(slot, true));
        QTRY_COMPARE_WITH_TIMEOUT(window_->rxModel()->allRowCount(), 94, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(bearings()->bearings().platforms().at("3CA97").bearings.size(), size_t(31),
                                  5000);
        for (const auto& platform : scenario_->platforms()) {
            const auto& p = bearings()->bearings().platforms().at(platform.id);
            QCOMPARE(p.label, platform.label);
            QCOMPARE(int(p.bearings.size()), 31);
            for (const auto& b : p.bearings) {
                QVERIFY2(b.payload, qPrintable(platform.id));
                const double off = OrviaGonioManager::Geo::Geodesy::distance(
                    *b.payload, {platform.position.lat, platform.position.lon});
                QVERIFY2(off < 2, qPrintable(QString("%1: payload %2 m off").arg(platform.id).arg(off)));
            }
        }

        // Homing on a platform: from the receiver's latest position to its payload position, in
        // the software setup's distance unit, and the compass steers there.
        auto* platforms = bearings()->findChild<QComboBox*>("comboBoxBearingsPlatform");
        platforms->setCurrentIndex(platforms->findData("1A9579F"));
        const auto& tag = scenario_->platforms()[2];
        const OrviaGonioManager::Geo::Bearing* last = nullptr;
        for (const auto& [id, p] : bearings()->bearings().platforms())
            for (const auto& b : p.bearings)
                if (b.receiverValid && (!last || b.time >= last->time))
                    last = &b;
        QVERIFY(last);
        const OrviaGonioManager::Geo::GeoPoint truth{tag.position.lat, tag.position.lon};
        const double km = OrviaGonioManager::Geo::Geodesy::distance(last->receiver, truth) / 1000;
        const long towards =
            std::lround(OrviaGonioManager::Geo::Geodesy::bearing(last->receiver, truth)) % 360;
        auto* homing = bearings()->findChild<QLabel*>("labelBearingsHoming");
        // The fixes of the live messages come from their own thread.
        QTRY_VERIFY_WITH_TIMEOUT(bearings()->fixesReady() && homing->text().contains("Fix: <b>"), 10000);
        QVERIFY2(homing->text().contains(QString("Payload position: <b>%1 km</b> at <b>%2°")
                                             .arg(km, 0, 'f', 2)
                                             .arg(towards, 3, 10, QChar('0'))),
                 qPrintable(homing->text()));
        QVERIFY(bearings()->compass()->legendTexts().contains(QString("Steer  %1°").arg(towards)));
        ui()->comboBoxSetupSoftwareDistType->setCurrentIndex(1);
        QVERIFY2(homing->text().contains(QString("<b>%1 miles</b>").arg(km / 1.609344, 0, 'f', 2)),
                 qPrintable(homing->text()));
        // At 1280 by 800 the compass keeps its legend whole, every platform listed.
        platforms->setCurrentIndex(0);
        bearings()->resize(1280, 800);
        QTRY_COMPARE(bearings()->size(), QSize(1280, 800));
        const auto key = bearings()->compass()->legend();
        QCOMPARE(key.texts.size(), 3);
        QVERIFY(QRectF(bearings()->compass()->rect()).contains(key.rect));
        for (const QString& text : key.texts)
            QVERIFY2(key.columnWidth - 24 >=
                         QFontMetricsF(bearings()->compass()->font()).horizontalAdvance(text),
                     qPrintable(text));

        // One platform through the RX table's filter.
        ui()->lineEditRxIdFilter->setText("33BBA");
        QTRY_VERIFY_WITH_TIMEOUT(bearings()->fixesReady() && bearings()->fixes().size() == 1, 5000);
        QVERIFY(bearings()->fixes().count("33BBA"));

        // A bearing unticked by hand.
        platforms->setCurrentIndex(platforms->findData("33BBA"));
        auto* list = bearings()->findChild<QTableWidget*>("tableWidgetBearingsList");
        QCOMPARE(list->rowCount(), 31);
        const int used = bearings()->fixes().at("33BBA").used;
        list->item(0, 0)->setCheckState(Qt::Unchecked);
        QTRY_VERIFY_WITH_TIMEOUT(bearings()->fixesReady(), 5000);
        QCOMPARE(bearings()->fixes().at("33BBA").used, used - 1);
        QCOMPARE(bearings()->fixes().at("33BBA").status[0], Fix::Excluded);
        QCOMPARE(list->item(0, 7)->text(), QString("Left out by hand"));
    }
};

QTEST_MAIN(TestBearingsWindow)
#include "tst_bearingswindow.moc"
