#pragma once

#include "com/GnxLink.h"
#include "com/PlatformsFile.h"
#include "mrl/utils/Exception.h"

#include <QList>
#include <QString>

namespace OrviaGonioManager::Com {

// Checks a whole platforms file against one receiver generation before anything is sent, so that
// an import never stops half-way on a line the receiver would refuse. Pure: no link, no file
// written. The first bad line is thrown as PlatformsCheck::Error, for example
//   platforms.csv, line 3, "Orvia ID": "ZZZZZ" is not 5 or 7 hexadecimal digits
//
// What a line must be (the generation's columns, see GnxLink::platformTitles()):
//   - exactly the generation's column count;
//   - "Orvia ID": 5 or 7 hexadecimal digits;
//   - "Label": Latin-1 text without ",", "*", "$", CR or LF (what a command line can carry);
//   - "GPS Format Name": empty, or a format GpsFormat::instance() knows, whose data length is
//     1 to 254 and encryption type 0 to 2;
//   - "Repetition period" 0 to 65535; GNX134: "Mean Direction Values" 0 to 255; GNX234:
//     "Orvia Band" 0 to 8 (B1 to B9), "Modulation" 0 to 2 (A2, A3, A4), "Frequency Mode" 0 or 1
//     (NARROW, WIDE), "Narrow Mode Frequency" 0 to 2147483647; all whole decimal numbers;
//   - no more platform lines than the generation has slots (16 / 64).
class PlatformsCheck
{
public:
    // The first bad line of a file. line() is the line's number in the file (0 when the file could
    // not be read), field() the column title ("Orvia ID"), empty when the whole line is at fault.
    class Error : public MRL::Utils::Exception
    {
    public:
        Error(const QString& fileName, int line, const QString& field, const QString& problem);
        QString fileName() const { return fileName_; }
        int line() const { return line_; }
        QString field() const { return field_; }

    private:
        QString fileName_;
        int line_;
        QString field_;
    };

    // One good line: the favourite to write (index left 0, gpsFormat resolved unless the check
    // was made without formats) and its number in the file.
    struct Line
    {
        int number = 0;
        GnxLink::PlatformInfo platform;
        QString gpsFormatName;
    };

    enum class Formats
    {
        Resolve, // GPS format names must be known to GpsFormat::instance()
        TextOnly // names are only checked as texts (before the receiver's formats are known)
    };

    // Throws Error on the first bad line; returns the lines in file order.
    static QList<Line> check(const QList<PlatformsFile::NumberedLine>& lines, GnxLink::GnxVersion_t version,
                             const QString& fileName, Formats formats = Formats::Resolve);
    // The file's platform lines; a file that cannot be read is an Error too (line 0).
    static QList<PlatformsFile::NumberedLine> readFile(const QString& fileName);
    // Reads and checks a file.
    static QList<Line> checkFile(const QString& fileName, GnxLink::GnxVersion_t version,
                                 Formats formats = Formats::Resolve);

    static int slotCount(GnxLink::GnxVersion_t version);
    // "GNX134" / "GNX234".
    static QString modelName(GnxLink::GnxVersion_t version);
};

} // namespace OrviaGonioManager::Com
