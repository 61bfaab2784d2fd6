#include "com/GnxFrame.h"

#include <QMetaEnum>
#include <QRegularExpression>

namespace OrviaGonioManager::Com::GnxFrame {

namespace {

const QRegularExpression& linePattern()
{
    static const QRegularExpression pattern(
        QStringLiteral("^\\$(?<gnxReply>[A-Z0-9]+)(,(?<params>([^\\*]+)))?\\*(?<checksum>[0-9A-F]+)$"));
    return pattern;
}

// GNX134 devices leave the last two payload digits and the "*" out of the NPR checksum.
bool passesNprSecondCheck(const QString& line, quint32 received)
{
    constexpr int kUncoveredTail = 5;
    if (line.size() <= kUncoveredTail + 1)
        return false;
    return checksum(QStringView(line).mid(1, line.size() - 1 - kUncoveredTail)) == received;
}

// The device's digits without their leading zeros, padded back to two.
QString receivedChecksumText(const DecodedLine& decoded)
{
    QString digits = decoded.receivedChecksumText;
    while (digits.size() > 2 && digits.startsWith(QLatin1Char('0')))
        digits.remove(0, 1);
    return digits.rightJustified(2, QLatin1Char('0'));
}

} // namespace

quint8 checksum(QStringView text)
{
    quint8 sum = 0;
    for (const QChar c : text) {
        if (c.unicode() < 256)
            sum ^= quint8(c.unicode());
    }
    return sum;
}

QString checksumText(quint8 value)
{
    return QStringLiteral("%1").arg(value, 2, 16, QLatin1Char('0')).toUpper();
}

QString mnemonic(GnxLink::GnxCmd_t cmd)
{
    if (cmd == GnxLink::CMD_KEEPALIVE_INTERNAL)
        return QStringLiteral("TEST");
    const char* key = QMetaEnum::fromType<GnxLink::GnxCmd_t>().valueToKey(cmd);
    return key ? QString::fromLatin1(key).mid(4) : QString();
}

QString commandLine(GnxLink::GnxCmd_t cmd, const QStringList& params)
{
    QString line = mnemonic(cmd);
    if (!params.isEmpty())
        line += QLatin1Char(',') + params.join(QLatin1Char(','));
    return line;
}

QString seal(const QString& payload)
{
    const QString text = payload + QLatin1Char('*');
    return text + checksumText(checksum(text));
}

QByteArray encode(GnxLink::GnxCmd_t cmd, const QStringList& params)
{
    return '$' + seal(commandLine(cmd, params)).toLatin1() + "\r\n";
}

DecodedLine decodeLine(const QString& line)
{
    DecodedLine decoded;
    const QRegularExpressionMatch match = linePattern().match(line);
    if (!match.hasMatch())
        return decoded;

    decoded.mnemonic = match.captured(u"gnxReply");
    const QString params = match.captured(u"params");
    if (match.capturedStart(u"params") >= 0)
        decoded.params = params.split(QLatin1Char(','));

    decoded.receivedChecksumText = match.captured(u"checksum");
    bool ok = false;
    decoded.receivedChecksum = decoded.receivedChecksumText.toUInt(&ok, 16);
    if (!ok)
        decoded.receivedChecksum = 0x100; // too long to be a checksum: never equal
    // Everything between "$" and the checksum digits, "*" included.
    decoded.computedChecksum = checksum(QStringView(line).mid(1, match.capturedStart(u"checksum") - 1));

    if (decoded.receivedChecksum == decoded.computedChecksum)
        decoded.status = DecodedLine::Ok;
    else if (decoded.mnemonic == QLatin1String("NPR") && passesNprSecondCheck(line, decoded.receivedChecksum))
        decoded.status = DecodedLine::AcceptedNprChecksum;
    else
        decoded.status = DecodedLine::BadChecksum;
    return decoded;
}

ManualCommand parseManualCommand(const QString& typed)
{
    ManualCommand c;
    c.line = typed;
    bool parseable = true;
    if (typed.isEmpty()) {
        c.warnings << QStringLiteral("Empty command");
        parseable = false;
    }
    static const QRegularExpression pattern(
        QStringLiteral("^(?<dollar>[\\$])?(?<payload>[^\\$\\*]+)(?<checksum>\\*[0-9A-F][0-9A-F]?)?$"));
    const QRegularExpressionMatch match = pattern.match(typed);
    QString working = typed;
    if (match.capturedStart(u"dollar") >= 0)
        working.remove(0, 1);
    const QString payload = match.captured(u"payload");
    if (payload.isEmpty()) {
        c.warnings << QStringLiteral("Command with an empty payload.");
        parseable = false;
    }

    const quint8 expected = checksum(payload + QLatin1Char('*'));
    if (match.capturedStart(u"checksum") >= 0) {
        const uint given = match.captured(u"checksum").mid(1).toUInt(nullptr, 16);
        if (given != expected) {
            c.warnings
                << QStringLiteral("Wrong checksum provided (should be %1)").arg(checksumText(expected));
            return c;
        }
    } else if (parseable) {
        c.line = QLatin1Char('$') + working + QLatin1Char('*') + checksumText(expected);
    }
    if (!parseable)
        return c;
    const QStringList fields = payload.split(QLatin1Char(','));
    const QByteArray key = "CMD_" + fields.first().toLatin1();
    bool known = false;
    const int value = QMetaEnum::fromType<GnxLink::GnxCmd_t>().keyToValue(key.constData(), &known);
    // The keep-alive is the link's own business.
    if (known && value != GnxLink::CMD_KEEPALIVE_INTERNAL) {
        c.request = true;
        c.cmd = GnxLink::GnxCmd_t(value);
        c.params = fields.mid(1);
    }
    return c;
}

QString undecodableWarning(const QString& line)
{
    return QStringLiteral("Unable to decode GNX message \"%1\".").arg(line);
}

QString badChecksumError(const QString& line, const DecodedLine& decoded)
{
    return QStringLiteral("Bad checksum in GNX reply \"%1\": %2 vs %3.")
        .arg(line, receivedChecksumText(decoded), checksumText(decoded.computedChecksum));
}

QString nprChecksumWarning(const QString& mnemonic)
{
    return QStringLiteral("Bad checksum detected on %1 frame.").arg(mnemonic);
}

} // namespace OrviaGonioManager::Com::GnxFrame
