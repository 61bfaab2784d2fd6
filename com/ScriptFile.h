#pragma once

#include "com/GnxLink.h"
#include "utils/OutputFile.h"

#include <QString>
#include <QStringList>

#include <functional>

namespace OrviaGonioManager::Com {

// Command scripts, shared by the window and the command line: one frame a line, as the link
// sends it; lines that do not begin with "$" are comments.
namespace ScriptFile {

QStringList readLines(const QString& fileName);
// The lines that playback sends.
int commandCount(const QStringList& lines);
// Opened before anything is recorded, so that an unwritable file fails first.
void open(Utils::OutputFile& file, const QString& fileName);
void write(Utils::OutputFile& file, const QString& fileName, const QStringList& frames);

// Sends each command line in turn. A line the device answers wrongly goes to lineFailed (with
// the file and line named) and playback goes on; once the link itself fails, that failure is
// thrown. more() is asked after each line, with the count sent; false stops playback.
void play(GnxLink& link, const QStringList& lines, const QString& fileName,
          const std::function<void(const QString& message)>& lineFailed,
          const std::function<bool(int sent)>& more);

} // namespace ScriptFile

} // namespace OrviaGonioManager::Com
