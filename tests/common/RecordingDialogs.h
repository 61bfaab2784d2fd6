#pragma once

#include "mrl/ui/Dialogs.h"

#include <QQueue>
#include <QStringList>

// Answers the program's dialogs from a script and remembers what was shown.
class RecordingDialogs : public MRL::Ui::Dialogs
{
public:
    RecordingDialogs() { setInstance(this); }
    ~RecordingDialogs() override { setInstance(nullptr); }

    QMessageBox::StandardButton question(QWidget*, const QString& title, const QString& text,
                                         QMessageBox::StandardButtons, QMessageBox::StandardButton) override
    {
        questions << title + "|" + text;
        return answers.isEmpty() ? QMessageBox::No : answers.dequeue();
    }
    void critical(QWidget*, const QString&, const QString& text) override { criticals << text; }
    void information(QWidget*, const QString&, const QString& text) override { informations << text; }
    void about(QWidget*, const QString&, const QString& text) override { abouts << text; }
    QString getOpenFileName(QWidget*, const QString& caption, const QString& filter) override
    {
        fileCaptions << caption + "|" + filter;
        return files.isEmpty() ? QString() : files.dequeue();
    }
    QString getSaveFileName(QWidget* p, const QString& caption, const QString& filter) override
    {
        return getOpenFileName(p, caption, filter);
    }

    QQueue<QMessageBox::StandardButton> answers;
    QQueue<QString> files;
    QStringList questions, criticals, informations, abouts, fileCaptions;
};
