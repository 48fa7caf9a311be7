#include "ZenModel.h"

QJsonObject ZenModel::toJson() const
{
    return { { QStringLiteral("id"), id }, { QStringLiteral("name"), name }, { QStringLiteral("isFree"), isFree } };
}

std::optional<ZenModel> ZenModel::fromJson(const QJsonValue &value)
{
    const QJsonObject object = value.toObject();
    const QJsonValue id = object.value(QLatin1String("id"));
    const QJsonValue name = object.value(QLatin1String("name"));
    const QJsonValue isFree = object.value(QLatin1String("isFree"));
    if (!id.isString() || !name.isString() || !isFree.isBool())
        return std::nullopt;
    return ZenModel { id.toString(), name.toString(), isFree.toBool() };
}
