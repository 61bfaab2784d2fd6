#pragma once

#include <QFile>
#include <QString>

namespace OrviaGonioManager::Ui {

// The per-device session log: "<dir>/Log <identity>.txt", appended to at every connection,
// sessions separated by three empty lines, each line flushed as it is written so that nothing
// is lost if the program dies.
class SessionLog
{
public:
    // "../Logs" relative to the program's directory, as an absolute path.
    static QString defaultDirectory();
    // Replaces every character that is not safe in a file name on any system.
    static QString fileSafe(const QString& text);

    // Throws MRL::Utils::Exception "Unable to open log file %1" when the file cannot be opened.
    void open(const QString& directory, const QString& identity);
    void writeLine(const QString& line);
    void close();
    bool isOpen() const { return file_.isOpen(); }
    QString filePath() const { return file_.fileName(); }

private:
    QFile file_;
};

} // namespace OrviaGonioManager::Ui
