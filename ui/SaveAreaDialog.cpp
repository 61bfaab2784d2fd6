#include "ui/SaveAreaDialog.h"

#include <QFileDialog>
#include <QFormLayout>
#include <QHBoxLayout>
#include <QLabel>
#include <QLineEdit>
#include <QLocale>
#include <QProgressBar>
#include <QPushButton>
#include <QSpinBox>

namespace OrviaGonioManager::Ui {

using Store::AreaSaver;

SaveAreaDialog::SaveAreaDialog(const AreaSaver::Area& area, const QString& urlTemplate,
                               const QString& attribution, QWidget* parent)
    : QDialog(parent), area_(area), url_(urlTemplate), attribution_(attribution),
      minZoom_(new QSpinBox(this)), maxZoom_(new QSpinBox(this)), estimate_(new QLabel(this)),
      file_(new QLineEdit(this)), bar_(new QProgressBar(this)),
      start_(new QPushButton(QStringLiteral("Save"), this)),
      close_(new QPushButton(QStringLiteral("Cancel"), this))
{
    setObjectName(QStringLiteral("dialogSaveArea"));
    setWindowTitle(QStringLiteral("Save this area for offline use"));
    for (QSpinBox* z : {minZoom_, maxZoom_})
        z->setRange(0, 19);
    minZoom_->setObjectName(QStringLiteral("spinBoxSaveAreaMinZoom"));
    maxZoom_->setObjectName(QStringLiteral("spinBoxSaveAreaMaxZoom"));
    minZoom_->setValue(area.minZoom);
    maxZoom_->setValue(area.maxZoom);
    estimate_->setObjectName(QStringLiteral("labelSaveAreaEstimate"));
    estimate_->setWordWrap(true);
    file_->setObjectName(QStringLiteral("lineEditSaveAreaFile"));
    auto* browse = new QPushButton(QStringLiteral("Browse..."), this);
    auto* fileRow = new QHBoxLayout;
    fileRow->addWidget(file_, 1);
    fileRow->addWidget(browse);
    bar_->setVisible(false);
    start_->setObjectName(QStringLiteral("pushButtonSaveAreaStart"));
    close_->setObjectName(QStringLiteral("pushButtonSaveAreaCancel"));
    auto* buttons = new QHBoxLayout;
    buttons->addStretch(1);
    buttons->addWidget(start_);
    buttons->addWidget(close_);
    auto* form = new QFormLayout(this);
    form->addRow(QStringLiteral("From zoom"), minZoom_);
    form->addRow(QStringLiteral("To zoom"), maxZoom_);
    form->addRow(QStringLiteral("File"), fileRow);
    form->addRow(estimate_);
    form->addRow(bar_);
    form->addRow(buttons);

    connect(minZoom_, &QSpinBox::valueChanged, this, &SaveAreaDialog::updateEstimate);
    connect(maxZoom_, &QSpinBox::valueChanged, this, &SaveAreaDialog::updateEstimate);
    connect(file_, &QLineEdit::textChanged, this, &SaveAreaDialog::updateEstimate);
    connect(browse, &QPushButton::clicked, this, &SaveAreaDialog::browse);
    connect(start_, &QPushButton::clicked, this, &SaveAreaDialog::start);
    connect(close_, &QPushButton::clicked, this, &SaveAreaDialog::reject);
    connect(&saver_, &AreaSaver::progress, this, [this](qint64 done, qint64 total) {
        bar_->setRange(0, int(std::min<qint64>(total, INT_MAX)));
        bar_->setValue(int(std::min<qint64>(done, INT_MAX)));
        bar_->setFormat(QStringLiteral("%1 of %2 tiles").arg(done).arg(total));
    });
    connect(&saver_, &AreaSaver::finished, this, &SaveAreaDialog::finished);
    updateEstimate();
}

void SaveAreaDialog::updateEstimate()
{
    area_.minZoom = minZoom_->value();
    area_.maxZoom = maxZoom_->value();
    const QString refusal = AreaSaver::refusal(area_);
    if (!refusal.isEmpty()) {
        estimate_->setText(refusal);
        start_->setEnabled(false);
        return;
    }
    const QLocale locale;
    estimate_->setText(QStringLiteral("%1 tiles, about %2, at most %3 tiles a save; two requests at a time.")
                           .arg(locale.toString(AreaSaver::estimateTiles(area_)),
                                locale.formattedDataSize(AreaSaver::estimateBytes(area_)),
                                locale.toString(AreaSaver::kMaxTiles)));
    start_->setEnabled(!file_->text().trimmed().isEmpty() && !saver_.isRunning());
}

void SaveAreaDialog::browse()
{
    const QString file =
        QFileDialog::getSaveFileName(this, QStringLiteral("Save tiles"), file_->text(),
                                     QStringLiteral("MBTiles files (*.mbtiles);;All files (*)"), nullptr,
                                     QFileDialog::DontConfirmOverwrite); // a file saved before is added to
    if (!file.isEmpty())
        file_->setText(file);
}

void SaveAreaDialog::start()
{
    if (!saver_.start(area_, url_, attribution_, file_->text().trimmed())) {
        estimate_->setText(saver_.error());
        return;
    }
    for (QWidget* w : std::initializer_list<QWidget*>{minZoom_, maxZoom_, file_, start_})
        w->setEnabled(false);
    bar_->setVisible(true);
    bar_->setRange(0, 0);
}

void SaveAreaDialog::finished(bool ok, const QString& message)
{
    outcome_ = message;
    estimate_->setText(message);
    close_->setText(QStringLiteral("Close"));
    if (ok) {
        output_ = file_->text().trimmed();
        accept();
    }
}

void SaveAreaDialog::reject()
{
    // Cancel during a save stops it; the tiles saved so far stay in the file.
    if (saver_.isRunning()) {
        saver_.cancel();
        return;
    }
    QDialog::reject();
}

} // namespace OrviaGonioManager::Ui
