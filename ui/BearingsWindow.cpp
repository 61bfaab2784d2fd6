#include "ui/BearingsWindow.h"

#include "geo/BearingExport.h"
#include "geo/Homing.h"
#include "mrl/ui/Dialogs.h"
#include "mrl/utils/Exception.h"
#include "ui/BearingMapWidget.h"
#include "ui/CompassWidget.h"
#include "ui/MapSource.h"
#include "utils/RxTableModel.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateTime>
#include <QGroupBox>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QLabel>
#include <QPushButton>
#include <QSettings>
#include <QSpinBox>
#include <QSplitter>
#include <QTabWidget>
#include <QTableWidget>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <cmath>
#include <memory>

namespace OrviaGonioManager::Ui {

using Geo::BearingSet;
using Geo::Fix;

namespace {

constexpr int kRefreshDelayMs = 200; // messages arriving together are taken together
constexpr size_t kMapLines = 100;    // per platform, the newest: more only hide one another
const QString kAllFavourites = QStringLiteral("All favourites");

QTableWidgetItem* cell(const QString& text)
{
    auto* item = new QTableWidgetItem(text);
    item->setFlags(item->flags() & ~Qt::ItemIsEditable);
    return item;
}

// Enough points for a bearing line to follow its geodesic on the map within a few metres: a
// geodesic of 50 km strays about 50 m from the straight line between its ends.
int mapSegments(double metres)
{
    return std::clamp(int(std::ceil(metres / 12500.0)), 1, Geo::BearingExport::kLineSegments * 4);
}

QString latitudeText(double degrees)
{
    return QStringLiteral("%1° %2").arg(std::abs(degrees), 0, 'f', 5).arg(degrees < 0 ? 'S' : 'N');
}

QString longitudeText(double degrees)
{
    return QStringLiteral("%1° %2").arg(std::abs(degrees), 0, 'f', 5).arg(degrees < 0 ? 'W' : 'E');
}

QString number(double v, int decimals)
{
    return QString::number(v, 'f', decimals);
}

} // namespace

BearingsWindow::BearingsWindow(const Utils::RxTableModel* model, QSpinBox* angleOffset,
                               QComboBox* distanceUnit, QWidget* parent)
    : QWidget(parent, Qt::Window), model_(model), angleOffset_(angleOffset), distanceUnit_(distanceUnit)
{
    setObjectName(QStringLiteral("bearingsWindow"));
    setWindowTitle(QStringLiteral("Bearings"));
    buildLayout();
    loadPreferences();
    refreshTimer_.setSingleShot(true);
    refreshTimer_.setInterval(kRefreshDelayMs);
    connect(&refreshTimer_, &QTimer::timeout, this, &BearingsWindow::refresh);
    connect(model_, &QAbstractItemModel::modelReset, this, &BearingsWindow::scheduleRefresh);
    connect(model_, &QAbstractItemModel::layoutChanged, this, &BearingsWindow::scheduleRefresh);
    connect(model_, &QAbstractItemModel::rowsInserted, this, &BearingsWindow::scheduleRefresh);
    connect(model_, &QAbstractItemModel::rowsRemoved, this, &BearingsWindow::scheduleRefresh);
    connect(angleOffset_, &QSpinBox::valueChanged, this, &BearingsWindow::fillAntenna);
    connect(distanceUnit_, &QComboBox::currentIndexChanged, this, &BearingsWindow::updateHoming);
    fixWorker_ = new QObject;
    fixWorker_->moveToThread(&fixThread_);
    connect(&fixThread_, &QThread::finished, fixWorker_, &QObject::deleteLater);
    fixThread_.start();
}

QSettings BearingsWindow::preferences()
{
    return QSettings(QSettings::NativeFormat, QSettings::UserScope, QStringLiteral("Orvia"),
                     QStringLiteral("OrviaGonioManagerBearings"));
}

BearingsWindow::~BearingsWindow()
{
    fixThread_.quit();
    fixThread_.wait();
}

void BearingsWindow::buildLayout()
{
    compass_ = new CompassWidget(this);
    homing_ = new QLabel(this);
    homing_->setObjectName(QStringLiteral("labelBearingsHoming"));
    homing_->setWordWrap(true);
    homing_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    QFont large = homing_->font();
    large.setPointSizeF(large.pointSizeF() * 1.5);
    homing_->setFont(large);
    auto* left = new QWidget(this);
    auto* leftLayout = new QVBoxLayout(left);
    leftLayout->setContentsMargins(0, 0, 0, 0);
    leftLayout->addWidget(homing_);
    leftLayout->addWidget(compass_, 1);
    map_ = new BearingMapWidget(this);
    mapSource_ = new MapSource(map_, this);
    mapStatus_ = new QLabel(this);
    mapStatus_->setObjectName(QStringLiteral("labelBearingsMapStatus"));
    mapStatus_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    connect(map_, &BearingMapWidget::cursorMoved, this, [this](const Geo::GeoPoint& at) {
        mapStatus_->setText(
            QStringLiteral("%1  %2").arg(latitudeText(at.latitude), longitudeText(at.longitude)));
    });
    connect(mapSource_, &MapSource::message, mapStatus_, &QLabel::setText);
    auto* right = new QWidget(this);
    auto* rightLayout = new QVBoxLayout(right);
    rightLayout->setContentsMargins(0, 0, 0, 0);
    rightLayout->addWidget(map_, 1);
    rightLayout->addWidget(mapStatus_);
    auto* views = new QSplitter(Qt::Horizontal, this);
    views->addWidget(left);
    views->addWidget(right);
    views->setStretchFactor(1, 2);

    fixTable_ = new QTableWidget(0, 9, this);
    fixTable_->setObjectName(QStringLiteral("tableWidgetBearingsFixes"));
    fixTable_->setHorizontalHeaderLabels({"Platform", "Fix", "Semi-major (m)", "Semi-minor (m)",
                                          "Orientation (°)", "CEP (m)", "Used", "Left out", "RMS (°)"});
    bearingList_ = new QTableWidget(0, 8, this);
    bearingList_->setObjectName(QStringLiteral("tableWidgetBearingsList"));
    bearingList_->setHorizontalHeaderLabels({"Use", "Time", "Direction (°)", "Heading (°)", "Taken from",
                                             "True bearing (°)", "Residual (°)", "Status"});
    for (QTableWidget* t : {fixTable_, bearingList_}) {
        t->verticalHeader()->hide();
        t->horizontalHeader()->setStretchLastSection(true);
        t->setSelectionBehavior(QAbstractItemView::SelectRows);
    }
    connect(bearingList_, &QTableWidget::itemChanged, this, [this](QTableWidgetItem* item) {
        if (item->column() != 0 || item->data(Qt::UserRole).isNull())
            return;
        set_.setUse(item->data(Qt::UserRole).toString(), item->checkState() == Qt::Checked);
        recomputeFixes();
    });
    auto* tabs = new QTabWidget(this);
    tabs->addTab(fixTable_, QStringLiteral("Fixes"));
    tabs->addTab(bearingList_, QStringLiteral("Bearings"));
    tabs->addTab(buildAntennaPanel(), QStringLiteral("Antenna check"));

    auto* split = new QSplitter(Qt::Vertical, this);
    split->addWidget(views);
    split->addWidget(tabs);
    split->setStretchFactor(0, 3);
    split->setStretchFactor(1, 2);
    auto* layout = new QVBoxLayout(this);
    layout->addWidget(buildControls());
    layout->addWidget(split, 1);
    resize(960, 760);
}

QWidget* BearingsWindow::buildControls()
{
    auto* bar = new QWidget(this);
    auto* row = new QHBoxLayout(bar);
    row->setContentsMargins(0, 0, 0, 0);
    platform_ = new QComboBox(bar);
    platform_->setObjectName(QStringLiteral("comboBoxBearingsPlatform"));
    platform_->setMinimumContentsLength(18);
    needles_ = new QSpinBox(bar);
    needles_->setObjectName(QStringLiteral("spinBoxBearingsNeedles"));
    needles_->setRange(1, 500);
    needles_->setValue(20);
    reference_ = new QComboBox(bar);
    reference_->setObjectName(QStringLiteral("comboBoxBearingsReference"));
    reference_->addItems(
        {QStringLiteral("Direction from north"), QStringLiteral("Direction relative to heading")});
    range_ = new QSpinBox(bar);
    range_->setObjectName(QStringLiteral("spinBoxBearingsRange"));
    range_->setRange(1, 2000);
    range_->setValue(50);
    range_->setSuffix(QStringLiteral(" km"));
    auto* fit = new QPushButton(QStringLiteral("Fit"), bar);
    fit->setObjectName(QStringLiteral("pushButtonBearingsFit"));
    auto* mapMenu = new QToolButton(bar);
    mapMenu->setObjectName(QStringLiteral("toolButtonBearingsMap"));
    mapMenu->setText(QStringLiteral("Map"));
    mapMenu->setPopupMode(QToolButton::InstantPopup);
    mapMenu->setMenu(mapSource_->menu());
    row->addWidget(new QLabel(QStringLiteral("Platform"), bar));
    row->addWidget(platform_);
    row->addWidget(new QLabel(QStringLiteral("Needles"), bar));
    row->addWidget(needles_);
    row->addWidget(reference_);
    row->addWidget(new QLabel(QStringLiteral("Bearing lines"), bar));
    row->addWidget(range_);
    row->addWidget(fit);
    row->addWidget(mapMenu);
    row->addStretch(1);
    for (const QString& what : {QStringLiteral("GeoJSON"), QStringLiteral("KML"), QStringLiteral("GPX")}) {
        auto* button = new QPushButton(QStringLiteral("Export %1...").arg(what), bar);
        button->setObjectName(QStringLiteral("pushButtonBearingsExport") + what);
        connect(button, &QPushButton::clicked, this, [this, what] { exportFile(what); });
        row->addWidget(button);
    }
    connect(fit, &QPushButton::clicked, map_, &BearingMapWidget::fit);
    connect(platform_, &QComboBox::currentIndexChanged, this, [this] {
        fillBearingList();
        redraw();
    });
    connect(needles_, &QSpinBox::valueChanged, this, [this] {
        savePreferences();
        updateCompass();
    });
    connect(reference_, &QComboBox::currentIndexChanged, this, [this] {
        savePreferences();
        set_.setRelative(reference_->currentIndex() == 1);
        recomputeFixes();
    });
    connect(range_, &QSpinBox::valueChanged, this, [this] {
        savePreferences();
        updateMap();
    });
    return bar;
}

QWidget* BearingsWindow::buildAntennaPanel()
{
    auto* panel = new QWidget(this);
    auto* layout = new QVBoxLayout(panel);
    antennaText_ = new QLabel(panel);
    antennaText_->setObjectName(QStringLiteral("labelBearingsAntenna"));
    antennaText_->setWordWrap(true);
    suggestion_ = new QLabel(panel);
    suggestion_->setObjectName(QStringLiteral("labelBearingsSuggestedOffset"));
    apply_ = new QPushButton(QStringLiteral("Apply to setup"), panel);
    apply_->setObjectName(QStringLiteral("pushButtonBearingsApply"));
    connect(apply_, &QPushButton::clicked, this, &BearingsWindow::applySuggestedOffset);
    layout->addWidget(antennaText_);
    layout->addWidget(suggestion_);
    layout->addWidget(apply_, 0, Qt::AlignLeft);
    layout->addStretch(1);
    return panel;
}

void BearingsWindow::loadPreferences()
{
    mapSource_->load();
    QSettings s = preferences();
    needles_->setValue(s.value(QStringLiteral("needles"), 20).toInt());
    reference_->setCurrentIndex(s.value(QStringLiteral("relativeToHeading"), false).toBool() ? 1 : 0);
    range_->setValue(s.value(QStringLiteral("rangeKm"), 50).toInt());
    set_.setRelative(reference_->currentIndex() == 1);
}

void BearingsWindow::savePreferences() const
{
    QSettings s = preferences();
    s.setValue(QStringLiteral("needles"), needles_->value());
    s.setValue(QStringLiteral("relativeToHeading"), reference_->currentIndex() == 1);
    s.setValue(QStringLiteral("rangeKm"), range_->value());
}

void BearingsWindow::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (stale_)
        refresh();
}

void BearingsWindow::scheduleRefresh()
{
    stale_ = true;
    if (isVisible())
        refreshTimer_.start();
}

void BearingsWindow::refresh()
{
    stale_ = false;
    set_.rebuild(*model_);
    fillPlatforms();
    recomputeFixes();
}

// Fixes take a while with many bearings: they are computed from a copy of the lines in the
// worker's thread, and only the latest request's answer is taken.
void BearingsWindow::recomputeFixes()
{
    const quint64 generation = ++generation_;
    auto lines = std::make_shared<const BearingSet::AllLines>(set_.allLines());
    QMetaObject::invokeMethod(fixWorker_, [this, generation, lines] {
        std::map<QString, Fix> fixes = BearingSet::solve(*lines);
        QMetaObject::invokeMethod(this, [this, generation, fixes = std::move(fixes)]() mutable {
            fixesComputed(generation, std::move(fixes));
        });
    });
    fillBearingList();
    fillAntenna();
    updateMap();
    redraw();
}

void BearingsWindow::fixesComputed(quint64 generation, std::map<QString, Fix> fixes)
{
    if (generation != generation_)
        return; // the bearings changed meanwhile: a newer answer is on its way
    fixes_ = std::move(fixes);
    fixesGeneration_ = generation;
    fillFixes();
    fillBearingList();
    updateMap();
    redraw();
    emit sigFixesReady();
}

void BearingsWindow::redraw()
{
    updateCompass();
    updateHoming();
    QSet<QString> shown;
    for (const BearingSet::Platform* p : shownPlatforms())
        shown.insert(p->id);
    map_->setShownPlatforms(std::move(shown));
}

void BearingsWindow::fillPlatforms()
{
    const QString current = platform_->currentData().toString();
    QSignalBlocker block(platform_);
    platform_->clear();
    platform_->addItem(kAllFavourites, QString());
    for (const auto& [id, p] : set_.platforms())
        platform_->addItem(p.name(), id);
    platform_->setCurrentIndex(std::max(0, platform_->findData(current)));
}

QColor BearingsWindow::colourOf(const QString& platformId) const
{
    const auto& all = set_.platforms();
    const int i = int(std::distance(all.begin(), all.find(platformId)));
    return QColor::fromHsv((i * 137) % 360, 220, 200);
}

std::vector<const BearingSet::Platform*> BearingsWindow::shownPlatforms() const
{
    std::vector<const BearingSet::Platform*> out;
    const QString id = platform_->currentData().toString();
    // With no favourite heard, "All favourites" shows every platform rather than nothing.
    const bool anyFavourite = std::any_of(set_.platforms().begin(), set_.platforms().end(),
                                          [](const auto& entry) { return entry.second.favourite; });
    for (const auto& [key, p] : set_.platforms())
        if (id.isEmpty() ? p.favourite || !anyFavourite : key == id)
            out.push_back(&p);
    return out;
}

void BearingsWindow::fillFixes()
{
    fixTable_->setRowCount(0);
    for (const auto& [id, f] : fixes_) {
        const int row = fixTable_->rowCount();
        fixTable_->insertRow(row);
        fixTable_->setItem(row, 0, cell(set_.platforms().at(id).name()));
        if (!f.ok) {
            fixTable_->setItem(row, 1, cell(QStringLiteral("No fix: %1").arg(f.reason)));
            continue;
        }
        const QStringList texts{
            QStringLiteral("%1, %2").arg(number(f.position.latitude, 6), number(f.position.longitude, 6)),
            number(f.semiMajor, 0),
            number(f.semiMinor, 0),
            number(f.orientation, 0),
            number(f.cep, 0),
            QString::number(f.used),
            QString::number(f.outliers),
            number(f.rms, 2)};
        for (int c = 0; c < texts.size(); ++c)
            fixTable_->setItem(row, c + 1, cell(texts[c]));
    }
    fixTable_->resizeColumnsToContents();
}

void BearingsWindow::fillBearingList()
{
    QSignalBlocker block(bearingList_);
    bearingList_->setRowCount(0);
    const QString id = platform_->currentData().toString();
    const auto it = set_.platforms().find(id);
    if (id.isEmpty() || it == set_.platforms().end())
        return;
    const auto fit = fixes_.find(id);
    size_t line = 0;
    for (const Geo::Bearing& b : it->second.bearings) {
        const int row = bearingList_->rowCount();
        bearingList_->insertRow(row);
        auto* use = cell(QString());
        use->setFlags(use->flags() | Qt::ItemIsUserCheckable);
        use->setCheckState(b.use ? Qt::Checked : Qt::Unchecked);
        use->setData(Qt::UserRole, b.key());
        QString status = b.noPosition;
        QString residual;
        if (b.receiverValid && fixesReady() && fit != fixes_.end() && line < fit->second.status.size()) {
            const Fix& f = fit->second;
            static const QString names[3] = {QStringLiteral("Used"), QStringLiteral("Left out (outlier)"),
                                             QStringLiteral("Left out by hand")};
            status =
                f.ok || f.status[line] == Fix::Excluded ? names[f.status[line]] : QStringLiteral("No fix");
            if (f.ok)
                residual = number(f.residuals[line], 1);
        }
        if (b.receiverValid)
            ++line;
        bearingList_->setItem(row, 0, use);
        const QStringList texts{QDateTime::fromMSecsSinceEpoch(b.time, Qt::UTC).toString(Qt::ISODate),
                                number(b.direction, 0),
                                number(b.heading, 0),
                                b.relative ? QStringLiteral("heading") : QStringLiteral("north"),
                                number(b.trueBearing, 0),
                                residual,
                                status};
        for (int c = 0; c < texts.size(); ++c)
            bearingList_->setItem(row, c + 1, cell(texts[c]));
    }
    bearingList_->resizeColumnsToContents();
}

void BearingsWindow::fillAntenna()
{
    antenna_ = set_.antennaCheck(angleOffset_->value());
    const auto& e = antenna_.error;
    antennaText_->setText(
        e.count == 0
            ? QStringLiteral("No message carries both the receiver's position and the platform's.")
            : QStringLiteral("Measured minus true bearing to the payload position: mean %1°, spread %2°, "
                             "%3 samples.")
                  .arg(number(antenna_.meanError(), 1), number(std::min(180.0, e.deviation), 1))
                  .arg(e.count));
    if (antenna_.suggestedOffset)
        suggestion_->setText(QStringLiteral("Suggested angle offset: %1").arg(*antenna_.suggestedOffset));
    else
        suggestion_->setText(
            QStringLiteral("No suggestion: it needs at least %1 samples with a spread under %2°.")
                .arg(Geo::AntennaCheck::kMinSamples)
                .arg(Geo::AntennaCheck::kMaxSpread));
    updateApply();
}

void BearingsWindow::setSetupBlocked(const QString& why)
{
    setupBlocked_ = why;
    updateApply();
}

void BearingsWindow::updateApply()
{
    apply_->setEnabled(setupBlocked_.isEmpty() && antenna_.suggestedOffset.has_value());
    apply_->setToolTip(setupBlocked_.isEmpty()
                           ? QStringLiteral("Puts the value in the software setup's \"Angle offset\", "
                                            "which writes it to the receiver as any change of the setup does")
                           : setupBlocked_);
}

void BearingsWindow::applySuggestedOffset()
{
    if (antenna_.suggestedOffset && setupBlocked_.isEmpty())
        angleOffset_->setValue(*antenna_.suggestedOffset);
}

void BearingsWindow::updateCompass()
{
    std::vector<CompassWidget::Series> series;
    std::optional<double> heading;
    qint64 latest = 0;
    for (const BearingSet::Platform* p : shownPlatforms()) {
        CompassWidget::Series s{p->name(), colourOf(p->id), {}, {}};
        const size_t n = p->bearings.size(),
                     first = n > size_t(needles_->value()) ? n - size_t(needles_->value()) : 0;
        for (size_t i = first; i < n; ++i)
            if (p->bearings[i].use)
                s.bearings.push_back(p->bearings[i].trueBearing);
        s.stats = Geo::circularStats(s.bearings);
        if (n > 0 && p->bearings.back().time >= latest) {
            latest = p->bearings.back().time;
            heading = p->bearings.back().heading;
        }
        series.push_back(std::move(s));
    }
    compass_->setSeries(std::move(series), heading);
}

void BearingsWindow::updateMap()
{
    BearingMapWidget::Scene scene;
    const auto& track = set_.track();
    // The drawn track needs no point closer than about 10 m to the last one.
    constexpr double kTrackStep = 1e-4; // degrees
    Geo::GeoPoint last{1000, 1000};
    for (const Geo::GeoPoint& g : track)
        if (std::abs(g.latitude - last.latitude) + std::abs(g.longitude - last.longitude) >= kTrackStep ||
            &g == &track.back()) {
            scene.track.push_back(g);
            last = g;
        }
    const double range = range_->value() * 1000.0;
    for (const auto& [id, platform] : set_.platforms()) {
        const BearingSet::Platform* p = &platform;
        const QColor colour = colourOf(p->id);
        BearingMapWidget::Lines lines{p->id, colour, {}};
        QSet<QPair<double, double>> sent; // a buoy that stays sends one position: one mark
        for (auto b = p->bearings.rbegin(); b != p->bearings.rend(); ++b) {
            if (b->payload && !sent.contains({b->payload->latitude, b->payload->longitude})) {
                sent.insert({b->payload->latitude, b->payload->longitude});
                scene.payloads.push_back({p->id, *b->payload, colour, {}});
            }
            if (b->use && b->receiverValid && lines.lines.size() < kMapLines)
                lines.lines.push_back(
                    Geo::BearingExport::bearingLine(b->receiver, b->trueBearing, range, mapSegments(range)));
        }
        scene.bearings.push_back(std::move(lines));
        const auto f = fixes_.find(p->id);
        if (f == fixes_.end() || !f->second.ok)
            continue;
        scene.fixes.push_back(
            {{p->id, f->second.position, colour, p->name()}, Geo::BearingExport::ellipseRing(f->second)});
    }
    map_->setScene(std::move(scene));
}

void BearingsWindow::exportFile(const QString& what)
{
    const QString suffix = what == QLatin1String("GeoJSON") ? QStringLiteral("geojson") : what.toLower();
    const QString fileName = MRL::Ui::Dialogs::instance().getSaveFileName(
        this, QStringLiteral("Export bearings (%1)").arg(what),
        QStringLiteral("%1 files (*.%2);;All files (*)").arg(what, suffix));
    if (fileName.isEmpty())
        return;
    try {
        const Geo::BearingExport::Content content{&set_, fixesReady() ? fixes_ : set_.fixes(),
                                                  range_->value() * 1000.0};
        const QByteArray data = what == QLatin1String("GeoJSON") ? Geo::BearingExport::geoJson(content)
                                : what == QLatin1String("KML")   ? Geo::BearingExport::kml(content)
                                                                 : Geo::BearingExport::gpx(content);
        Geo::BearingExport::save(fileName, data);
    } catch (const MRL::Utils::Exception& e) {
        MRL::Ui::Dialogs::instance().critical(this, QStringLiteral("Bearings"), e.message());
    }
}

void BearingsWindow::updateHoming()
{
    const QString id = platform_->currentData().toString();
    const auto it = set_.platforms().find(id);
    if (id.isEmpty() || it == set_.platforms().end()) {
        homing_->setText(QStringLiteral("Choose a platform to home on."));
        compass_->setSteer(std::nullopt);
        return;
    }
    const auto fit = fixes_.find(id);
    const Fix* fix = fixesReady() && fit != fixes_.end() ? &fit->second : nullptr;
    const Geo::Homing h = Geo::Homing::compute(set_, it->second, fix);
    const auto unit = Geo::Homing::Unit(std::clamp(distanceUnit_->currentIndex(), 0, 2));
    QStringList lines{QStringLiteral("<b>%1</b>").arg(it->second.name().toHtmlEscaped())};
    const auto line = [&](const QString& what, const std::optional<Geo::Homing::Leg>& leg,
                          const QString& none) {
        lines << (leg ? QStringLiteral("%1: <b>%2</b> at <b>%3</b>")
                            .arg(what, Geo::Homing::distanceText(leg->metres, unit),
                                 Geo::Homing::bearingText(*leg))
                      : QStringLiteral("%1: %2").arg(what, none));
    };
    if (!h.receiver) {
        lines << QStringLiteral("The receiver has not given its position yet.");
    } else {
        line(QStringLiteral("Payload position"), h.toPayload, QStringLiteral("none received"));
        line(QStringLiteral("Fix"), h.toFix, fix ? QStringLiteral("none") : QStringLiteral("computing…"));
    }
    homing_->setText(lines.join(QStringLiteral("<br>")));
    // Steer to the platform's own position when it gives one: it is where it is now.
    const std::optional<Geo::Homing::Leg>& target = h.toPayload ? h.toPayload : h.toFix;
    compass_->setSteer(target ? std::optional<double>(target->bearing) : std::nullopt);
}

} // namespace OrviaGonioManager::Ui
