#pragma once

#include "stream/MqttUrl.h"

#include <QByteArray>
#include <QString>

namespace OrviaGonioManager::Stream {

// How the station's and the archiver's clients reach a broker.
struct MqttBrokerOptions
{
    MqttUrl url;
    QString clientId;
    QString user; // none when empty
    QString password;
    QString caFile; // the system's store when empty
    bool insecure = false;
    QByteArray willTopic; // retained, QoS 1; none when empty
    QByteArray willPayload;
    // Final refusals in a row after which the client gives up (sigRefused); 0 = never.
    int maxRefusals = 3;
};

} // namespace OrviaGonioManager::Stream
