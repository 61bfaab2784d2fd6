#pragma once

#include <QWidget>

class QLabel;
class QProgressBar;
class QPushButton;
class QTimer;

namespace OrviaGonioManager::Utils {
class JobProgress;
}

namespace OrviaGonioManager::Ui {

// The status bar's view of a long job: what it does, how far it is, the time left, and, when the
// job can be cancelled, a "Cancel" button. Between two device requests, and every 50 ms while one
// is under way, it lets the button and the Escape key through, and nothing else: the rest of the
// window refuses input while the job runs. A cancel shows at once; the job stops when the request
// under way is answered (the protocol cannot cut an answer short).
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
    void onCancelRequested();

    Utils::JobProgress* job_;
    QLabel* label_;
    QProgressBar* bar_;
    QPushButton* cancel_;
    QTimer* poll_;
    bool inCheckpoint_ = false;
};

} // namespace OrviaGonioManager::Ui
