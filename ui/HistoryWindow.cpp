#include "ui/HistoryWindow.h"

#include "mrl/ui/Dialogs.h"
#include "ui/BearingsWindow.h"
#include "ui/UserSettings.h"

#include <QCheckBox>
#include <QComboBox>
#include <QDateTimeEdit>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QHeaderView>
#include <QItemSelectionModel>
#include <QLabel>
#include <QLineEdit>
#include <QPushButton>
#include <QSortFilterProxyModel>
#include <QSpinBox>
#include <QTableView>
#include <QVBoxLayout>

#include <algorithm>
#include <utility>

namespace OrviaGonioManager::Ui {

using Store::HistoryExport;
using Store::HistoryWorker;
using Store::MessageStore;
using Utils::RxTableModel;

namespace {

constexpr int kDefaultLimit = 100000; // rows a search shows unless asked for more
const char* const kTimeFormat = "yyyy-MM-dd HH:mm:ss";

QString messages(qint64 n)
{
    return n == 1 ? QStringLiteral("1 message") : QStringLiteral("%1 messages").arg(n);
}

// Filters in the view, and leaves the sorting to the RX table's model, which sorts a big table
// far faster than a proxy comparing cell texts.
class FilterProxy : public QSortFilterProxyModel
{
public:
    using QSortFilterProxyModel::QSortFilterProxyModel;
    void sort(int column, Qt::SortOrder order) override { sourceModel()->sort(column, order); }
};

QDateTimeEdit* timeEdit(const QString& name, const QDateTime& at)
{
    auto* edit = new QDateTimeEdit;
    edit->setObjectName(name);
    edit->setTimeSpec(Qt::UTC);
    edit->setDisplayFormat(QLatin1String(kTimeFormat));
    edit->setCalendarPopup(true);
    edit->setDateTime(at);
    edit->setEnabled(false);
    return edit;
}

} // namespace

HistoryWindow::HistoryWindow(QSpinBox* angleOffset, QComboBox* distanceUnit, QWidget* parent)
    : QWidget(parent, Qt::Window), angleOffset_(angleOffset), distanceUnit_(distanceUnit)
{
    setObjectName(QStringLiteral("historyWindow"));
    setWindowTitle(QStringLiteral("History"));
    worker_ = new HistoryWorker;
    worker_->moveToThread(&thread_);
    connect(&thread_, &QThread::finished, worker_, &QObject::deleteLater);
    connect(worker_, &HistoryWorker::sigOpened, this, &HistoryWindow::storeOpened);
    connect(worker_, &HistoryWorker::sigQueried, this, &HistoryWindow::queried);
    connect(worker_, &HistoryWorker::sigSaved, this, &HistoryWindow::saved);
    thread_.setObjectName(QStringLiteral("history"));
    thread_.start();
    buildLayout();
    resize(1100, 600);
}

HistoryWindow::~HistoryWindow()
{
    // The worker, and its store, go in their own thread.
    thread_.quit();
    thread_.wait();
    // Before the models they show, which go before the children.
    delete bearings_;
    view_->setModel(nullptr);
    delete proxy_;
    delete model_;
}

QString HistoryWindow::defaultStoreUrl()
{
    const QString url = userSettings().value(QStringLiteral("store/url")).toString();
    return url.isEmpty() ? MessageStore::defaultUrl() : url;
}

void HistoryWindow::buildLayout()
{
    store_ = new QLineEdit;
    store_->setObjectName(QStringLiteral("lineEditHistoryStore"));
    store_->setToolTip(QStringLiteral("A file path, sqlite:PATH or postgresql://user@host:port/database; "
                                      "Enter opens it"));
    openStore_ = new QPushButton(QStringLiteral("Open store..."));
    openStore_->setObjectName(QStringLiteral("pushButtonHistoryOpenStore"));
    connect(store_, &QLineEdit::returnPressed, this, [this] { openStore(store_->text().trimmed()); });
    connect(openStore_, &QPushButton::clicked, this, &HistoryWindow::chooseStore);
    auto* storeRow = new QHBoxLayout;
    storeRow->addWidget(new QLabel(QStringLiteral("Store:")));
    storeRow->addWidget(store_, 1);
    storeRow->addWidget(openStore_);

    receiver_ = new QComboBox;
    receiver_->setObjectName(QStringLiteral("comboBoxHistoryReceiver"));
    receiver_->addItem(QStringLiteral("Any receiver"), QString());
    receiver_->setMinimumContentsLength(12);
    platform_ = new QLineEdit;
    platform_->setObjectName(QStringLiteral("lineEditHistoryPlatform"));
    platform_->setPlaceholderText(QStringLiteral("Any platform"));
    platform_->setToolTip(
        QStringLiteral("A platform's number in any width: 2A1B3 and 002A1B3 are one platform"));
    connect(platform_, &QLineEdit::returnPressed, this, &HistoryWindow::search);
    origin_ = new QComboBox;
    origin_->setObjectName(QStringLiteral("comboBoxHistoryOrigin"));
    origin_->addItem(QStringLiteral("Live and flash"), int(MessageStore::Query::Origin::Any));
    origin_->addItem(QStringLiteral("Live"), int(MessageStore::Query::Origin::Live));
    origin_->addItem(QStringLiteral("Flash"), int(MessageStore::Query::Origin::Flash));

    const QDateTime now = QDateTime::currentDateTimeUtc();
    useFrom_ = new QCheckBox(QStringLiteral("From"));
    useFrom_->setObjectName(QStringLiteral("checkBoxHistoryFrom"));
    from_ = timeEdit(QStringLiteral("dateTimeEditHistoryFrom"), now.addDays(-1));
    useTo_ = new QCheckBox(QStringLiteral("To"));
    useTo_->setObjectName(QStringLiteral("checkBoxHistoryTo"));
    to_ = timeEdit(QStringLiteral("dateTimeEditHistoryTo"), now);
    connect(useFrom_, &QCheckBox::toggled, from_, &QWidget::setEnabled);
    connect(useTo_, &QCheckBox::toggled, to_, &QWidget::setEnabled);
    limit_ = new QSpinBox;
    limit_->setObjectName(QStringLiteral("spinBoxHistoryLimit"));
    limit_->setRange(0, 100000000);
    limit_->setSingleStep(10000);
    limit_->setSpecialValueText(QStringLiteral("No limit"));
    limit_->setValue(kDefaultLimit);
    limit_->setToolTip(QStringLiteral("The oldest messages up to this number are shown"));
    search_ = new QPushButton(QStringLiteral("Search"));
    search_->setObjectName(QStringLiteral("pushButtonHistorySearch"));
    search_->setDefault(true);
    connect(search_, &QPushButton::clicked, this, &HistoryWindow::search);

    auto* choices = new QHBoxLayout;
    choices->addWidget(receiver_);
    choices->addWidget(platform_);
    choices->addWidget(origin_);
    choices->addWidget(useFrom_);
    choices->addWidget(from_);
    choices->addWidget(useTo_);
    choices->addWidget(to_);
    choices->addWidget(new QLabel(QStringLiteral("UTC, at most")));
    choices->addWidget(limit_);
    choices->addWidget(search_);

    filter_ = new QLineEdit;
    filter_->setObjectName(QStringLiteral("lineEditHistoryFilter"));
    filter_->setPlaceholderText(QStringLiteral("Filter the rows shown (any column)"));
    filter_->setClearButtonEnabled(true);
    proxy_ = new FilterProxy(this);
    model_ = new RxTableModel;
    proxy_->setSourceModel(model_);
    proxy_->setFilterKeyColumn(-1);
    proxy_->setFilterCaseSensitivity(Qt::CaseInsensitive);
    connect(filter_, &QLineEdit::textChanged, this, [this](const QString& text) {
        proxy_->setFilterFixedString(text);
        showCount();
    });
    view_ = new QTableView;
    view_->setObjectName(QStringLiteral("tableViewHistory"));
    view_->setModel(proxy_);
    view_->setSortingEnabled(true);
    view_->sortByColumn(-1, Qt::AscendingOrder); // the store's order until a header is clicked
    view_->setSelectionBehavior(QAbstractItemView::SelectRows);
    view_->setEditTriggers(QAbstractItemView::NoEditTriggers);
    view_->verticalHeader()->setVisible(false);
    view_->verticalHeader()->setSectionResizeMode(QHeaderView::Fixed);
    view_->verticalHeader()->setDefaultSectionSize(view_->fontMetrics().height() + 6);
    view_->horizontalHeader()->setResizeContentsPrecision(200);
    view_->horizontalHeader()->setStretchLastSection(true);
    connect(view_->selectionModel(), &QItemSelectionModel::selectionChanged, this, &HistoryWindow::showCount);

    status_ = new QLabel;
    status_->setObjectName(QStringLiteral("labelHistoryStatus"));
    status_->setWordWrap(true);
    status_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    bearingsButton_ = new QPushButton(QStringLiteral("Show in Bearings"));
    bearingsButton_->setObjectName(QStringLiteral("pushButtonHistoryBearings"));
    bearingsButton_->setToolTip(
        QStringLiteral("The Bearings window on the rows shown, or the selected ones"));
    connect(bearingsButton_, &QPushButton::clicked, this, &HistoryWindow::showInBearings);
    const auto exportButton = [this](const QString& text, const QString& name, HistoryExport::Format format) {
        auto* b = new QPushButton(text);
        b->setObjectName(name);
        b->setToolTip(QStringLiteral("The rows shown, or the selected ones, in the order shown"));
        connect(b, &QPushButton::clicked, this, [this, format] { exportAs(format); });
        return b;
    };
    exportCsv_ = exportButton(QStringLiteral("Export CSV..."), QStringLiteral("pushButtonHistoryExportCsv"),
                              HistoryExport::Format::Csv);
    exportJsonl_ = exportButton(QStringLiteral("Export JSON lines..."),
                                QStringLiteral("pushButtonHistoryExportJsonl"), HistoryExport::Format::Jsonl);
    exportGeoJson_ =
        exportButton(QStringLiteral("Export GeoJSON..."), QStringLiteral("pushButtonHistoryExportGeoJson"),
                     HistoryExport::Format::GeoJson);
    auto* bottom = new QHBoxLayout;
    bottom->addWidget(status_, 1);
    bottom->addWidget(bearingsButton_);
    bottom->addWidget(exportCsv_);
    bottom->addWidget(exportJsonl_);
    bottom->addWidget(exportGeoJson_);

    auto* layout = new QVBoxLayout(this);
    layout->addLayout(storeRow);
    layout->addLayout(choices);
    layout->addWidget(filter_);
    layout->addWidget(view_, 1);
    layout->addLayout(bottom);
    updateButtons();
}

void HistoryWindow::showEvent(QShowEvent* event)
{
    QWidget::showEvent(event);
    if (!opened_)
        openStore(defaultStoreUrl());
}

void HistoryWindow::chooseStore()
{
    const QString fileName = MRL::Ui::Dialogs::instance().getOpenFileName(
        this, QStringLiteral("Open message store"),
        QStringLiteral("Message stores (*.sqlite *.db);;All files (*)"));
    if (!fileName.isEmpty())
        openStore(fileName);
}

void HistoryWindow::openStore(const QString& url)
{
    opened_ = true;
    store_->setText(url);
    storeUrl_.clear();
    error_.clear();
    showRows({});
    setStatus(QStringLiteral("Opening the store..."));
    ++pending_;
    ++lastQuery_; // an answer still to come from the store before is dropped
    updateButtons();
    QMetaObject::invokeMethod(worker_, [w = worker_, url] { w->open(url); });
}

void HistoryWindow::storeOpened(const HistoryWorker::Opened& o)
{
    --pending_;
    store_->setText(o.url);
    if (!o.error.isEmpty()) {
        error_ = o.error;
        setStatus(o.error, true);
        updateButtons();
        emit sigStoreOpened();
        emit sigQueryDone();
        return;
    }
    storeUrl_ = o.url;
    const QString chosen = receiver_->currentData().toString();
    receiver_->clear();
    receiver_->addItem(QStringLiteral("Any receiver"), QString());
    for (const QString& serial : o.receivers)
        receiver_->addItem(serial, serial);
    receiver_->setCurrentIndex(std::max(0, receiver_->findData(chosen)));
    emit sigStoreOpened();
    search();
}

void HistoryWindow::search()
{
    MessageStore::Query query;
    query.receiver = receiver_->currentData().toString();
    query.platform = platform_->text().trimmed();
    query.origin = MessageStore::Query::Origin(origin_->currentData().toInt());
    if (useFrom_->isChecked())
        query.from = from_->dateTime();
    if (useTo_->isChecked())
        query.to = to_->dateTime();
    query.limit = limit_->value();
    if (query.from.isValid() && query.to.isValid() && query.to <= query.from) {
        showRows({});
        setStatus(QStringLiteral("No messages: \"To\" is not after \"From\""), true);
        updateButtons();
        emit sigQueryDone();
        return;
    }
    setStatus(QStringLiteral("Searching..."));
    ++pending_;
    const quint64 id = ++lastQuery_;
    updateButtons();
    QMetaObject::invokeMethod(worker_, [w = worker_, id, query] { w->query(id, query); });
}

void HistoryWindow::queried(const HistoryWorker::Queried& q)
{
    --pending_;
    if (q.id != lastQuery_) {
        updateButtons();
        return; // another search came after it
    }
    error_ = q.error;
    more_ = q.more;
    showRows(q.error.isEmpty() && q.rows ? std::move(*q.rows) : std::vector<RxTableModel::Row>());
    view_->resizeColumnsToContents(); // of the first rows: quick on any store
    showCount();
    updateButtons();
    emit sigQueryDone();
}

void HistoryWindow::showRows(std::vector<RxTableModel::Row> rows)
{
    auto* model = new RxTableModel;
    model->addRows(std::move(rows));
    // In the order the header shows, once one was chosen.
    const QHeaderView* header = view_->horizontalHeader();
    if (header->sortIndicatorSection() >= 0 && header->sortIndicatorSection() < RxTableModel::COLUMN_COUNT)
        model->sort(header->sortIndicatorSection(), header->sortIndicatorOrder());
    RxTableModel* old = std::exchange(model_, model);
    proxy_->setSourceModel(model_);
    // A big table takes a while to free: not in the window's thread.
    old->moveToThread(&thread_);
    old->deleteLater();
}

void HistoryWindow::showCount()
{
    if (!error_.isEmpty()) {
        setStatus(error_, true);
        return;
    }
    const int all = model_->rowCount();
    if (all == 0) {
        setStatus(QStringLiteral("No messages"));
        return;
    }
    QString text = messages(all);
    if (more_)
        text += QStringLiteral(", the oldest ones only: narrow the search or raise the limit");
    if (proxy_->rowCount() != all)
        text += QStringLiteral("; %1 shown").arg(proxy_->rowCount());
    const int selected = int(view_->selectionModel()->selectedRows().size());
    if (selected > 0)
        text += QStringLiteral("; %1 selected").arg(selected);
    setStatus(text);
}

void HistoryWindow::setStatus(const QString& text, bool error)
{
    status_->setText(text);
    status_->setStyleSheet(error ? QStringLiteral("color: #b00020;") : QString());
}

void HistoryWindow::updateButtons()
{
    const bool rows = model_->rowCount() > 0;
    bearingsButton_->setEnabled(rows);
    exportCsv_->setEnabled(rows);
    exportJsonl_->setEnabled(rows);
    exportGeoJson_->setEnabled(rows);
}

std::vector<RxTableModel::Row> HistoryWindow::chosenRows() const
{
    const QItemSelectionModel* selection = view_->selectionModel();
    const bool selectedOnly = selection->hasSelection();
    std::vector<RxTableModel::Row> rows;
    rows.reserve(size_t(proxy_->rowCount()));
    for (int row = 0; row < proxy_->rowCount(); ++row) {
        const QModelIndex index = proxy_->index(row, 0);
        if (!selectedOnly || selection->isSelected(index))
            // No ID filter here: the model's rows are the whole table's.
            rows.push_back(model_->rowAt(proxy_->mapToSource(index).row()));
    }
    return rows;
}

void HistoryWindow::showInBearings()
{
    bearingsModel_.clear();
    // Unsorted, the view lists the newest first; the model keeps the oldest first, as the RX table does.
    std::vector<RxTableModel::Row> rows = chosenRows();
    std::reverse(rows.begin(), rows.end());
    bearingsModel_.addRows(std::move(rows));
    if (!bearings_) {
        bearings_ = new BearingsWindow(&bearingsModel_, angleOffset_, distanceUnit_, this);
        bearings_->setObjectName(QStringLiteral("historyBearingsWindow"));
        bearings_->setWindowTitle(QStringLiteral("Bearings - History"));
        // Kept messages may come from another receiver than the one connected.
        bearings_->setSetupBlocked(QStringLiteral("These messages come from the message store: apply an "
                                                  "offset from the RX table's Bearings window"));
    }
    bearings_->show();
    bearings_->raise();
    bearings_->activateWindow();
}

void HistoryWindow::exportAs(HistoryExport::Format format)
{
    const QString what = format == HistoryExport::Format::Csv     ? QStringLiteral("CSV")
                         : format == HistoryExport::Format::Jsonl ? QStringLiteral("JSON lines")
                                                                  : QStringLiteral("GeoJSON");
    const QString suffix = HistoryExport::suffix(format);
    const QString fileName = MRL::Ui::Dialogs::instance().getSaveFileName(
        this, QStringLiteral("Export the messages (%1)").arg(what),
        QStringLiteral("%1 files (*%2);;All files (*)").arg(what, suffix));
    if (fileName.isEmpty())
        return;
    std::vector<RxTableModel::Row> rows = chosenRows();
    setStatus(QStringLiteral("Exporting %1 to %2...").arg(messages(qint64(rows.size())), fileName));
    ++pending_;
    const auto coordType = model_->coordType();
    QMetaObject::invokeMethod(worker_, [w = worker_, fileName, format, rows = std::move(rows), coordType] {
        w->save(0, fileName, format, rows, coordType);
    });
}

void HistoryWindow::saved(const HistoryWorker::Saved& s)
{
    --pending_;
    if (s.error.isEmpty()) {
        setStatus(QStringLiteral("Exported %1 to %2").arg(messages(s.rows), s.fileName));
    } else {
        setStatus(s.error, true);
        MRL::Ui::Dialogs::instance().critical(this, QStringLiteral("Export"), s.error);
    }
    emit sigExportDone();
}

} // namespace OrviaGonioManager::Ui
