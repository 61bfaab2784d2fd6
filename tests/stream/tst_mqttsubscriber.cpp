// MqttSubscriber against a real mosquitto: a message is acknowledged only when told, so one left
// unacknowledged comes back in the next session; faults named as the station names them.
#include "common/Broker.h"
#include "common/BrokerFaults.h"
#include "common/FreePort.h"
#include "stream/MqttSubscriber.h"

#include <QProcess>
#include <QSignalSpy>
#include <QTest>

using OrviaGonioManager::Stream::MqttSubscriber;
using OrviaGonioManager::Stream::MqttUrl;
using TestSupport::Broker;

namespace {

constexpr int kWaitMs = 20000;
const QString kUser = "archiver";
const QString kSecret = "Right-Secret-91";

bool publish(int port, const QByteArray& topic, const QByteArray& payload)
{
    QProcess p;
    p.start("mosquitto_pub",
            {"-p", QString::number(port), "-u", kUser, "-P", kSecret, "-q", "1", "-t", topic, "-m", payload});
    return p.waitForFinished(kWaitMs) && p.exitCode() == 0;
}

} // namespace

class TestMqttSubscriber : public QObject
{
    Q_OBJECT

private:
    TestSupport::Certificates certs_;

    MqttSubscriber::Options options(const QString& url, const QString& password = kSecret,
                                    const QString& ca = {}) const
    {
        const bool insecure = ca == "insecure";
        const QString caFile = ca.isEmpty() || insecure ? QString() : certs_.file(ca);
        return {{MqttUrl::parse(url), "tst-mqttsubscriber", kUser, password, caFile, insecure, {}, {}, 3},
                {"t/+/rx"}};
    }

private slots:
    void initTestCase()
    {
        QVERIFY(certs_.makeCa("ca") && certs_.makeCa("other-ca") &&
                certs_.makeServer("server", "ca", "IP:127.0.0.1"));
    }

    // Three messages, the second one not acknowledged: in the next connection of the session only
    // that one comes again.
    void acknowledgesWhenTold()
    {
        Broker broker(kUser, kSecret);
        QVERIFY(broker.start());
        QList<QByteArray> got;
        QList<QPair<quint16, quint64>> ids;
        {
            MqttSubscriber first(options(broker.url()));
            QSignalSpy connected(&first, &MqttSubscriber::sigConnected);
            connect(&first, &MqttSubscriber::sigMessage, this,
                    [&](const QByteArray&, const QByteArray& payload, quint16 id, quint64 connection) {
                        got << payload;
                        ids << qMakePair(id, connection);
                    });
            first.start();
            QVERIFY(connected.wait(kWaitMs));
            QCOMPARE(connected.at(0).at(0).toBool(), false); // a new session
            for (const QByteArray m : {"one", "two", "three"})
                QVERIFY(publish(broker.port(), "t/0099-429/rx", m));
            QTRY_COMPARE_WITH_TIMEOUT(got.size(), 3, kWaitMs);
            first.acknowledge(ids[0].first, ids[0].second);
            first.acknowledge(ids[2].first, ids[2].second);
            first.flush();
            QVERIFY(publish(broker.port(), "t/0099-429/status", "ignored")); // not subscribed
        } // DISCONNECT after the acknowledgements
        got.clear();
        MqttSubscriber second(options(broker.url()));
        QSignalSpy connected(&second, &MqttSubscriber::sigConnected);
        connect(&second, &MqttSubscriber::sigMessage, this,
                [&](const QByteArray&, const QByteArray& payload) { got << payload; });
        second.start();
        QVERIFY(connected.wait(kWaitMs));
        QCOMPARE(connected.at(0).at(0).toBool(), true); // the session was kept
        // A new message comes after what the session kept: "two" and nothing else.
        QVERIFY(publish(broker.port(), "t/0099-429/rx", "four"));
        QTRY_COMPARE_WITH_TIMEOUT(got, (QList<QByteArray>{"two", "four"}), kWaitMs);
    }

    // An acknowledgement of an older connection is not sent on the new one (its packet id would
    // name another message there).
    void oldAcknowledgementDropped()
    {
        Broker broker(kUser, kSecret);
        QVERIFY(broker.start());
        MqttSubscriber s(options(broker.url()));
        QSignalSpy connected(&s, &MqttSubscriber::sigConnected);
        QSignalSpy messages(&s, &MqttSubscriber::sigMessage);
        s.start();
        QVERIFY(connected.wait(kWaitMs));
        QVERIFY(publish(broker.port(), "t/0099-429/rx", "one"));
        QVERIFY(messages.wait(kWaitMs));
        const auto id = messages.at(0).at(2).value<quint16>();
        const auto connection = messages.at(0).at(3).value<quint64>();
        broker.stop();
        QVERIFY(broker.start());
        QVERIFY(connected.wait(kWaitMs));
        QTRY_COMPARE_WITH_TIMEOUT(messages.size(), 2, kWaitMs); // "one" again, in the new connection
        QCOMPARE(messages.at(1).at(1).toByteArray(), QByteArray("one"));
        QVERIFY(messages.at(1).at(3).value<quint64>() != connection);
        s.acknowledge(id, connection); // of the old connection: nothing goes
        s.flush();
        s.stop();
        MqttSubscriber again(options(broker.url()));
        QSignalSpy more(&again, &MqttSubscriber::sigMessage);
        again.start();
        QVERIFY(more.wait(kWaitMs));
        QCOMPARE(more.at(0).at(1).toByteArray(), QByteArray("one"));
    }

    void faults_data()
    {
        TestSupport::brokerFaultRows(
            kSecret, "wrong",
            "the broker closed the connection before answering; if the port speaks TLS, use an mqtts:// URL");
    }

    // A fault is said once, without the secret; three final ones in a row and it gives up.
    void faults()
    {
        TestSupport::checkBrokerFault<MqttSubscriber>(
            [this](const QString& url, const QString& password, const QString& ca) {
                return std::make_unique<MqttSubscriber>(options(url, password, ca));
            },
            kUser, kSecret, certs_, kWaitMs);
    }
};

QTEST_GUILESS_MAIN(TestMqttSubscriber)
#include "tst_mqttsubscriber.moc"
