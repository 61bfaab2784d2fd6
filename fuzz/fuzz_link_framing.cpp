// The link's reception state machine on no port: the input is a script of commands sent and
// chunks received, so that lines, replies, reports and binary flash answers arrive in any state
// (waiting for a reply, for a text or a binary flash answer, idle) and cut anywhere.
#include "com/UartLink.h"
#include "mrl/utils/Exception.h"

using namespace OrviaGonioManager::Com;

namespace {

void quiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    static const auto previous = qInstallMessageHandler(quiet);
    (void)previous;
    UartLink link(QStringLiteral("fuzz"));
    link.openWithoutPort();
    size_t at = 0;
    while (at < size) {
        const uint8_t op = data[at++];
        try {
            switch (op % 6) {
            case 0:
                link.slotSendRequest(GnxLink::CMD_GSN, {}, GnxLink::GNX_V2);
                continue;
            case 1:
                link.slotSendRequest(GnxLink::CMD_RFP, {QStringLiteral("0"), QStringLiteral("16384")},
                                     GnxLink::GNX_V2);
                continue;
            case 2:
                link.slotSendRequest(GnxLink::CMD_RFP, {QStringLiteral("3")}, GnxLink::GNX_V1);
                continue;
            case 3:
                link.slotSendRequest(GnxLink::CMD_ATBL, {}, GnxLink::GNX_V2);
                continue;
            default:
                break;
            }
        } catch (const MRL::Utils::Exception&) {
            continue; // "UartLink is not available": a command while one is outstanding
        }
        const size_t length = at < size ? size_t(data[at++]) * 4 : 0;
        const size_t n = qMin(length, size - at);
        link.receive(QByteArray(reinterpret_cast<const char*>(data + at), qsizetype(n)));
        at += n;
    }
    return 0;
}
