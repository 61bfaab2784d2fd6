// GPS formats file reader: any bytes must read without a fault, and whatever is read must come back
// unchanged through the writer.
#include "utils/GpsFormat.h"

#include <QBuffer>

#include <cstdlib>

using OrviaGonioManager::Utils::GpsFormat;
using OrviaGonioManager::Utils::GpsFormat_t;

namespace {

QList<GpsFormat_t> read(const QByteArray& text)
{
    QBuffer buffer;
    buffer.setData(text);
    buffer.open(QIODevice::ReadOnly);
    GpsFormat::instance()->readGpsFormats(buffer);
    QList<GpsFormat_t> formats;
    for (const GpsFormat_t* f : GpsFormat::instance()->gpsFormats())
        formats << *f;
    return formats;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray input(reinterpret_cast<const char*>(data), qsizetype(size));
    const QList<GpsFormat_t> first = read(input);

    double latitude = 0;
    double longitude = 0;
    for (const GpsFormat_t& f : first) {
        if (f.origin != GpsFormat::ORIGIN_FILE || GpsFormat::instance()->getGpsFormat(f.name) == nullptr)
            std::abort();
        // Any format, any payload: the input itself will do.
        GpsFormat::instance()->decodePosition(f.name, input, latitude, longitude);

        GpsFormat_t again;
        if (!GpsFormat::parseGpsFormatLine(GpsFormat::gpsFormatLine(f) + "#", again) ||
            !GpsFormat::compareGpsFormats(f, again, true))
            std::abort();
    }

    const QList<GpsFormat_t> second = read(GpsFormat::instance()->gpsFormatsText());
    if (second.size() != first.size())
        std::abort();
    for (qsizetype i = 0; i < first.size(); ++i)
        if (!GpsFormat::compareGpsFormats(first.at(i), second.at(i), true))
            std::abort();
    return 0;
}
