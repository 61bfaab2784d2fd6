#include "ui/MainWindow.h"

#include "BuildInfo.h"
#include "app/Settings.h"
#include "com/ComManager.h"
#include "com/EnumTexts.h"
#include "mrl/ui/Help.h"
#include "mrl/ui/UiLogger.h"
#include "ui/JobPanel.h"
#include "ui_MainWindow.h"
#include "utils/FlashMemory.h"
#include "utils/GpsFormat.h"
#include "utils/JobProgress.h"

#include <QCoreApplication>
#include <QDebug>
#include <QProgressBar>
#include <QToolBar>

// Resources of a static library must be initialised by name, outside any namespace.
static void initResources()
{
    Q_INIT_RESOURCE(resources);
}

namespace OrviaGonioManager::Ui {

using Com::GnxLink;

MainWindow::MainWindow(QWidget* parent)
    : MRL::Ui::MainWindow(parent), ui_(std::make_unique<::Ui::MainWindow>())
{
    initResources();
    ui_->setupUi(this);
    setWindowTitle(QStringLiteral("%1 - %2").arg(windowTitle(), QCoreApplication::applicationVersion()));
    setWindowIcon(QIcon(QStringLiteral(":/Icons/GNX")));

    ui_->mainToolBar_->addSeparator();
    auto* help = new MRL::Ui::Help(
        this, QStringLiteral(":/Icons/VTL"), QStringLiteral(":/Icons/VTL_GREY"),
        QStringLiteral("%1T%2").arg(QStringLiteral(OGM_BUILD_DATE), QStringLiteral(OGM_BUILD_TIME)));
    help->setupUiToolbar();
    setUpReconnect();

    configureLogger(ui_->tableWidgetLogger);
    ui_->tableWidgetLogger->setMaximumNumberOfRows(1000);
    ui_->tableWidgetLogger->setFollow(true);
    setUpTerminal();

    fillComboBoxes();
    setTableHeaders();

    progressBar_ = new QProgressBar(this);
    progressBar_->setVisible(false);
    ui_->statusBar->addPermanentWidget(progressBar_);
    job_ = new Utils::JobProgress(this);
    jobPanel_ = new JobPanel(job_, this);
    ui_->statusBar->addPermanentWidget(jobPanel_);
    setUpNoReceiverLabel();

    Utils::Settings::instance();
    comManager_ = new Com::ComManager(this);
    gnxLink_ = new GnxLink(this);
    connect(comManager_, &Com::ComManager::sigGnxDetected, this,
            [this](const QString& port) { guard([&] { slotGnxDetected(port); }); });
    connect(comManager_, &Com::ComManager::sigGnxRemoved, this,
            [this](const QString& port) { guard([&] { slotGnxRemoved(port); }); });
    setUpRxTable();
    flashMemory_ = Utils::FlashMemory::instance();
    connect(Utils::GpsFormat::instance(), &Utils::GpsFormat::sigNewGpsFormat, this,
            &MainWindow::slotAddGpsFormat);
    connect(gnxLink_, &GnxLink::sigOrviaMessageReceived, this, &MainWindow::slotOrviaMessageReceived);
    connect(flashMemory_, &Utils::FlashMemory::sigOrviaDecoded, this, &MainWindow::slotOrviaMessageReceived);
    connect(gnxLink_, &GnxLink::sigLinkCompromised, this,
            [this](const QString& port, const QString& message) {
                guard([&] { linkCompromised(port, message); });
            });
}

MainWindow::~MainWindow()
{
    finishKeeping();
    // The tables outlive this part of the window while the base class deletes them.
    disconnect(ui_->tableWidgetPlatforms->model(), nullptr, this, nullptr);
    sessionLog_.close();
    if (gnxLink_)
        gnxLink_->closeConnection();
}

void MainWindow::fillComboBoxes()
{
    using Com::EnumTexts::texts;
    ui_->comboBoxPlatformsModulation->addItems(texts<GnxLink::OrviaModulation_t>());
    ui_->comboBoxHardwareDirectionMode->addItems(texts<GnxLink::DirectionMode_t>());
    ui_->comboBoxHardwareAntennaPosition->addItems(texts<GnxLink::AntennaPosition_t>());
    ui_->comboBoxHardwareAntennaMode->addItems(texts<GnxLink::AntennaType_t>());
    ui_->comboBoxHardwareCompassMode->addItems(texts<GnxLink::CompassMode_t>());
    ui_->comboBoxGpsFormatsEncryptionType->addItems(
        {QStringLiteral("NONE"), QStringLiteral("1"), QStringLiteral("2")});
    ui_->comboBoxSetupSoftwareDistType->addItems(texts<GnxLink::DistType_t>());
    ui_->comboBoxSetupSoftwareCoordType->addItems(texts<GnxLink::CoordType_t>());
    ui_->comboBoxSetupSoftwareOrviaBand->addItems(texts<GnxLink::OrviaBand_t>());
    ui_->comboBoxPlatformsOrviaBand->addItems(texts<GnxLink::OrviaBand_t>());
}

void MainWindow::setTableHeaders()
{
    ui_->tableWidgetPlatforms->setColumnCount(4);
    ui_->tableWidgetPlatforms->setHorizontalHeaderLabels({QStringLiteral("Index"), QStringLiteral("Id"),
                                                          QStringLiteral("Label"),
                                                          QStringLiteral("GPS Format")});
    ui_->tableWidgetGpsFormats->setColumnCount(2);
    ui_->tableWidgetGpsFormats->setHorizontalHeaderLabels({QStringLiteral("Name"), QStringLiteral("Origin")});
}

void MainWindow::slotLastWindowClosed() {}

void MainWindow::slotPostInit()
{
    ui_->splitter->setSizes({1, 1000});
    setUnconnectedState();
    comManager_->slotScanComPorts();
    updateNoReceiverLabel();
    qInfo().noquote() << "Ready!";
    ui_->tableWidgetLogger->messageBatchEnd();
}

} // namespace OrviaGonioManager::Ui
