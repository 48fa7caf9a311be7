#pragma once

#include <QObject>
#include <QPointer>
#include <QTimer>

class QWindow;

// Restores the window's last size at start and writes it back shortly after it changes (QSettings,
// group "window"), so Kelo opens the way the user left it even when it did not end cleanly.
class WindowSizeMemory : public QObject
{
    Q_OBJECT

public:
    explicit WindowSizeMemory(QWindow *window, QObject *parent = nullptr);

    void restore();
    void save() const;

private:
    QPointer<QWindow> m_window;
    QTimer m_saveTimer;
};
