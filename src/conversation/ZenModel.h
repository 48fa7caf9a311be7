#pragma once

#include <QHashFunctions>
#include <QJsonObject>
#include <QMetaType>
#include <QString>

#include <optional>

// A model offered by the chat-completions service.
class ZenModel
{
    Q_GADGET
    Q_PROPERTY(QString id MEMBER id CONSTANT)
    Q_PROPERTY(QString name MEMBER name)
    Q_PROPERTY(bool isFree MEMBER isFree)

public:
    QString id;
    QString name;
    bool isFree = false;

    static ZenModel bigPickle() { return { QStringLiteral("big-pickle"), QStringLiteral("Big Pickle"), true }; }

    QJsonObject toJson() const;
    static std::optional<ZenModel> fromJson(const QJsonValue &value);

    friend bool operator==(const ZenModel &, const ZenModel &) = default;
};

inline size_t qHash(const ZenModel &model, size_t seed = 0)
{
    return qHashMulti(seed, model.id, model.name, model.isFree);
}

Q_DECLARE_METATYPE(ZenModel)
