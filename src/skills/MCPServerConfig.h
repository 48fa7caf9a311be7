#pragma once

#include <QHashFunctions>
#include <QJsonArray>
#include <QJsonObject>
#include <QMetaType>
#include <QString>
#include <QUuid>

#include <optional>

// One MCP server the user added, from the gallery or by hand. The bearer token travels inside this
// record and therefore inside the settings file.
class MCPServerConfig
{
    Q_GADGET
    Q_PROPERTY(QString id READ idString CONSTANT)
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(QString endpoint MEMBER endpoint)
    Q_PROPERTY(bool enabled MEMBER enabled)
    Q_PROPERTY(QString sourceID READ sourceIDOrEmpty)
    Q_PROPERTY(QString authLabel READ authLabelOrEmpty)

public:
    QUuid id;
    QString name;
    QString endpoint;
    QString bearerToken;
    bool enabled = true;
    std::optional<QString> sourceID;
    std::optional<QString> authLabel;

    QString idString() const { return id.toString(QUuid::WithoutBraces).toUpper(); }
    QString sourceIDOrEmpty() const { return sourceID.value_or(QString()); }
    QString authLabelOrEmpty() const { return authLabel.value_or(QString()); }

    // Keys are the field names; absent optionals are left out.
    QJsonObject toJson() const;
    // The first five keys are required with the right types; "sourceID" and "authLabel" may be absent.
    static std::optional<MCPServerConfig> fromJson(const QJsonValue &value);

    static QJsonArray listToJson(const QList<MCPServerConfig> &servers);
    // The whole list, or nothing when any entry fails to decode (as a strict decoder would).
    static std::optional<QList<MCPServerConfig>> listFromJson(const QByteArray &data);

    friend bool operator==(const MCPServerConfig &, const MCPServerConfig &) = default;
};

inline size_t qHash(const MCPServerConfig &server, size_t seed = 0)
{
    return qHashMulti(seed, server.id, server.name, server.endpoint, server.bearerToken, server.enabled);
}

Q_DECLARE_METATYPE(MCPServerConfig)
