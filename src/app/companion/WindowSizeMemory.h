#pragma once

#include <QObject>
#include <QPointer>

class QWindow;

// Restores the window's last size at start and writes it back when it changes (QSettings, group
// "window"), so Kelo opens the way the user left it.
class WindowSizeMemory : public QObject
{
    Q_OBJECT

public:
    explicit WindowSizeMemory(QWindow *window, QObject *parent = nullptr);

    void restore();
    void save() const;

private:
    QPointer<QWindow> m_window;
};
