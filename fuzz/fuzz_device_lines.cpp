// Lines from the receiver, as the link decodes them: the frame pattern, both checksum checks and
// the error text. A decoded line re-sealed from its parts decodes to the same parts.
#include "com/GnxFrame.h"

#include <cstdlib>

using namespace OrviaGonioManager::Com;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray bytes(reinterpret_cast<const char*>(data), qsizetype(size));
    for (const QByteArray& raw : bytes.split('\n')) {
        const QString line = QString::fromLatin1(raw).trimmed();
        const GnxFrame::DecodedLine decoded = GnxFrame::decodeLine(line);
        if (decoded.status == GnxFrame::DecodedLine::BadChecksum)
            (void)GnxFrame::badChecksumError(line, decoded);
        if (decoded.status != GnxFrame::DecodedLine::Ok)
            continue;
        QString payload = decoded.mnemonic;
        if (!decoded.params.isEmpty())
            payload += QLatin1Char(',') + decoded.params.join(QLatin1Char(','));
        const GnxFrame::DecodedLine again = GnxFrame::decodeLine(QLatin1Char('$') + GnxFrame::seal(payload));
        if (again.status != GnxFrame::DecodedLine::Ok || again.mnemonic != decoded.mnemonic ||
            again.params != decoded.params)
            std::abort();
    }
    return 0;
}
