#pragma once

#include <QMessageBox>
#include <QString>

class QWidget;

namespace MRL::Ui {

// Every modal box and file dialog of the program goes through this seam, so that tests can
// answer them instead of blocking. The default implementation shows the real dialogs.
class Dialogs
{
public:
    virtual ~Dialogs() = default;

    virtual QMessageBox::StandardButton question(QWidget* parent, const QString& title, const QString& text,
                                                 QMessageBox::StandardButtons buttons,
                                                 QMessageBox::StandardButton defaultButton);
    virtual void critical(QWidget* parent, const QString& title, const QString& text);
    virtual void information(QWidget* parent, const QString& title, const QString& text);
    virtual void about(QWidget* parent, const QString& title, const QString& text);
    virtual QString getOpenFileName(QWidget* parent, const QString& caption, const QString& filter);
    virtual QString getSaveFileName(QWidget* parent, const QString& caption, const QString& filter);

    // A Yes/No question whose default is No; true when the user answered Yes.
    static bool confirm(QWidget* parent, const QString& title, const QString& text);

    static Dialogs& instance();
    // Installs a replacement (not owned); nullptr restores the real dialogs.
    static void setInstance(Dialogs* dialogs);
};

} // namespace MRL::Ui
