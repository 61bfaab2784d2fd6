#include "sim/SimulatorShared.h"

#include <QFile>
#include <QJsonDocument>
#include <QSaveFile>

namespace gnxsim {

bool SimulatorShared::save(QString* error, bool force)
{
    if (statePath.isEmpty() || (!force && device.revision() == savedRevision))
        return true;
    QSaveFile file(statePath);
    if (!file.open(QIODevice::WriteOnly)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    file.write(QJsonDocument(device.toJson()).toJson(QJsonDocument::Indented));
    if (!file.commit()) {
        if (error)
            *error = file.errorString();
        return false;
    }
    savedRevision = device.revision();
    return true;
}

bool SimulatorShared::load(QString* error)
{
    QFile file(statePath);
    if (!file.exists())
        return true; // first run
    if (!file.open(QIODevice::ReadOnly)) {
        if (error)
            *error = file.errorString();
        return false;
    }
    QJsonParseError parseError{};
    const QJsonDocument doc = QJsonDocument::fromJson(file.readAll(), &parseError);
    if (!doc.isObject()) {
        if (error)
            *error = parseError.errorString();
        return false;
    }
    if (!device.fromJson(doc.object(), error))
        return false;
    savedRevision = device.revision();
    return true;
}

} // namespace gnxsim
