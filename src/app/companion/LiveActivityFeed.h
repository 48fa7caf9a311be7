#pragma once

#include <QObject>

class ChatStore;
class LiveActivityManager;

// Keeps the live activity in step with what the store and the speech service publish.
class LiveActivityFeed : public QObject
{
    Q_OBJECT

public:
    LiveActivityFeed(ChatStore *store, LiveActivityManager *activity, QObject *parent = nullptr);

private:
    void refresh();

    ChatStore *m_store;
    LiveActivityManager *m_activity;
};
