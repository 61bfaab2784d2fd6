#pragma once

#include "store/HistoryExport.h"
#include "store/HistoryWorker.h"
#include "utils/RxTableModel.h"

#include <QThread>
#include <QWidget>

#include <vector>

class QCheckBox;
class QComboBox;
class QDateTimeEdit;
class QLabel;
class QLineEdit;
class QPushButton;
class QSortFilterProxyModel;
class QSpinBox;
class QTableView;

namespace OrviaGonioManager::Ui {

class BearingsWindow;

// The messages kept in the message store: chosen by receiver, platform, origin and time, shown
// in a table of the RX table's model, sortable and filterable, shown in a Bearings window of
// their own and exported. Needs no receiver. The database is read by a worker thread, so that a
// big store never holds the window up.
class HistoryWindow : public QWidget
{
    Q_OBJECT

public:
    // angleOffset and distanceUnit: the software setup's, as the Bearings window takes them.
    HistoryWindow(QSpinBox* angleOffset, QComboBox* distanceUnit, QWidget* parent = nullptr);
    ~HistoryWindow() override;

    // The user's store/url preference, else the store the window and gnxctl share.
    static QString defaultStoreUrl();

    const Utils::RxTableModel* model() const { return model_; }
    QSortFilterProxyModel* proxy() const { return proxy_; }
    QTableView* view() const { return view_; }
    // The store's URL as shown, once opened.
    QString storeUrl() const { return storeUrl_; }
    // The rows shown, in the view's order: the selected ones when there is a selection.
    std::vector<Utils::RxTableModel::Row> chosenRows() const;
    BearingsWindow* bearingsWindow() const { return bearings_; }
    bool busy() const { return pending_ != 0; }

signals:
    void sigStoreOpened();
    // A search ended, with rows or an error (the status says which).
    void sigQueryDone();
    void sigExportDone();

public slots:
    // Opens another store (a path, sqlite:PATH or postgresql://...) and searches it.
    void openStore(const QString& url);
    void search();
    void showInBearings();
    void exportAs(Store::HistoryExport::Format format);

protected:
    void showEvent(QShowEvent* event) override;

private:
    void buildLayout();
    void chooseStore();
    void storeOpened(const Store::HistoryWorker::Opened& o);
    void queried(const Store::HistoryWorker::Queried& q);
    void saved(const Store::HistoryWorker::Saved& s);
    // A new model with these rows, sorted as the header shows.
    void showRows(std::vector<Utils::RxTableModel::Row> rows);
    void showCount();
    void setStatus(const QString& text, bool error = false);
    void updateButtons();

    QSpinBox* angleOffset_;
    QComboBox* distanceUnit_;
    // The rows found; each search makes a new one and the old one goes in the worker's thread.
    Utils::RxTableModel* model_ = nullptr;
    Utils::RxTableModel bearingsModel_; // what the Bearings window was shown
    QThread thread_;
    Store::HistoryWorker* worker_ = nullptr; // lives in thread_
    quint64 lastQuery_ = 0;
    int pending_ = 0; // requests the worker has not answered
    bool opened_ = false;
    bool more_ = false;
    QString storeUrl_;
    QString error_;

    QLineEdit* store_ = nullptr;
    QPushButton* openStore_ = nullptr;
    QComboBox* receiver_ = nullptr;
    QLineEdit* platform_ = nullptr;
    QComboBox* origin_ = nullptr;
    QCheckBox* useFrom_ = nullptr;
    QDateTimeEdit* from_ = nullptr;
    QCheckBox* useTo_ = nullptr;
    QDateTimeEdit* to_ = nullptr;
    QSpinBox* limit_ = nullptr;
    QPushButton* search_ = nullptr;
    QLineEdit* filter_ = nullptr;
    QSortFilterProxyModel* proxy_ = nullptr;
    QTableView* view_ = nullptr;
    QLabel* status_ = nullptr;
    QPushButton* bearingsButton_ = nullptr;
    QPushButton* exportCsv_ = nullptr;
    QPushButton* exportJsonl_ = nullptr;
    QPushButton* exportGeoJson_ = nullptr;
    BearingsWindow* bearings_ = nullptr;
};

} // namespace OrviaGonioManager::Ui
