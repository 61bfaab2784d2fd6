#pragma once

#include "com/GnxLink.h"
#include "mrl/ui/MainWindow.h"
#include "ui/SessionLog.h"
#include "utils/GpsFormat.h"
#include "utils/RxTableModel.h"

#include <QElapsedTimer>
#include <QMap>
#include <QPointer>
#include <memory>
#include <vector>

class QAction;
class QIcon;
class QLabel;
class QProgressBar;
class QToolBar;

namespace Ui {
class MainWindow;
}

namespace OrviaGonioManager::Com {
class ComManager;
}
namespace OrviaGonioManager::Store {
class StoreWriter;
}
namespace OrviaGonioManager::Utils {
class FlashMemory;
class JobProgress;
} // namespace OrviaGonioManager::Utils

namespace OrviaGonioManager::Ui {

// The program's only window: one tool-bar action per detected receiver, the connection
// workflow, and the tabs. Its code is split by tab (MainWindow*.cpp).
class MainWindow : public MRL::Ui::MainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    // For tests and the tool bar.
    ::Ui::MainWindow* form() const { return ui_.get(); }
    Com::GnxLink* gnxLink() const { return gnxLink_; }
    Com::ComManager* comManager() const { return comManager_; }
    QAction* portAction(const QString& portName) const { return portActions_.value(portName); }
    QAction* reconnectAction() const { return reconnectAction_; }
    QStringList portNames() const { return portActions_.keys(); }
    QString connectedPort() const { return connectedPort_; }
    QString sessionLogPath() const { return sessionLog_.filePath(); }
    Utils::RxTableModel* rxModel() const { return rxModel_; }
    // The long job under way, and the status bar's view of it.
    Utils::JobProgress* jobProgress() const { return job_; }
    class JobPanel* jobPanel() const { return jobPanel_; }
    // The Bearings window, made the first time it is asked for.
    class BearingsWindow* bearingsWindow();
    QAction* bearingsAction() const { return bearingsAction_; }
    // The History window (kept messages), made the first time it is asked for.
    class HistoryWindow* historyWindow();
    QAction* historyAction() const { return historyAction_; }
    // "Keep messages" and the writer it runs while on (null while off).
    QAction* keepAction() const { return keepAction_; }
    Store::StoreWriter* storeWriter() const { return storeWriter_; }
    // The Terminal tab's log view menu and command history.
    class TerminalLog* terminalLog() const { return terminalLog_; }
    class CommandHistory* commandHistory() const { return commandHistory_; }
    // The status bar's word on how to make a receiver appear, shown while there is none.
    QLabel* noReceiverLabel() const { return noReceiverLabel_; }

    // The connect toggle of a port action.
    void connectToggled(const QString& portName, bool checked);

public slots:
    void slotLastWindowClosed();
    void slotPostInit() override;
    void slotGnxDetected(QString portName);
    void slotGnxRemoved(QString portName);
    void slotGnxConnected(QString portName);
    void slotGnxDisconnected(QString portName, QString reason);
    void slotRefreshGuiInfos();
    void slotRefreshStatus();
    void slotSwitchMode();
    void slotUpdateFirmware();
    void slotSetSetupSoftware();
    void slotSetTime();
    void slotSetSetupHardware();

    // "Favorite platforms" tab: platforms and GPS formats (MainWindowPlatforms.cpp).
    void slotGetPlatformsInfo();
    void slotImportPlatformsInfo();
    void slotExportPlatformsInfo();
    bool slotDeleteAllPlatforms();
    void slotDisplayPlatformsInfo();
    void slotSavePlatformsInfo();
    void slotCreatePlatformsInfo();
    void slotDeletePlatformsInfo();
    void slotReloadGpsFormatsFile();
    void slotSaveGpsFormatsFile();
    void slotAddGpsFormat(OrviaGonioManager::Utils::GpsFormat_t* gpsFormat);
    void slotDisplayGpsFormatsInfo();
    void slotSaveGpsFormats();
    void slotDeleteGpsFormats();
    void slotCreateGpsFormats();

    // "RX" tab (MainWindowRx.cpp).
    void slotSetLiveRxEnabled(bool enabled);
    void slotClearRxTable();
    void slotExportRxTable();
    void slotReadFlashMemory();
    void slotEraseFlashMemory();

    // "Terminal" tab (MainWindowTerminal.cpp).
    void slotSendManualGnxCmd();
    void slotTerminalSaveScript();
    void slotTerminalScript();

    // "RX" tab, continued.
    void slotOrviaMessageReceived(OrviaGonioManager::Com::OrviaRxMessage_t orviaRxMessage,
                                  OrviaGonioManager::Com::GnxLink::RxOrigin_t rxOrigin);
    void slotFilterRxTable();
    void slotClearSelectionRxTable();

private:
    // Start-up.
    void fillComboBoxes();
    void setTableHeaders();

    // Connection workflow. The slots wrap these in a guard; these throw, so that a failure
    // ends the whole sequence that called them.
    void gnxConnected(const QString& portName);
    void gnxDisconnected(const QString& portName, const QString& reason, bool linkFailure);
    // The connection to this port went while it was being made.
    bool connectionLost(const QString& portName) const;
    void linkCompromised(const QString& portName, const QString& message);
    void refreshGuiInfos();
    void refreshStatus();
    void connectWidgets();
    void disconnectWidgets();
    void setUnconnectedState();
    void setTerminalEnabled(bool enabled);
    void showGenerationWidgets(bool gnx134);
    void showBootloaderMode(bool bootloader);
    void setUpNoReceiverLabel();
    void updateNoReceiverLabel();

    // Reconnecting to the same receiver (MainWindowReconnect.cpp).
    void setUpReconnect();
    // The Bearings window's action (MainWindowBearings.cpp).
    void setUpBearings(QToolBar* toolBar);
    void updateBearingsApply();
    // The History window's action (MainWindowHistory.cpp).
    void setUpHistory(QToolBar* toolBar);
    // Keeping the messages in the message store (MainWindowKeep.cpp).
    void setUpKeepMessages(QToolBar* toolBar);
    static QString storeUrl();
    void setKeeping(bool on);
    void keepRows(std::vector<Utils::RxTableModel::Row> rows);
    QString keptSerial() const;
    void keepReceiverKnown();
    void finishKeeping();
    void clearNotKept();
    static QString portIdentity(const QString& portName);
    void rememberLostReceiver();
    void reconnectIfLost(const QString& portName);
    QString portLabel(const QString& portName) const;
    QString logIdentity() const;

    // Configuration tab.
    void refreshSetupSoftware();
    void refreshSetupHardware();
    void readBackSetupSoftware();
    void clearSetups();
    void readBackSetupHardware();
    void showSetupSoftware(const Com::GnxLink::SetupSoftware& setup);
    void showSetupHardware(const Com::GnxLink::SetupHardware& setup);
    Com::GnxLink::SetupSoftware setupSoftwareFromWidgets() const;
    Com::GnxLink::SetupHardware setupHardwareFromWidgets() const;
    QList<QWidget*> softwareSetupWidgets() const;
    QList<QWidget*> hardwareSetupWidgets() const;

    // Firmware.
    void uploadWithProgress(const QList<QByteArray>& records);

    // Favorite platforms tab (MainWindowPlatforms.cpp, MainWindowGpsFormats.cpp).
    void loadPlatformsTable();
    void reloadGpsFormatsFile();
    void clearPlatformsTable();
    void clearGpsFormatsList();

    // RX tab (MainWindowRx.cpp): coordinates are shown as the software setup's coordinate type says.
    void setUpRxTable();
    void showRxCoordinates(Com::GnxLink::CoordType_t type);
    void refreshFavourites();

    // Terminal tab (MainWindowTerminal.cpp). Private helpers of that tab go here.
    void setUpTerminal();

    std::unique_ptr<::Ui::MainWindow> ui_;
    QMap<QString, QAction*> portActions_;
    Com::ComManager* comManager_ = nullptr;
    Com::GnxLink* gnxLink_ = nullptr;
    Utils::FlashMemory* flashMemory_ = nullptr;
    QString connectedPort_;
    Com::GnxLink::GnxVersion_t connectedVersion_ = Com::GnxLink::GNX_UNDEFINEDVERSION;
    Com::GnxLink::GnxDeviceInfo deviceInfo_;
    SessionLog sessionLog_;
    bool guiRefreshing_ = false;
    bool connecting_ = false; // the connection sequence runs
    Utils::RxTableModel* rxModel_ = nullptr;
    bool favouritesChanged_ = true; // the RX table's lookup follows the platforms table
    std::vector<Utils::RxTableModel::Row>* flashBatch_ = nullptr; // flash messages enter together
    quint16 deviceContrast_ = 0; // as last read: the slider shows it bounded to its range
    QList<QMetaObject::Connection> widgetConnections_;
    QProgressBar* progressBar_ = nullptr;
    Utils::JobProgress* job_ = nullptr;
    QAction* reconnectAction_ = nullptr;
    QString connectedIdentity_; // of the connected receiver
    QString lostIdentity_;      // of the receiver that was pulled out, while it may come back
    QElapsedTimer lostClock_;
    class JobPanel* jobPanel_ = nullptr;
    QAction* bearingsAction_ = nullptr;
    class BearingsWindow* bearingsWindow_ = nullptr;
    QAction* historyAction_ = nullptr;
    class HistoryWindow* historyWindow_ = nullptr;
    QAction* keepAction_ = nullptr;
    Store::StoreWriter* storeWriter_ = nullptr;
    std::vector<Utils::RxTableModel::Row> keepHeld_; // until the receiver's serial number is known
    class TerminalLog* terminalLog_ = nullptr;
    class CommandHistory* commandHistory_ = nullptr;
    QLabel* noReceiverLabel_ = nullptr;
};

} // namespace OrviaGonioManager::Ui
