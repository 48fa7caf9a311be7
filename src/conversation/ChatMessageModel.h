#pragma once

#include "ChatMessage.h"

#include <QAbstractListModel>
#include <QtQml/qqmlregistration.h>

// The messages the views show (system messages left out), in order. The answer being streamed grows
// in place, so a view keeps its scroll position and delegates.
class ChatMessageModel : public QAbstractListModel
{
    Q_OBJECT
    QML_ELEMENT
    QML_UNCREATABLE("The conversation belongs to the ChatStore")
    Q_PROPERTY(int count READ count NOTIFY countChanged)

public:
    enum Roles { RoleRole = Qt::UserRole + 1, TextRole, FromAppRole, DateRole };

    using QAbstractListModel::QAbstractListModel;

    int rowCount(const QModelIndex &parent = {}) const override;
    QVariant data(const QModelIndex &index, int role) const override;
    QHash<int, QByteArray> roleNames() const override;
    int count() const { return int(m_messages.size()); }
    // One row as a map of its roles, like a QML ListModel's get(); empty outside the list.
    Q_INVOKABLE QVariantMap get(int row) const;

    QList<ChatMessage> messages() const { return m_messages; }
    void reset(const QList<ChatMessage> &messages);
    // Appends, or replaces the message with the same id (the streamed answer, now complete).
    void upsert(const ChatMessage &message);
    void remove(const QUuid &id);

Q_SIGNALS:
    void countChanged();

private:
    qsizetype indexOf(const QUuid &id) const;

    QList<ChatMessage> m_messages;
};
