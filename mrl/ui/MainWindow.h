#pragma once

#include <QMainWindow>
#include <functional>

namespace MRL::Ui {

class UiLogger;

// Base window: runs slotPostInit once after the first show, feeds a log view, and shows
// exceptions raised in slots (message box through the Dialogs seam, critical log) instead of
// letting them unwind through Qt.
class MainWindow : public QMainWindow
{
    Q_OBJECT

public:
    explicit MainWindow(QWidget* parent = nullptr);
    ~MainWindow() override;

    // Attaches the log view to the application's message stream.
    UiLogger* configureLogger(UiLogger* logger);
    UiLogger* logger() const { return logger_; }

    // Runs fn; an exception it throws is shown and logged. Returns false when it threw.
    bool guard(const std::function<void()>& fn);
    void showException(const QString& message);

public slots:
    virtual void slotPostInit();

protected:
    void showEvent(QShowEvent* event) override;

private:
    UiLogger* logger_ = nullptr;
    bool postInitDone_ = false;
};

} // namespace MRL::Ui
