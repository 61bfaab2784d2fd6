#pragma once

#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;

namespace OrviaGonioManager::Utils {
class JobProgress;
}

namespace OrviaGonioManager::Ui {

// The status bar's view of a long job: what it does, how far it is, the time left, and, when the
// job can be cancelled, a "Cancel" button. Between two device requests it lets the button and the
// Escape key through, and nothing else: the rest of the window refuses input while the job runs.
class JobPanel : public QWidget
{
    Q_OBJECT

public:
    explicit JobPanel(Utils::JobProgress* job, QWidget* parent = nullptr);

    QPushButton* cancelButton() const { return cancel_; }

protected:
    bool eventFilter(QObject* watched, QEvent* event) override;

private:
    void onStarted(const QString& title, qint64 total, const QString& unit);
    void onProgress(qint64 done, qint64 total);
    void checkpoint();

    Utils::JobProgress* job_;
    QLabel* label_;
    QProgressBar* bar_;
    QPushButton* cancel_;
};

} // namespace OrviaGonioManager::Ui
