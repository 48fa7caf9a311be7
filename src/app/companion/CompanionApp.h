#pragma once

#include <QObject>
#include <QQmlApplicationEngine>

#include <memory>

class ChatStore;
class CompanionActions;
class CompanionTray;
class LiveActivityFeed;
class LiveActivityManager;
class QQuickWindow;
class WindowSizeMemory;

// The desktop app put together: the one chat store, the adaptors the views need, the QML engine
// with the main window, the tray and the remembered window size. Needs a QApplication.
class CompanionApp : public QObject
{
    Q_OBJECT

public:
    // Names, style and icons of the application; call once, right after the QApplication exists.
    static void configureApplication();

    // Creates the chat store (run the legacy cleanup before).
    CompanionApp();
    ~CompanionApp() override;

    // Loads the views and shows the window; false when the interface could not be loaded.
    bool start();

    ChatStore *store() const { return m_store.get(); }
    QQuickWindow *window() const { return m_window; }

private:
    std::unique_ptr<ChatStore> m_store;
    std::unique_ptr<CompanionActions> m_actions;
    std::unique_ptr<LiveActivityManager> m_liveActivity;
    std::unique_ptr<LiveActivityFeed> m_feed;
    QQmlApplicationEngine m_engine;
    QQuickWindow *m_window = nullptr;
    std::unique_ptr<WindowSizeMemory> m_sizeMemory;
    std::unique_ptr<CompanionTray> m_tray;
};
