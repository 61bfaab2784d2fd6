// Platform files (CSV) as the import reads them: the file's platform lines, each read into a
// platform of either generation, which is then written back as the export writes it. Numbers that
// do not parse are 0, so a written line reads back to the same platform.
#include "FuzzFile.h"
#include "com/PlatformCodec.h"
#include "com/PlatformsFile.h"
#include "mrl/utils/Exception.h"

#include <cstdlib>

using namespace OrviaGonioManager::Com;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString path = fuzzFile(QStringLiteral("platforms.csv"), data, size);
    if (path.isEmpty())
        return 0;
    for (const QString& line : PlatformsFile::readLines(path)) {
        for (const auto version : {GnxLink::GNX_V1, GnxLink::GNX_V2}) {
            try {
                const GnxLink::PlatformInfo p = PlatformsFile::parseLine(line, version, path);
                const QString format = line.section(QLatin1Char(','), 2, 2);
                const QStringList written = PlatformCodec::csvFields(p, format, version);
                const GnxLink::PlatformInfo again =
                    PlatformsFile::parseLine(written.join(QLatin1Char(',')), version, path);
                if (PlatformCodec::csvFields(again, format, version) != written)
                    std::abort();
            } catch (const MRL::Utils::Exception&) {
                // The wrong column count or an unknown GPS format name, refused with its text.
            }
        }
    }
    return 0;
}
