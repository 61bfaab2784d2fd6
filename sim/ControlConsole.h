#pragma once

#include <QString>

namespace gnxsim {

class PtySimulator;

// The emulator's line-based control input (stdin of gnxsim): one command per line, one answer line.
class ControlConsole
{
public:
    explicit ControlConsole(PtySimulator& simulator) : m_sim(simulator) {}

    // Runs one command line; returns the answer ("ok", "error: ...", or information). Sets quit on "quit".
    QString execute(const QString& line, bool* quit = nullptr);
    static QString help();

private:
    PtySimulator& m_sim;
};

} // namespace gnxsim
