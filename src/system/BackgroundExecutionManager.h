#pragma once

#include <QObject>
#include <QString>

// Keeps work that must not be cut off (a turn, a cloud voice request) alive: while a task is open,
// a systemd-logind "sleep" inhibitor lock is held, released by end(), by the next begin() or when
// the expiration timer runs out. Without logind the identifier simply stays invalid.
class BackgroundExecutionManager : public QObject
{
    Q_OBJECT

public:
    explicit BackgroundExecutionManager(QObject *parent = nullptr);
    ~BackgroundExecutionManager() override;

    void begin(const QString &name);
    void end();
    bool isActive() const;
};
