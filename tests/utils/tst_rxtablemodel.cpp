// The RX table model against a reference that follows the table's rules one message at a time:
// a row inserted at the top and filled, hidden when its Id does not contain the filter; after a
// flash read, the table sorted on the time, newest first, equal times keeping their order.
#include "common/SampleMessages.h"
#include "utils/GpsFormat.h"
#include "utils/RxJson.h"
#include "utils/RxTableModel.h"

#include <QApplication>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QTableWidget>
#include <QTest>

using OrviaGonioManager::Com::GnxLink;
using OrviaGonioManager::Com::OrviaRxMessage_t;
using OrviaGonioManager::Utils::RxTableModel;

class TestRxTableModel : public QObject
{
    Q_OBJECT

    RxTableModel model_;
    QTableWidget reference_{0, RxTableModel::COLUMN_COUNT};
    QHash<QString, RxTableModel::Favourite> favourites_{{"ABCDE", {"3", "Short", "POS"}},
                                                        {"ABCDEF0", {"7", "Long", "POS"}},
                                                        {"12345", {"9", "No format", ""}}};
    QString filter_;

    void enter(const QList<OrviaRxMessage_t>& messages, GnxLink::RxOrigin_t origin)
    {
        std::vector<RxTableModel::Row> rows;
        for (const OrviaRxMessage_t& m : messages) {
            const auto f = favourites_.constFind(m.platformId);
            const RxTableModel::Row row = RxTableModel::makeRow(
                m, origin, f == favourites_.cend() ? nullptr : &*f, GnxLink::GNX_V2, 64);
            reference_.insertRow(0);
            for (int c = 0; c < RxTableModel::COLUMN_COUNT; ++c)
                reference_.setItem(
                    0, c, new QTableWidgetItem(RxTableModel::cellText(row, c, GnxLink::COORDTYPE_DEG)));
            reference_.setRowHidden(0, !m.platformId.contains(filter_));
            rows.push_back(model_.rowFor(m, origin, GnxLink::GNX_V2, 64));
        }
        model_.addRows(std::move(rows));
    }

    void filter(const QString& text)
    {
        filter_ = text;
        model_.setIdFilter(text);
        for (int r = 0; r < reference_.rowCount(); ++r)
            reference_.setRowHidden(r, !reference_.item(r, RxTableModel::COL_ID)->text().contains(text));
    }

    void compare()
    {
        QCOMPARE(model_.allRowCount(), reference_.rowCount());
        int shown = 0;
        for (int r = 0; r < reference_.rowCount(); ++r) {
            QCOMPARE(model_.isHidden(r), reference_.isRowHidden(r));
            for (int c = 0; c < RxTableModel::COLUMN_COUNT; ++c)
                QCOMPARE(model_.cellText(r, c), reference_.item(r, c)->text());
            if (!reference_.isRowHidden(r))
                QCOMPARE(model_.index(shown++, RxTableModel::COL_TIME).data().toString(),
                         reference_.item(r, RxTableModel::COL_TIME)->text());
        }
        QCOMPARE(model_.rowCount(), shown);
    }

private slots:
    void matchesTheReference()
    {
        OrviaGonioManager::Utils::GpsFormat_t format;
        format.name = "POS";
        format.latitude = {0, 0, 8, 24, 1, 1, 0, 1, 0};
        format.longitude = {0, 0, 32, 24, 1, 1, 0, 1, 1};
        QVERIFY(OrviaGonioManager::Utils::GpsFormat::instance()->importGpsFormat(format));
        model_.setFavourites(favourites_);

        // Few distinct seconds, so that many times are equal; fractions that do not show.
        QRandomGenerator random(7);
        const QStringList ids{"ABCDE", "ABCDEF0", "12345", "0ABCDE0", "FFFFF"};
        const auto message = [&] {
            OrviaRxMessage_t m;
            m.mjd = 60000 + random.bounded(2);
            m.secondsOfDay = random.bounded(5) + random.bounded(10) / 10.0;
            m.platformId = ids[int(random.bounded(ids.size()))];
            m.flagBit0 = random.bounded(2);
            m.direction = quint16(random.bounded(360));
            m.payload = QByteArray::fromHex("115265C0E4E1C0").left(int(random.bounded(1, 8)));
            return m;
        };
        QList<OrviaRxMessage_t> flash, live;
        for (int i = 0; i < 300; ++i)
            flash << message();
        for (int i = 0; i < 20; ++i)
            live << message();

        filter("AB");
        enter(flash.mid(0, 100), GnxLink::RXORIGIN_LIVE);
        enter(flash.mid(100), GnxLink::RXORIGIN_FLASH);
        model_.sort(RxTableModel::COL_TIME, Qt::DescendingOrder);
        reference_.sortItems(RxTableModel::COL_TIME, Qt::DescendingOrder);
        compare();
        for (const OrviaRxMessage_t& m : live) // one at a time, at the top
            enter({m}, GnxLink::RXORIGIN_LIVE);
        compare();
        filter("");
        compare();
        filter("CDE");
        model_.sort(RxTableModel::COL_ID, Qt::AscendingOrder); // a header click
        reference_.sortItems(RxTableModel::COL_ID, Qt::AscendingOrder);
        compare();
    }

    // A message's JSON read back, as "gnxctl bearings" reads it: what rxJson() writes gives the
    // same object again; a field missing or of the wrong type is named.
    void rxFromJson_data()
    {
        QTest::addColumn<QByteArray>("patch"); // fields over those of a flash record
        QTest::addColumn<QString>("remove");   // a field taken out
        QTest::addColumn<QString>("error");    // empty: the object comes back whole
        const auto row = [](const char* name, const char* patch, const char* remove, const char* error) {
            QTest::newRow(name) << QByteArray(patch) << QString(remove) << QString(error);
        };
        row("flash record", "{}", "", "");
        row("live report with a position",
            R"({"origin": "live", "platformId": "3CA97", "platform": "3CA97", "payloadLatitude": 43.65,
                "payloadLongitude": -1.26, "label": "Buoy 01", "secondsOfDay": 81530.25,
                "time": "2026-11-23T22:38:50.250Z", "level": -98, "platformIndex": 2, "extraCode": 2})",
            "", "");
        row("20-bit number in seven digits", R"({"platformId": "003CA97", "platform": "3CA97"})", "", "");
        row("direction as text", R"({"direction": "104"})", "", R"("direction" is not a number)");
        row("direction with a fraction", R"({"direction": 10.5})", "",
            R"("direction" is not a whole number from 0 to 65535)");
        row("no mjd", "{}", "mjd", R"("mjd" is missing)");
        row("no platformId", "{}", "platformId", R"("platformId" is missing)");
        row("platformId a number", R"({"platformId": 2308281})", "", R"("platformId" is not text)");
        row("unknown origin", R"({"origin": "radio"})", "", R"("origin" is neither "flash" nor "live")");
        row("flag as a number", R"({"flagBit0": 1})", "", R"("flagBit0" is not true or false)");
        row("payload not hexadecimal", R"({"payload": "A4Z"})", "", R"("payload" is not hexadecimal bytes)");
        row("payload position as text", R"({"payloadLatitude": "43.6"})", "",
            R"("payloadLatitude" is not a number or null)");
    }

    void rxFromJson()
    {
        QFETCH(QByteArray, patch);
        QFETCH(QString, remove);
        QFETCH(QString, error);
        QJsonObject o = QJsonDocument::fromJson(kFlashLine).object();
        const QJsonObject fields = QJsonDocument::fromJson(patch).object();
        for (auto it = fields.begin(); it != fields.end(); ++it)
            o.insert(it.key(), it.value());
        o.remove(remove);
        QString why, field;
        const auto row = OrviaGonioManager::Utils::rxFromJson(o, &why, &field);
        if (!error.isEmpty()) {
            QVERIFY(!row);
            QCOMPARE(why, error);
            QCOMPARE(field, error.section('"', 1, 1));
            return;
        }
        QVERIFY2(row, qPrintable(why));
        QCOMPARE(OrviaGonioManager::Utils::rxJson(*row), o);
    }
};

QTEST_MAIN(TestRxTableModel)
#include "tst_rxtablemodel.moc"
