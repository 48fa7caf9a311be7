#pragma once

#include <QList>
#include <QMetaType>
#include <QString>
#include <QStringList>

// A known MCP service offered on the Skills screen; connecting one yields an MCPServerConfig.
class MCPGalleryItem
{
    Q_GADGET
    Q_PROPERTY(QString id MEMBER id CONSTANT)
    Q_PROPERTY(QString name MEMBER name CONSTANT)
    Q_PROPERTY(QString subtitle MEMBER subtitle CONSTANT)
    Q_PROPERTY(QString endpoint MEMBER endpoint CONSTANT)
    Q_PROPERTY(QString symbol MEMBER symbol CONSTANT)
    Q_PROPERTY(QString tintName MEMBER tintName CONSTANT)
    Q_PROPERTY(QStringList scopes MEMBER scopes CONSTANT)
    Q_PROPERTY(QString note MEMBER note CONSTANT)

public:
    QString id;
    QString name;
    QString subtitle;
    QString endpoint;
    QString symbol;
    QString tintName;
    QStringList scopes;
    QString note;

    // The six services, in the order the gallery shows them.
    static const QList<MCPGalleryItem> &gallery();
    static const MCPGalleryItem *find(const QString &id);
};

Q_DECLARE_METATYPE(MCPGalleryItem)
