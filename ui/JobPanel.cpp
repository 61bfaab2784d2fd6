#include "ui/JobPanel.h"

#include "utils/JobProgress.h"

#include <QApplication>
#include <QHBoxLayout>
#include <QKeyEvent>
#include <QLabel>
#include <QProgressBar>
#include <QPushButton>
#include <QTimer>
#include <QWindow>

namespace OrviaGonioManager::Ui {

namespace {

// Bars count up to this; byte totals do not fit an int.
constexpr int kBarSteps = 1000;
// How often queued input is looked at while a request is under way: a click shows within this.
constexpr int kPollMs = 50;

bool isUserInput(QEvent::Type type)
{
    switch (type) {
    case QEvent::MouseButtonPress:
    case QEvent::MouseButtonRelease:
    case QEvent::MouseButtonDblClick:
    case QEvent::MouseMove:
    case QEvent::KeyPress:
    case QEvent::KeyRelease:
    case QEvent::ShortcutOverride:
    case QEvent::Shortcut:
    case QEvent::Wheel:
    case QEvent::ContextMenu:
    case QEvent::TouchBegin:
    case QEvent::TouchUpdate:
    case QEvent::TouchEnd:
        return true;
    default:
        return false;
    }
}

} // namespace

JobPanel::JobPanel(Utils::JobProgress* job, QWidget* parent)
    : QWidget(parent), job_(job), label_(new QLabel(this)), bar_(new QProgressBar(this)),
      cancel_(new QPushButton(QStringLiteral("Cancel"), this)), poll_(new QTimer(this))
{
    auto* layout = new QHBoxLayout(this);
    layout->setContentsMargins(0, 0, 0, 0);
    layout->addWidget(label_);
    layout->addWidget(bar_);
    layout->addWidget(cancel_);
    bar_->setRange(0, kBarSteps);
    setVisible(false);
    connect(cancel_, &QPushButton::clicked, job_, &Utils::JobProgress::cancel);
    connect(job_, &Utils::JobProgress::sigStarted, this, &JobPanel::onStarted);
    connect(job_, &Utils::JobProgress::sigProgress, this, &JobPanel::onProgress);
    connect(job_, &Utils::JobProgress::sigFinished, this, [this] {
        poll_->stop();
        setVisible(false);
    });
    connect(job_, &Utils::JobProgress::sigCancelRequested, this, &JobPanel::onCancelRequested);
    job_->setCheckpoint([this] { checkpoint(); });
    // The request engine delivers timers while it waits, but holds back window-system input.
    poll_->setInterval(kPollMs);
    connect(poll_, &QTimer::timeout, this, &JobPanel::checkpoint);
}

void JobPanel::onStarted(const QString& title, qint64 total, const QString& unit)
{
    label_->setText(QStringLiteral("%1: 0 of %2 %3").arg(title).arg(total).arg(unit));
    bar_->setValue(0);
    cancel_->setVisible(job_->isCancellable());
    cancel_->setEnabled(true);
    setVisible(true);
    if (job_->isCancellable())
        poll_->start();
}

void JobPanel::onCancelRequested()
{
    poll_->stop();
    cancel_->setEnabled(false);
    label_->setText(QStringLiteral("Cancelling…"));
    label_->repaint(); // now, not when the request under way is answered
}

void JobPanel::onProgress(qint64 done, qint64 total)
{
    bar_->setValue(total > 0 ? int(done * kBarSteps / total) : 0);
    if (job_->isCancelled())
        return; // still "Cancelling…"
    QString text =
        QStringLiteral("%1: %2 of %3 %4").arg(job_->title()).arg(done).arg(total).arg(job_->unit());
    const qint64 msLeft = job_->msLeft();
    if (msLeft >= 0 && done < total)
        text += QStringLiteral(", about %1 s left").arg((msLeft + 999) / 1000);
    label_->setText(text);
}

// Input that waited during the request is handled now: Cancel and Escape, nothing else.
void JobPanel::checkpoint()
{
    if (inCheckpoint_)
        return;
    inCheckpoint_ = true;
    qApp->installEventFilter(this);
    QCoreApplication::processEvents();
    qApp->removeEventFilter(this);
    inCheckpoint_ = false;
}

bool JobPanel::eventFilter(QObject* watched, QEvent* event)
{
    if (!isUserInput(event->type()))
        return false;
    if (event->type() == QEvent::KeyPress && static_cast<QKeyEvent*>(event)->key() == Qt::Key_Escape) {
        job_->cancel();
        return true;
    }
    if (watched == cancel_)
        return false;
    // A real click reaches this window's top-level first, which hands it to the widget under the
    // mouse: let it through when that widget is the button.
    if (watched == cancel_->window()->windowHandle() && event->isPointerEvent()) {
        auto* pointer = static_cast<QPointerEvent*>(event);
        return pointer->pointCount() != 1 || !cancel_->rect().contains(cancel_->mapFromGlobal(
                                                 pointer->point(0).globalPosition().toPoint()));
    }
    return true;
}

} // namespace OrviaGonioManager::Ui
