// Commands typed in the terminal, and script files as playback reads them: each command line as
// the request engine takes it. A line completed by the program carries a right checksum; a command
// of the engine was typed without a checksum or with the right one.
#include "FuzzFile.h"
#include "com/GnxFrame.h"
#include "com/ScriptFile.h"

#include <cstdlib>

using namespace OrviaGonioManager::Com;

namespace {

void check(const QString& line)
{
    const GnxFrame::ManualCommand c = GnxFrame::parseManualCommand(line);
    if (c.request && !c.warnings.isEmpty())
        std::abort();
    if (!c.request && c.line != line &&
        GnxFrame::decodeLine(c.line).status == GnxFrame::DecodedLine::BadChecksum)
        std::abort();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString path = fuzzFile(QStringLiteral("script.gnx"), data, size);
    if (path.isEmpty())
        return 0;
    const QStringList lines = ScriptFile::readLines(path);
    int commands = 0;
    for (const QString& line : lines) {
        check(line); // as typed; playback sends only the lines that begin with "$"
        commands += line.startsWith(QLatin1Char('$'));
    }
    if (commands != ScriptFile::commandCount(lines))
        std::abort();
    return 0;
}
