#include "CompanionTray.h"

#include "system/LiveActivityManager.h"

#include <QApplication>
#include <QMenu>
#include <QSystemTrayIcon>
#include <QWindow>

CompanionTray::CompanionTray(LiveActivityManager *activity, QWindow *window, QObject *parent)
    : QObject(parent)
    , m_activity(activity)
    , m_window(window)
    , m_menu(new QMenu)
    , m_icon(new QSystemTrayIcon(QApplication::windowIcon(), this))
{
    m_menu->addAction(QStringLiteral("Arată Kelo"), this, &CompanionTray::showWindow);
    m_menu->addSeparator();
    m_menu->addAction(QStringLiteral("Ieșire"), qApp, &QCoreApplication::quit);
    m_icon->setContextMenu(m_menu);

    connect(m_icon, &QSystemTrayIcon::activated, this, [this](QSystemTrayIcon::ActivationReason reason) {
        if (reason == QSystemTrayIcon::Trigger || reason == QSystemTrayIcon::DoubleClick)
            showWindow();
    });
    connect(m_activity, &LiveActivityManager::changed, this, &CompanionTray::refresh);
    refresh();
    m_icon->show();
}

CompanionTray::~CompanionTray()
{
    delete m_menu;
}

bool CompanionTray::isAvailable()
{
    return QSystemTrayIcon::isSystemTrayAvailable();
}

void CompanionTray::showWindow()
{
    if (!m_window)
        return;
    m_window->show();
    m_window->raise();
    m_window->requestActivate();
}

void CompanionTray::refresh()
{
    m_icon->setToolTip(m_activity->summary());
}
