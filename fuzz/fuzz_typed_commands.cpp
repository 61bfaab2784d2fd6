// Commands typed in the terminal, and script files played back line by line: each line as the
// request engine takes it. A line completed by the program carries a right checksum; a command of
// the engine was typed without a checksum or with the right one.
#include "com/GnxFrame.h"

#include <cstdlib>

using namespace OrviaGonioManager::Com;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString script = QString::fromLatin1(reinterpret_cast<const char*>(data), qsizetype(size));
    for (const QString& line : script.split(QLatin1Char('\n'))) {
        const GnxFrame::ManualCommand c = GnxFrame::parseManualCommand(line);
        if (c.request && !c.warnings.isEmpty())
            std::abort();
        if (!c.request && c.line != line &&
            GnxFrame::decodeLine(c.line).status == GnxFrame::DecodedLine::BadChecksum)
            std::abort();
    }
    return 0;
}
