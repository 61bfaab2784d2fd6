#pragma once

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QObject>
#include <QPointer>
#include <QString>
#include <QStringList>
#include <QTimer>

class QSerialPortInfo;
class QThread;

namespace OrviaGonioManager::Utils {
struct GpsFormat_t;
}

namespace OrviaGonioManager::Com {

class UartLink;

// One received message, live (NPR/NPRF line) or read back from flash memory.
struct OrviaRxMessage_t
{
    qint32 platformIndex = 0; // -1 when the source carries none
    quint64 mjd = 0;
    double secondsOfDay = 0.0;
    QString platformId; // hexadecimal; 7 characters for a 28-bit identifier
    quint32 frequency = 0;
    bool flagBit2 = false;
    bool flagBit1 = false;
    bool flagBit0 = false;
    quint16 direction = 0;
    qint16 v1FlashValue = 0;
    qint16 band = 0;
    qint16 extraCode = 0;
    qint32 level = 0;
    quint32 period = 0;
    double gnxLatitude = 0.0;
    double gnxLongitude = 0.0;
    quint32 gnxDirection = 0;
    QByteArray payload;
};

// The device protocol: one synchronous call per device operation, over a UartLink that lives in
// a worker thread owned by this object.
class GnxLink : public QObject
{
    Q_OBJECT

public:
    enum GnxCmd_t
    {
        CMD_KEEPALIVE_INTERNAL = 0,
        CMD_TEST,
        CMD_SETUPSW,
        CMD_SETUPHW,
        CMD_IP,
        CMD_IFP,
        CMD_RFP,
        CMD_DFP,
        CMD_LIG,
        CMD_GSN,
        CMD_SUA,
        CMD_ATBL,
        CMD_ERRF,
        CMD_WRDA,
        CMD_WRSC,
        CMD_REBO,
    };
    Q_ENUM(GnxCmd_t)

    enum GnxVersion_t
    {
        GNX_UNDEFINEDVERSION = 0,
        GNX_V1,
        GNX_V2,
    };
    Q_ENUM(GnxVersion_t)

    enum GnxMode_t
    {
        GNX_UNDEFINEDMODE = 0,
        GNX_BL,
        GNX_APP,
    };
    Q_ENUM(GnxMode_t)

    enum OrviaBand_t
    {
        ORVIABAND_B1 = 0,
        ORVIABAND_B2,
        ORVIABAND_B3,
        ORVIABAND_B4,
        ORVIABAND_B5,
        ORVIABAND_B6,
        ORVIABAND_B7,
        ORVIABAND_B8,
        ORVIABAND_B9,
        ORVIABAND_INVALID,
    };
    Q_ENUM(OrviaBand_t)

    enum CoordType_t
    {
        COORDTYPE_DEG = 0,
        COORDTYPE_DEGMINSEC,
        COORDTYPE_DEGSEC,
    };
    Q_ENUM(CoordType_t)

    enum DistType_t
    {
        DISTTYPE_KM = 0,
        DISTTYPE_MILES,
        DISTTYPE_NATUICALMILES,
    };
    Q_ENUM(DistType_t)

    enum DirectionMode_t
    {
        DIRECTIONMODE_Goniometry = 0,
        DIRECTIONMODE_MSG_decoding,
    };
    Q_ENUM(DirectionMode_t)

    enum AntennaPosition_t
    {
        ANTENNAPOSITION_High = 0,
        ANTENNAPOSITION_Low,
    };
    Q_ENUM(AntennaPosition_t)

    enum AntennaType_t
    {
        ANTENNATYPE_ANX234 = 0,
        ANTENNATYPE_Passive,
        ANTENNATYPE_ANX234_Extended,
    };
    Q_ENUM(AntennaType_t)

    enum CompassMode_t
    {
        COMPASSMODE_Fixed = 0,
        COMPASSMODE_Compass,
        COMPASSMODE_Auto,
        COMPASSMODE_Undefined,
    };
    Q_ENUM(CompassMode_t)

    enum OrviaModulation_t
    {
        ORVIAMODULATION_A2 = 0,
        ORVIAMODULATION_A3,
        ORVIAMODULATION_A4,
        ORVIAMODULATION_INVALID,
    };
    Q_ENUM(OrviaModulation_t)

    enum PlatformIdType_t
    {
        PLATFORMIDTYPE_20BITS = 0,
        PLATFORMIDTYPE_28BITS,
    };
    Q_ENUM(PlatformIdType_t)

    enum OrviaFrequencyMode_t
    {
        FREQUENCYMODE_NARROW = 0,
        FREQUENCYMODE_WIDE,
        FREQUENCYMODE_INVALID,
    };
    Q_ENUM(OrviaFrequencyMode_t)

    enum GnxMessageType_t
    {
        GNXMSG_NPR = 0,
        GNXMSG_NPRF,
    };
    Q_ENUM(GnxMessageType_t)

    enum RxOrigin_t
    {
        RXORIGIN_LIVE = 0,
        RXORIGIN_FLASH,
    };
    Q_ENUM(RxOrigin_t)

    struct GnxDeviceInfo
    {
        GnxVersion_t version = GNX_UNDEFINEDVERSION;
        QString serialNumberPart1;
        QString serialNumberPart2;
        GnxMode_t mode = GNX_UNDEFINEDMODE;
        QString bootloaderVersion;
        QString applicationVersion;
        QString fpgaVersion;
        bool statusBit0 = false;
        bool statusBit1 = false;
        double latitude = 0.0;
        double longitude = 0.0;
        quint32 direction = 0;
        double voltage = 0.0;
        quint32 temperature = 0;
        OrviaBand_t band = ORVIABAND_B1;
    };

    struct SetupSoftware
    {
        bool audio = false;
        bool backlight = false;
        quint16 contrast = 0;
        bool gpsAcquisition = false;
        CoordType_t coordType = COORDTYPE_DEG;
        DistType_t distType = DISTTYPE_KM;
        quint16 directionOffset = 0;
        quint64 mjd = 0;
        double secondsOfDay = 0.0;
        OrviaBand_t band = ORVIABAND_B1;
        bool allToFavorites = false;
    };

    struct SetupHardware
    {
        DirectionMode_t directionMode = DIRECTIONMODE_Goniometry;
        AntennaPosition_t antennaPosition = ANTENNAPOSITION_High;
        qint32 cableLength = 0;
        AntennaType_t antennaType = ANTENNATYPE_ANX234;
        CompassMode_t compassMode = COMPASSMODE_Fixed;
        QString declination;
        bool proximityMode = false;
    };

    // One favourite-platform slot of the receiver.
    struct PlatformInfo
    {
        qint32 index = 0;
        QString id;
        QString label;
        qint32 repetitionPeriod = 0;
        qint32 band = 0;
        qint32 modulation = 0;
        qint32 frequencyMode = 0;
        qint32 narrowFrequency = 0;
        qint32 meanDirectionValues = 0;
        Utils::GpsFormat_t* gpsFormat = nullptr; // owned by GpsFormat; may be absent
    };

    explicit GnxLink(QObject* parent = nullptr);
    ~GnxLink() override;

    static QString bandDescription(OrviaBand_t band);
    // Column titles of the platform fields per generation (key 1 = GNX_V1, 2 = GNX_V2).
    static const QMap<int, QStringList>& platformTitles();

    // Connection. The path form serves pseudo-terminals and user-named ports, which have no
    // QSerialPortInfo of their own.
    void openConnection(const QSerialPortInfo& portInfo);
    void openConnection(const QString& portNameOrPath);
    void closeConnection();
    QString portName() const;
    bool isConnected() const { return !link_.isNull(); }
    // Connected, and the link has neither failed nor timed out: a request may still be answered.
    bool isUsable() const;
    // The link failed because its port went away or hung up.
    bool isPortLost() const;
    void setLiveRxEnabled(bool enabled);

    GnxVersion_t version() const { return version_; }
    int maxPlatformsNumber() const;

    // Request engine.
    void sendBlockingRequest(GnxCmd_t gnxCmd, const QStringList& params = {});
    void sendRequestAndCheck(GnxCmd_t gnxCmd, int paramsCount, const QStringList& params = {},
                             QList<int> acceptedCounts = {});
    void sendManualCommand(const QString& userCmd);
    // A typed line with an outcome a script can trust: a command of the engine as above; any other
    // line sent as typed and its answer, the first reply that completes no request, awaited. Throws
    // when the receiver refuses the line, when it carries a wrong checksum (it still goes out, as
    // typed) or when nothing answers in time. Returns the reply's values, mnemonic first.
    QStringList exchangeManualCommand(const QString& userCmd);
    QStringList replyValues() const { return replyValues_; }
    QByteArray binaryData() const { return binaryData_; }

    // Flash memory. The whole-memory read reports its progress after each block and stops
    // between two blocks once cancelRead() was called, returning what it has.
    QByteArray readFlashMemory();
    void cancelRead() { readCancelled_ = true; }
    // What a whole-memory read that failed had read before its failure.
    QByteArray partialRead() const { return partialRead_; }
    QByteArray readPlatformFlashMemory(int platformIndex);
    void deletePlatformFlashMemory(int platformIndex);
    void deleteFlashMemory();

    // Script recording: commands are formatted and collected instead of sent.
    void startRecording();
    QStringList takeRecordedCommands();
    bool isRecording() const { return recording_; }

    // Device records.
    GnxDeviceInfo readDeviceInfo();
    QString serialNumber() const { return serialNumber_; }
    SetupSoftware getSetupSoftware();
    void setSetupSoftware(const SetupSoftware& setup);
    void setTime(quint64 mjd, double secondsOfDay);
    SetupHardware getSetupHardware();
    void setSetupHardware(const SetupHardware& setup);

    // Favourite platforms.
    PlatformInfo getPlatformInfo(int index);
    void setPlatformInfo(const PlatformInfo& platform, bool recreate);
    void deletePlatformInfo(int index);

    // Received messages.
    QString toNprLine(const OrviaRxMessage_t& message) const;

    // Modes and firmware.
    void switchMode();
    void uploadFirmware(const QList<QByteArray>& records);

signals:
    void sigOpenConnection();
    void sigSetLiveRxEnabled(bool enabled);
    void sigSendRequest(GnxLink::GnxCmd_t gnxCmd, QStringList params, GnxLink::GnxVersion_t gnxVersion);
    void sigSendManualGnxCmd(QString userCmd);
    void sigCloseConnection();

    void sigLinkCompromised(QString portName, QString message);
    // A reply or an error that completed no request: the answer to a typed line sent unframed.
    void sigUnexpectedReply(QStringList replyValues, bool isError);
    void sigOrviaMessageReceived(OrviaGonioManager::Com::OrviaRxMessage_t orviaRxMessage,
                                 OrviaGonioManager::Com::GnxLink::RxOrigin_t rxOrigin);
    // Whole flash memory read: bytes read so far of those CMD_IFP announced; first (0, total).
    void sigFlashProgress(qint64 bytesRead, qint64 total);
    // Firmware upload progress: records sent so far, out of total.
    void sigFirmwareProgress(int sent, int total);

public slots:
    void slotReplyReceived(QStringList replyValues, bool isError);
    void slotBinaryRfpDataReceived(QByteArray rfpData, bool isError);
    void slotBinaryProgress(qint64 bytes);
    void slotRxReceived(GnxLink::GnxMessageType_t gnxMessageType, QStringList params);
    void slotErrorOccured(QString message);
    void slotTimeout();

private:
    void prepareThread();
    void startLink(UartLink* link);
    void waitForLink();
    void pumpEvents();
    bool isFromCurrentLink() const;

    QThread* linkThread_ = nullptr;
    QPointer<UartLink> link_;
    GnxVersion_t version_ = GNX_UNDEFINEDVERSION;
    bool requestPending_ = false;
    int requestResult_ = 0;
    QStringList replyValues_;
    QByteArray binaryData_;
    QString errorMessage_;
    bool waiting_ = false;
    QTimer requestTimer_;
    bool recording_ = false;
    QStringList recordedCommands_;
    QString serialNumber_;
    bool linkCompromised_ = false; // reported once per connection
    bool readCancelled_ = false;
    QByteArray partialRead_;
    qint64 flashBlockDone_ = -1; // bytes read before the current block of a whole read; -1 outside
    qint64 flashTotal_ = 0;
};

} // namespace OrviaGonioManager::Com

Q_DECLARE_METATYPE(OrviaGonioManager::Com::OrviaRxMessage_t)
