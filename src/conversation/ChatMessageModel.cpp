#include "ChatMessageModel.h"

int ChatMessageModel::rowCount(const QModelIndex &parent) const
{
    return parent.isValid() ? 0 : count();
}

QVariant ChatMessageModel::data(const QModelIndex &index, int role) const
{
    if (!checkIndex(index, CheckIndexOption::IndexIsValid | CheckIndexOption::ParentIsInvalid))
        return {};
    const ChatMessage &message = m_messages.at(index.row());
    switch (role) {
    case RoleRole:
        return message.roleName();
    case TextRole:
    case Qt::DisplayRole:
        return message.text;
    case FromAppRole:
        return message.fromApp;
    case DateRole:
        return message.createdAt;
    default:
        return {};
    }
}

QVariantMap ChatMessageModel::get(int row) const
{
    QVariantMap values;
    if (row < 0 || row >= count())
        return values;
    const QModelIndex at = index(row);
    const QHash<int, QByteArray> names = roleNames();
    for (auto name = names.cbegin(); name != names.cend(); ++name)
        values.insert(QString::fromLatin1(name.value()), data(at, name.key()));
    return values;
}

QHash<int, QByteArray> ChatMessageModel::roleNames() const
{
    return { { RoleRole, "role" }, { TextRole, "text" }, { FromAppRole, "fromApp" }, { DateRole, "date" } };
}

void ChatMessageModel::reset(const QList<ChatMessage> &messages)
{
    beginResetModel();
    m_messages.clear();
    for (const ChatMessage &message : messages) {
        if (message.role != ChatMessage::Role::system)
            m_messages.append(message);
    }
    endResetModel();
    Q_EMIT countChanged();
}

void ChatMessageModel::upsert(const ChatMessage &message)
{
    if (message.role == ChatMessage::Role::system)
        return;
    if (const qsizetype row = indexOf(message.id); row >= 0) {
        m_messages[row] = message;
        const QModelIndex changed = index(int(row));
        Q_EMIT dataChanged(changed, changed);
        return;
    }
    beginInsertRows({}, count(), count());
    m_messages.append(message);
    endInsertRows();
    Q_EMIT countChanged();
}

void ChatMessageModel::remove(const QUuid &id)
{
    const qsizetype row = indexOf(id);
    if (row < 0)
        return;
    beginRemoveRows({}, int(row), int(row));
    m_messages.removeAt(row);
    endRemoveRows();
    Q_EMIT countChanged();
}

qsizetype ChatMessageModel::indexOf(const QUuid &id) const
{
    // The streamed answer is the last row, so search from the end.
    for (qsizetype row = m_messages.size() - 1; row >= 0; --row) {
        if (m_messages.at(row).id == id)
            return row;
    }
    return -1;
}
