// Platform files (CSV), line by line as the import reads them: a line of the right column count is
// read into a platform, which is then written back as the export writes it. Numbers that do not
// parse are 0, so a written line reads back to the same platform.
#include "com/PlatformCodec.h"
#include "mrl/utils/Exception.h"

#include <cstdlib>

using namespace OrviaGonioManager::Com;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QString text = QString::fromUtf8(reinterpret_cast<const char*>(data), qsizetype(size));
    for (const QString& line : text.split(QLatin1Char('\n'))) {
        if (line.isEmpty() || line.startsWith(QLatin1Char('#')))
            continue;
        const QStringList fields = line.split(QLatin1Char(','));
        for (const auto version : {GnxLink::GNX_V1, GnxLink::GNX_V2}) {
            if (fields.size() != GnxLink::platformTitles().value(int(version)).size())
                continue;
            try {
                const GnxLink::PlatformInfo p =
                    PlatformCodec::fromCsvFields(fields, version, QStringLiteral("f"));
                const QStringList written = PlatformCodec::csvFields(p, fields[2], version);
                const GnxLink::PlatformInfo again =
                    PlatformCodec::fromCsvFields(written, version, QStringLiteral("f"));
                if (PlatformCodec::csvFields(again, fields[2], version) != written)
                    std::abort();
            } catch (const MRL::Utils::Exception&) {
                // An unknown GPS format name, refused with its text.
            }
        }
    }
    return 0;
}
