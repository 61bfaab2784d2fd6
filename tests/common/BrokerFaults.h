#pragma once

// The broker faults a client must say in the station's words, as rows of a data-driven test:
// url ({plain} and {tls} are the test broker's ports, {down} a TestSupport::RefusingPort), final (another try
// would only repeat it), ca (a CA, "insecure" or none), password, and reason (none: the client connects).
#include "common/FreePort.h"

#include <QTest>

namespace TestSupport {

inline void brokerFaultRows(const QString& secret, const QString& wrong, const QString& plainToTls)
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<bool>("final");
    QTest::addColumn<QString>("ca");
    QTest::addColumn<QString>("password");
    QTest::addColumn<QString>("reason");
    const QString tls = "mqtts://127.0.0.1:{tls}/t", no;
    const QString untrusted = "TLS certificate not trusted: unable to get local issuer certificate";
    QTest::newRow("TLS, its CA") << tls << false << "ca" << secret << no;
    QTest::newRow("TLS, insecure") << tls << false << "insecure" << secret << no;
    QTest::newRow("broker down") << "mqtt://127.0.0.1:{down}/t" << false << no << secret
                                 << "connection refused";
    QTest::newRow("host not found") << "mqtt://broker.invalid/t" << false << no << secret
                                    << "host not found: broker.invalid";
    QTest::newRow("no CA") << tls << true << no << secret << untrusted;
    QTest::newRow("wrong CA") << tls << true << "other-ca" << secret << untrusted;
    QTest::newRow("name mismatch") << "mqtts://localhost:{tls}/t" << true << "ca" << secret
                                   << "host name mismatch: the broker's certificate is not for localhost";
    QTest::newRow("plain to TLS port") << "mqtt://127.0.0.1:{tls}/t" << false << no << secret << plainToTls;
    QTest::newRow("TLS to plain port") << "mqtts://127.0.0.1:{plain}/t" << false << "ca" << secret
                                       << "protocol mismatch: the port does not speak TLS";
    QTest::newRow("bad password") << "mqtt://127.0.0.1:{plain}/t" << true << no << wrong << "not authorised";
}

} // namespace TestSupport
