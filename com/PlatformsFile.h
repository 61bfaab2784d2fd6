#pragma once

#include "com/GnxLink.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <functional>

namespace OrviaGonioManager::Com {

// The platforms CSV file shared by the window and the command line: a "#," header of the
// generation's column titles, then one favourite a line.
namespace PlatformsFile {

// One platform line and its number in the file (from 1, header and comments counted), so that a
// message can point the user at it.
struct NumberedLine
{
    int number = 0;
    QString text;
};

// The header line, without its line end.
QString header(GnxLink::GnxVersion_t version);
// The platform lines of a file: lines that are neither empty nor comments ("#").
QStringList readLines(const QString& fileName);
// The same lines with their numbers.
QList<NumberedLine> readNumberedLines(const QString& fileName);
// One line's favourite; throws on the wrong number of columns or a bad field.
GnxLink::PlatformInfo parseLine(const QString& line, GnxLink::GnxVersion_t version, const QString& fileName);
// Writes the favourites, each with its GPS format's name, to slots 0, 1, ... in file order. Stops
// early when more() returns false (called after each platform, with the count written); throws
// on a line with the wrong number of columns or once the receiver has no slot left. Returns the
// count written.
int importLines(GnxLink& link, const QStringList& lines, const QString& fileName,
                const std::function<bool(int written)>& more);

} // namespace PlatformsFile

} // namespace OrviaGonioManager::Com
