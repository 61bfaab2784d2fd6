#include "ui/MainWindow.h"

#include "BuildInfo.h"
#include "app/Settings.h"
#include "com/ComManager.h"
#include "mrl/ui/Help.h"
#include "mrl/ui/UiLogger.h"
#include "ui/JobPanel.h"
#include "ui_MainWindow.h"
#include "utils/FlashMemory.h"
#include "utils/GpsFormat.h"
#include "utils/JobProgress.h"

#include <QCoreApplication>
#include <QDebug>
#include <QMetaEnum>
#include <QProgressBar>
#include <QToolBar>

// Resources of a static library must be initialised by name, outside any namespace.
static void initResources()
{
    Q_INIT_RESOURCE(resources);
}

namespace OrviaGonioManager::Ui {

using Com::GnxLink;

namespace {

// Fills a combo box from an enumeration's keys with their prefix removed.
template <typename Enum> void fillFromEnum(QComboBox* combo, const QString& prefix)
{
    const QMetaEnum meta = QMetaEnum::fromType<Enum>();
    combo->clear();
    for (int i = 0; i < meta.keyCount(); ++i)
        combo->addItem(QString::fromLatin1(meta.key(i)).mid(prefix.size()));
}

} // namespace

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

    fillComboBoxes();
    setTableHeaders();

    progressBar_ = new QProgressBar(this);
    progressBar_->setVisible(false);
    ui_->statusBar->addPermanentWidget(progressBar_);
    job_ = new Utils::JobProgress(this);
    jobPanel_ = new JobPanel(job_, this);
    ui_->statusBar->addPermanentWidget(jobPanel_);

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
    // The tables outlive this part of the window while the base class deletes them.
    disconnect(ui_->tableWidgetPlatforms->model(), nullptr, this, nullptr);
    sessionLog_.close();
    if (gnxLink_)
        gnxLink_->closeConnection();
}

void MainWindow::fillComboBoxes()
{
    fillFromEnum<GnxLink::OrviaModulation_t>(ui_->comboBoxPlatformsModulation,
                                             QStringLiteral("ORVIAMODULATION_"));
    fillFromEnum<GnxLink::DirectionMode_t>(ui_->comboBoxHardwareDirectionMode,
                                           QStringLiteral("DIRECTIONMODE_"));
    fillFromEnum<GnxLink::AntennaPosition_t>(ui_->comboBoxHardwareAntennaPosition,
                                             QStringLiteral("ANTENNAPOSITION_"));
    fillFromEnum<GnxLink::AntennaType_t>(ui_->comboBoxHardwareAntennaMode, QStringLiteral("ANTENNATYPE_"));
    fillFromEnum<GnxLink::CompassMode_t>(ui_->comboBoxHardwareCompassMode, QStringLiteral("COMPASSMODE_"));
    ui_->comboBoxGpsFormatsEncryptionType->addItems(
        {QStringLiteral("NONE"), QStringLiteral("1"), QStringLiteral("2")});
    ui_->comboBoxSetupSoftwareDistType->addItems(
        {QStringLiteral("km"), QStringLiteral("miles"), QStringLiteral("nautical miles")});
    ui_->comboBoxSetupSoftwareCoordType->addItems(
        {QString::fromUtf8("xx.xxx°"), QString::fromUtf8("xx°xx.xx'"), QString::fromUtf8("xx°xx'xx\"")});
    const QMetaEnum bands = QMetaEnum::fromType<GnxLink::OrviaBand_t>();
    for (int i = 0; i < bands.keyCount(); ++i) {
        const auto band = GnxLink::OrviaBand_t(bands.value(i));
        const QString text =
            band == GnxLink::ORVIABAND_INVALID ? QStringLiteral("INVALID") : GnxLink::bandDescription(band);
        ui_->comboBoxSetupSoftwareOrviaBand->addItem(text);
        ui_->comboBoxPlatformsOrviaBand->addItem(text);
    }
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
    qInfo().noquote() << "Ready!";
    ui_->tableWidgetLogger->messageBatchEnd();
}

} // namespace OrviaGonioManager::Ui
