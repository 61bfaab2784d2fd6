#include "mrl/ui/Dialogs.h"

#include <QFileDialog>

namespace MRL::Ui {

namespace {
Dialogs* g_override = nullptr;
}

QMessageBox::StandardButton Dialogs::question(QWidget* parent, const QString& title, const QString& text,
                                              QMessageBox::StandardButtons buttons,
                                              QMessageBox::StandardButton defaultButton)
{
    return QMessageBox::question(parent, title, text, buttons, defaultButton);
}

void Dialogs::critical(QWidget* parent, const QString& title, const QString& text)
{
    QMessageBox::critical(parent, title, text);
}

void Dialogs::information(QWidget* parent, const QString& title, const QString& text)
{
    QMessageBox::information(parent, title, text);
}

void Dialogs::about(QWidget* parent, const QString& title, const QString& text)
{
    QMessageBox::about(parent, title, text);
}

QString Dialogs::getOpenFileName(QWidget* parent, const QString& caption, const QString& filter)
{
    return QFileDialog::getOpenFileName(parent, caption, QString(), filter);
}

QString Dialogs::getSaveFileName(QWidget* parent, const QString& caption, const QString& filter)
{
    return QFileDialog::getSaveFileName(parent, caption, QString(), filter);
}

bool Dialogs::confirm(QWidget* parent, const QString& title, const QString& text)
{
    return instance().question(parent, title, text, QMessageBox::Yes | QMessageBox::No, QMessageBox::No) ==
           QMessageBox::Yes;
}

Dialogs& Dialogs::instance()
{
    static Dialogs real;
    return g_override ? *g_override : real;
}

void Dialogs::setInstance(Dialogs* dialogs)
{
    g_override = dialogs;
}

} // namespace MRL::Ui
