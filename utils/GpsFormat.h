#pragma once

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QString>

#include <map>
#include <memory>
#include <vector>

class QIODevice;

namespace OrviaGonioManager::Utils {

struct GpsFormat_t;

// Where one coordinate lies in the payload and how its raw value is scaled to 1/60000 degree.
struct GpsCoordinate_t
{
    qint32 signPos = 0;
    qint32 signLen = 0; // 0: no sign field
    qint32 pos = 0;
    qint32 len = 0; // 0: no value field
    qint32 T = 0;   // multiplying factor T/U
    qint32 U = 0;
    qint32 V = 0; // adding factor V/W
    qint32 W = 0;
    qint32 TY = 0; // non-zero: values above the range fold back to negative
};

// Owner of every known GPS format, keyed by name (case-sensitive, iterated in name order).
// Pointers handed out stay valid until the next readGpsFormatsFile(), even when the format is
// replaced or deleted in between, so that tables holding them never dangle.
class GpsFormat : public QObject
{
    Q_OBJECT

public:
    enum Origin_t : qint32
    {
        ORIGIN_GUI = 0,
        ORIGIN_GNX,
        ORIGIN_FILE,
    };
    Q_ENUM(Origin_t)

    // Fixed underlying type: the file may carry any 16-bit number here and it is kept as is.
    enum EncryptionType_t : qint32
    {
        ENCRYPTIONTYPE_NONE = 0,
        ENCRYPTIONTYPE_1,
        ENCRYPTIONTYPE_2,
    };
    Q_ENUM(EncryptionType_t)

    static constexpr int kFieldCount = 31;
    static constexpr quint32 kLatitudeLimit = 90;
    static constexpr quint32 kLongitudeLimit = 180;

    static GpsFormat* instance();

    // The GPS formats file. Reading replaces the whole collection; writing is atomic.
    void readGpsFormatsFile(const QString& path);
    void writeGpsFormatsFile(const QString& path) const;
    // The same on an open device / in memory.
    void readGpsFormats(QIODevice& device);
    QByteArray gpsFormatsText() const;

    GpsFormat_t* getGpsFormat(const QString& name) const;
    QList<GpsFormat_t*> gpsFormats() const; // in name order
    int count() const { return int(formats_.size()); }

    void newGpsFormat();
    GpsFormat_t* importGpsFormat(const GpsFormat_t& gpsFormat);
    bool saveGpsFormat(const QString& oldName, const GpsFormat_t& edited);
    void deleteGpsFormat(const QString& name);

    static bool compareGpsFormats(const GpsFormat_t& a, const GpsFormat_t& b, bool compareTexts);
    static QString originText(Origin_t origin);

    // One line of the file, without its line feed. parse accepts a trailing "#" and returns false
    // (leaving gpsFormat untouched) unless the line has exactly kFieldCount fields.
    static bool parseGpsFormatLine(QString line, GpsFormat_t& gpsFormat);
    static QString gpsFormatLine(const GpsFormat_t& gpsFormat);

    // Positions inside a payload (bits numbered MSB-first from the first byte).
    bool decodePosition(const QString& name, const QByteArray& payload, double& latitude,
                        double& longitude) const;
    static double decodeCoordinate(const QByteArray& payload, const GpsCoordinate_t& coordinate,
                                   quint32 limit);
    static bool isFieldReadable(qsizetype payloadSize, quint32 start, quint32 count);
    static quint32 extractBits(const QByteArray& payload, quint32 start, quint32 count);

signals:
    void sigNewGpsFormat(OrviaGonioManager::Utils::GpsFormat_t* gpsFormat);

private:
    explicit GpsFormat(QObject* parent = nullptr);
    ~GpsFormat() override;

    GpsFormat_t* insert(std::unique_ptr<GpsFormat_t> gpsFormat);
    void clear();

    std::map<QString, std::unique_ptr<GpsFormat_t>> formats_;
    // Formats replaced or deleted since the last read; kept alive for pointers held elsewhere.
    std::vector<std::unique_ptr<GpsFormat_t>> retired_;
};

// One GPS format definition.
struct GpsFormat_t
{
    GpsFormat::Origin_t origin = GpsFormat::ORIGIN_GUI;
    QString name;
    QString type;
    QString manufacturer;
    QString description;
    qint32 payloadLength = 0;
    GpsCoordinate_t latitude;
    GpsCoordinate_t longitude;
    GpsFormat::EncryptionType_t encryptionType = GpsFormat::ENCRYPTIONTYPE_NONE;
    quint16 polynom = 0; // written and edited in hexadecimal
    qint32 crcPos = 0;
    qint32 crcLen = 0;
    qint32 dataPos = 0;
    qint32 dataLen = 0;
    qint32 indexPos = 0;
    bool gpsCheck = false;
};

} // namespace OrviaGonioManager::Utils
