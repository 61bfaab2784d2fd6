#pragma once

#include <QString>

namespace OrviaGonioManager::Stream {

// A broker and a topic prefix: mqtt://host[:port]/prefix, or mqtts:// for TLS.
struct MqttUrl
{
    bool tls = false;
    QString host;
    int port = 0;
    QString prefix; // without the leading or trailing "/"

    // Throws MRL::Utils::Exception naming what is wrong.
    static MqttUrl parse(const QString& text);
};

} // namespace OrviaGonioManager::Stream
