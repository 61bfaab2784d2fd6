// Firmware files (*.van): any bytes, checked for both generations as the window checks them
// before it asks to upload. A file that passes gives back every line after the first.
#include "mrl/utils/Exception.h"
#include "utils/FirmwareFile.h"

#include <cstdlib>

using OrviaGonioManager::Utils::FirmwareFile;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray content(reinterpret_cast<const char*>(data), qsizetype(size));
    for (const int version : {1, 2}) {
        try {
            const FirmwareFile f = FirmwareFile::parse(content, QStringLiteral("fuzz.van"), version);
            if (f.records.size() != content.count('\r') || f.version.isEmpty())
                std::abort();
        } catch (const MRL::Utils::Exception&) {
            // Refused with its text.
        }
    }
    return 0;
}
