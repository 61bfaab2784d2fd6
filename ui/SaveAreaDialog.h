#pragma once

#include "store/AreaSaver.h"

#include <QDialog>

class QLabel;
class QLineEdit;
class QProgressBar;
class QPushButton;
class QSpinBox;

namespace OrviaGonioManager::Ui {

// "Save this area for offline use": the zooms to keep, the tile count and size before anything
// is fetched, then the download with its progress and a Cancel that keeps what came.
class SaveAreaDialog : public QDialog
{
    Q_OBJECT

public:
    SaveAreaDialog(const Store::AreaSaver::Area& area, const QString& urlTemplate, const QString& attribution,
                   QWidget* parent = nullptr);

    // The file written, once the save ended well; empty otherwise.
    QString output() const { return output_; }
    // What happened, for the user; empty when nothing was started.
    QString outcome() const { return outcome_; }

    void reject() override;

private:
    void updateEstimate();
    void browse();
    void start();
    void finished(bool ok, const QString& message);

    Store::AreaSaver::Area area_;
    QString url_;
    QString attribution_;
    Store::AreaSaver saver_;
    QSpinBox* minZoom_;
    QSpinBox* maxZoom_;
    QLabel* estimate_;
    QLineEdit* file_;
    QProgressBar* bar_;
    QPushButton* start_;
    QPushButton* close_;
    QString output_;
    QString outcome_;
};

} // namespace OrviaGonioManager::Ui
