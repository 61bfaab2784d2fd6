#pragma once

#include "geo/BearingSet.h"

#include <QSettings>
#include <QThread>
#include <QTimer>
#include <QWidget>

class QCheckBox;
class QComboBox;
class QLabel;
class QPushButton;
class QSpinBox;
class QTableWidget;

namespace OrviaGonioManager::Utils {
class RxTableModel;
}

namespace OrviaGonioManager::Ui {

class BearingMapWidget;
class MapSource;
class CompassWidget;

// Where the transmitters are: a compass, an offline map, fixes from bearings and an antenna
// check, fed by the messages the RX table shows. A window of its own: nothing here talks to the
// device; "Apply to setup" fills the software setup's angle offset, whose change the main window
// writes as it writes any change of the setup, and so acts only when a receiver in application
// mode is connected.
class BearingsWindow : public QWidget
{
    Q_OBJECT

public:
    // distanceUnit: the software setup's, for the homing distances.
    BearingsWindow(const Utils::RxTableModel* model, QSpinBox* angleOffset, QComboBox* distanceUnit,
                   QWidget* parent = nullptr);
    ~BearingsWindow() override;

    // The window's own preferences, in the user's scope: never the program's settings file.
    static QSettings preferences();
    MapSource* mapSource() const { return mapSource_; }

    const Geo::BearingSet& bearings() const { return set_; }
    // The fixes of the bearings as they are now, once fixesReady() says so: they are computed
    // away from the window's thread.
    const std::map<QString, Geo::Fix>& fixes() const { return fixes_; }
    bool fixesReady() const { return fixesGeneration_ == generation_; }
    CompassWidget* compass() const { return compass_; }
    BearingMapWidget* map() const { return map_; }
    // The suggested "Angle offset", when the antenna check has one.
    std::optional<int> suggestedOffset() const { return antenna_.suggestedOffset; }
    // Why the setup cannot take the offset now (no receiver, bootloader mode); empty when it can.
    void setSetupBlocked(const QString& why);

signals:
    void sigFixesReady();

public slots:
    // Everything again from the RX table.
    void refresh();
    // Drawing only, from what refresh() computed.
    void redraw();
    void applySuggestedOffset();

protected:
    void showEvent(QShowEvent* event) override;

private:
    void buildLayout();
    QWidget* buildControls();
    QWidget* buildAntennaPanel();
    void loadPreferences();
    void savePreferences() const;
    void scheduleRefresh();
    void recomputeFixes();
    void fixesComputed(quint64 generation, std::map<QString, Geo::Fix> fixes);
    void fillPlatforms();
    void fillFixes();
    void fillBearingList();
    void fillAntenna();
    void updateApply();
    void updateCompass();
    // Distance and bearing to the selected platform's latest payload position and fix.
    void updateHoming();
    // The map's scene, in metres, for every platform: made again only when the data changes.
    void updateMap();
    QColor colourOf(const QString& platformId) const;
    // The platforms the compass and the list show: the selected one, or every favourite.
    std::vector<const Geo::BearingSet::Platform*> shownPlatforms() const;
    void exportFile(const QString& what);

    const Utils::RxTableModel* model_;
    QSpinBox* angleOffset_;
    QComboBox* distanceUnit_;
    Geo::BearingSet set_;
    std::map<QString, Geo::Fix> fixes_;
    Geo::AntennaCheck antenna_;
    QTimer refreshTimer_;
    QThread fixThread_;
    QObject* fixWorker_ = nullptr; // lives in fixThread_
    quint64 generation_ = 0;       // of the bearings
    quint64 fixesGeneration_ = 0;  // of the bearings fixes_ were computed from
    bool stale_ = true;

    QComboBox* platform_ = nullptr;
    QSpinBox* needles_ = nullptr;
    QComboBox* reference_ = nullptr;
    QSpinBox* range_ = nullptr;
    CompassWidget* compass_ = nullptr;
    QLabel* homing_ = nullptr;
    BearingMapWidget* map_ = nullptr;
    MapSource* mapSource_ = nullptr;
    QLabel* mapStatus_ = nullptr;
    QTableWidget* fixTable_ = nullptr;
    QTableWidget* bearingList_ = nullptr;
    QLabel* antennaText_ = nullptr;
    QLabel* suggestion_ = nullptr;
    QPushButton* apply_ = nullptr;
    QString setupBlocked_;
};

} // namespace OrviaGonioManager::Ui
