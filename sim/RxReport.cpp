#include "sim/RxReport.h"

#include <QStringList>

namespace gnxsim {

QByteArray RxReport::nprPayload(Model model) const
{
    const bool v1 = model == Model::Gnx134;
    const bool favourite = platformIndex >= 0;
    QStringList f;
    if (v1)
        f << QString::number(favourite ? platformIndex : platformSlots(model));
    else if (favourite)
        f << QString::number(platformIndex);
    const QDate d = time.date();
    const QTime t = time.time();
    f << QString::number(d.year() - 2000) << QString::number(d.month()) << QString::number(d.day())
      << QString::number(t.hour()) << QString::number(t.minute()) << QString::number(t.second());
    f << platformId << QString::number(frequency) << QString::number(flags) << QString::number(direction);
    if (favourite && v1)
        f << QString::number(v1FlashValue);
    if (favourite && !v1)
        f << QString::number(band) << QString::number(extraCode);
    f << QString::number(level);
    if (favourite)
        f << QString::number(period);
    f << QString::number(latitude) << QString::number(longitude) << QString::number(gnxDirection);
    if (!favourite && !v1)
        f << QString::number(band) << QString::number(extraCode);
    f << QString::number(payload.size() * 8) << QString::fromLatin1(payload.toHex().toUpper());
    return (favourite ? QByteArrayLiteral("NPRF,") : QByteArrayLiteral("NPR,")) + f.join(',').toLatin1();
}

} // namespace gnxsim
