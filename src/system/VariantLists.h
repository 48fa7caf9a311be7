#pragma once

#include <QList>
#include <QVariant>
#include <QVariantList>

// Value lists handed to QML as lists of gadgets.
namespace VariantLists {

template<typename T> QVariantList from(const QList<T> &items)
{
    QVariantList list;
    list.reserve(items.size());
    for (const T &item : items)
        list.append(QVariant::fromValue(item));
    return list;
}

} // namespace VariantLists
