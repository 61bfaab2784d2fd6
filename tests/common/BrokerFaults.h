#pragma once

// The broker faults a client must say in the station's words, as rows of a data-driven test:
// url ({plain} and {tls} are the test broker's ports, {down} a TestSupport::RefusingPort), final (another try
// would only repeat it), ca (a CA, "insecure" or none), password, and reason (none: the client connects).
#include "common/Broker.h"
#include "common/FreePort.h"

#include <QSignalSpy>
#include <QTest>

#include <functional>
#include <memory>

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

// Runs the current row of brokerFaultRows() against a client that make() builds for a URL, a
// password and a CA: the fault said once, without the secret or the user, a final one making it give
// up, and no connection. check() then sees the client, connected or given up.
template <class Client>
void checkBrokerFault(
    const std::function<std::unique_ptr<Client>(const QString&, const QString&, const QString&)>& make,
    const QString& user, const QString& secret, const Certificates& certs, int waitMs,
    const std::function<void(Client&)>& check = {})
{
    QFETCH(QString, url);
    QFETCH(bool, final);
    QFETCH(QString, ca);
    QFETCH(QString, password);
    QFETCH(QString, reason);
    Broker broker(user, secret);
    const int tlsPort = broker.addTlsListener(certs.file("server"), certs.key("server"));
    QVERIFY(broker.start());
    const RefusingPort down;
    url.replace("{plain}", QString::number(broker.port()))
        .replace("{tls}", QString::number(tlsPort))
        .replace("{down}", QString::number(down.port()));
    const std::unique_ptr<Client> client = make(url, password, ca);
    QSignalSpy faults(client.get(), &Client::sigFault);
    QSignalSpy refused(client.get(), &Client::sigRefused);
    QSignalSpy connected(client.get(), &Client::sigConnected);
    client->start();
    if (reason.isEmpty()) {
        QVERIFY(connected.wait(waitMs));
    } else {
        QVERIFY(faults.wait(waitMs));
        const QString said = faults.at(0).at(0).toString();
        QVERIFY2(said.startsWith(reason) && !said.contains(password) && !said.contains(user),
                 qPrintable(said));
        QCOMPARE(faults.at(0).at(1).toBool(), final);
        if (final) {
            QVERIFY(!refused.isEmpty() || refused.wait(waitMs));
            QCOMPARE(faults.size(), 1);
            QCOMPARE(refused.at(0).at(0).toString(), said);
        }
        QCOMPARE(connected.size(), 0);
    }
    if (check)
        check(*client);
}

} // namespace TestSupport
