#pragma once

#include <QDateTime>
#include <QString>

#include <memory>

namespace gnxsim {

class Scenario;

enum class Model
{
    Gnx134,
    Gnx234
};
enum class Mode
{
    App,
    Bl
};

struct Options
{
    Model model = Model::Gnx234;
    Mode mode = Mode::App;
    quint32 seed = 1;
    int platforms = 0;                        // favourite slots filled at start
    int flashRecords = 0;                     // messages stored in flash memory at start
    int liveIntervalMs = 0;                   // 0 = no live reports
    int baud = 0;                             // 0 = unthrottled
    QString linkPath;                         // symbolic link kept pointing at the slave side
    QString statePath;                        // setups, slots and flash kept across runs
    QDateTime startTime;                      // device clock at start (UTC); invalid = system time
    std::shared_ptr<const Scenario> scenario; // a drive past known platforms instead of random ones
};

// Transport faults, all off by default. Probabilities are per outgoing unit (a line, or one frame of a
// binary flash answer).
struct Faults
{
    double dropReply = 0.0;       // an answer to a command is never written
    double corruptChecksum = 0.0; // the checksum of a text line is altered
    double noise = 0.0;           // a burst of garbage bytes and a line end precedes a unit
    int splitBytes = 0;           // write in chunks of at most this many bytes (0 = whole units)
    int splitGapMs = 1;           // pause between those chunks
    int delayMs = 0;              // every unit is written this long after it was produced
};

inline int platformSlots(Model m)
{
    return m == Model::Gnx134 ? 16 : 64;
}

} // namespace gnxsim
