#pragma once

#include <QObject>
#include <QPointer>

class LiveActivityManager;
class QMenu;
class QSystemTrayIcon;
class QWindow;

// The tray icon: shows the live status as its tooltip and brings the window back. Kelo lives here
// while the window is closed with the background conversation switched on.
class CompanionTray : public QObject
{
    Q_OBJECT

public:
    CompanionTray(LiveActivityManager *activity, QWindow *window, QObject *parent = nullptr);
    ~CompanionTray() override;

    static bool isAvailable();

private:
    void showWindow();
    void refresh();

    LiveActivityManager *m_activity;
    QPointer<QWindow> m_window;
    QMenu *m_menu;
    QSystemTrayIcon *m_icon;
};
