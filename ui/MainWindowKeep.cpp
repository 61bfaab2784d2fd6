// Main window: every message received, live or read from flash memory, kept in the message store
// beside the RX table. On by default; the choice and the store's URL are the user's own settings.
// The store is written from a thread of its own: the window only hands rows over.
#include "store/MessageStore.h"
#include "store/StoreWriter.h"
#include "ui/MainWindow.h"
#include "ui/UserSettings.h"
#include "ui_MainWindow.h"
#include "utils/ReceiverSerial.h"

#include <QAction>
#include <QDebug>
#include <QSettings>
#include <QStatusBar>
#include <QToolBar>

#include <algorithm>
#include <utility>

namespace OrviaGonioManager::Ui {

using Com::GnxLink;
using Store::StoreWriter;

namespace {

const QString kKeepKey = QStringLiteral("store/keep");
const QString kStoreUrlKey = QStringLiteral("store/url");
const QString kNotKept = QStringLiteral("Messages are not kept: ");
// Rows of a receiver not identified yet wait at most this many; more are not kept.
constexpr size_t kMaxHeldRows = 100000;

} // namespace

void MainWindow::setUpKeepMessages(QToolBar* toolBar)
{
    keepAction_ = toolBar->addAction(QStringLiteral("Keep messages"));
    keepAction_->setObjectName(QStringLiteral("actionKeepMessages"));
    keepAction_->setCheckable(true);
    keepAction_->setChecked(userSettings().value(kKeepKey, true).toBool());
    connect(keepAction_, &QAction::toggled, this, [this](bool on) {
        userSettings().setValue(kKeepKey, on);
        setKeeping(on);
    });
    setKeeping(keepAction_->isChecked());
}

QString MainWindow::storeUrl()
{
    const QString named = userSettings().value(kStoreUrlKey).toString().trimmed();
    return named.isEmpty() ? Store::MessageStore::defaultUrl() : named;
}

void MainWindow::setKeeping(bool on)
{
    // Rows handed to the writer going away are still kept: it finishes in its own time.
    if (StoreWriter* old = storeWriter_) {
        storeWriter_ = nullptr;
        disconnect(old, nullptr, this, nullptr);
        connect(old, &StoreWriter::finished, old, &QObject::deleteLater);
        old->finishLater();
    }
    keepHeld_.clear();
    clearNotKept();
    if (!on) {
        keepAction_->setToolTip(QStringLiteral("Keep every message received, live or from flash memory, "
                                               "in the message store"));
        return;
    }
    storeWriter_ = new StoreWriter(storeUrl(), this);
    keepAction_->setToolTip(QStringLiteral("Every message received, live or from flash memory, is kept in %1")
                                .arg(storeWriter_->shownUrl()));
    connect(storeWriter_, &StoreWriter::failed, this, [this](const QString& why) {
        const QString line = kNotKept + why;
        qWarning().noquote() << line;
        ui_->statusBar->showMessage(line);
    });
    // A commit that works again ends what the status bar said.
    connect(storeWriter_, &StoreWriter::stored, this, [this] { clearNotKept(); });
    keepReceiverKnown();
}

void MainWindow::clearNotKept()
{
    if (ui_->statusBar->currentMessage().startsWith(kNotKept))
        ui_->statusBar->clearMessage();
}

// Live and flash rows alike, once the receiver that heard them is known.
void MainWindow::keepRows(std::vector<Utils::RxTableModel::Row> rows)
{
    if (!storeWriter_ || rows.empty())
        return;
    const QString serial = keptSerial();
    if (serial.isEmpty()) {
        const size_t room = kMaxHeldRows - std::min(kMaxHeldRows, keepHeld_.size());
        keepHeld_.insert(keepHeld_.end(), std::make_move_iterator(rows.begin()),
                         std::make_move_iterator(rows.begin() + std::ptrdiff_t(std::min(room, rows.size()))));
        return;
    }
    storeWriter_->add(serial, std::move(rows));
}

// The serial number the link keeps for the connected receiver; empty until it has been read.
QString MainWindow::keptSerial() const
{
    const QString serial = deviceInfo_.serialNumberPart1;
    return serial.isEmpty() || serial == QLatin1String("UNKNOWN") ? QString()
                                                                  : Utils::receiverSerial(deviceInfo_);
}

// Called when the receiver's identity was read: it is noted, and what waited for it goes.
void MainWindow::keepReceiverKnown()
{
    const QString serial = keptSerial();
    if (!storeWriter_ || serial.isEmpty())
        return;
    Store::MessageStore::Receiver receiver;
    receiver.serialNumber = serial;
    receiver.model =
        deviceInfo_.version == GnxLink::GNX_V1 ? QStringLiteral("GNX134") : QStringLiteral("GNX234");
    receiver.applicationVersion = deviceInfo_.applicationVersion;
    receiver.fpgaVersion = deviceInfo_.fpgaVersion;
    receiver.bootloaderVersion = deviceInfo_.bootloaderVersion;
    storeWriter_->noteReceiver(receiver);
    if (!keepHeld_.empty())
        storeWriter_->add(serial, std::exchange(keepHeld_, {}));
}

// Before the window goes: what was handed over is committed, for a bounded time.
void MainWindow::finishKeeping()
{
    keepHeld_.clear();
    storeWriter_ = nullptr;
    for (StoreWriter* writer : findChildren<StoreWriter*>(Qt::FindDirectChildrenOnly)) {
        disconnect(writer, nullptr, this, nullptr);
        if (!writer->finish(StoreWriter::kFinishMs))
            qWarning().noquote() << kNotKept + QStringLiteral("%1: %2 messages were still being written "
                                                              "when the window closed")
                                                   .arg(writer->shownUrl())
                                                   .arg(writer->handedRows() - writer->settledRows());
        delete writer;
    }
}

} // namespace OrviaGonioManager::Ui
