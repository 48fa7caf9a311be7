#include "CompanionApp.h"

#include "CompanionActions.h"
#include "CompanionTray.h"
#include "LiveActivityFeed.h"
#include "RenderingBackend.h"
#include "WindowSizeMemory.h"
#include "conversation/ChatStore.h"
#include "skills/MCPClient.h"
#include "system/LiveActivityManager.h"
#include "ui/IconTheme.h"
#include "voice/SpeechRecognizer.h"

#include <QCoroQml>
#include <QGuiApplication>
#include <QIcon>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QtQml/qqmlextensionplugin.h>

Q_IMPORT_QML_PLUGIN(Kelo_CorePlugin)
Q_IMPORT_QML_PLUGIN(KeloPlugin)

void CompanionApp::configureApplication()
{
    QCoreApplication::setOrganizationName(QStringLiteral("Kelo"));
    QCoreApplication::setApplicationName(QStringLiteral("KeloCompanion"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KELO_VERSION));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Kelo"));
    QGuiApplication::setDesktopFileName(QStringLiteral("ro.kelo.KeloCompanion"));
    QGuiApplication::setWindowIcon(QIcon(QStringLiteral(":/icons/ro.kelo.KeloCompanion.svg")));
    QQuickStyle::setStyle(QStringLiteral("Material"));
    // The interface is dark whatever the desktop prefers.
    qputenv("QT_QUICK_CONTROLS_MATERIAL_THEME", "Dark");
    IconTheme::ensureSymbolicIcons();
    RenderingBackend::chooseForThisMachine();
}

CompanionApp::CompanionApp()
    : m_store(std::make_unique<ChatStore>())
    , m_actions(std::make_unique<CompanionActions>(m_store.get()))
    , m_liveActivity(std::make_unique<LiveActivityManager>())
    , m_feed(std::make_unique<LiveActivityFeed>(m_store.get(), m_liveActivity.get()))
{ }

CompanionApp::~CompanionApp()
{
    // The window and its bindings go before the objects they read.
    m_tray.reset();
    m_sizeMemory.reset();
    const auto roots = m_engine.rootObjects();
    for (QObject *root : roots)
        delete root;
}

bool CompanionApp::start()
{
    // The first press of the orb should not wait for the recognition model.
    m_store->recognizer()->preload();
    const bool trayAvailable = CompanionTray::isAvailable();
    m_engine.addImportPath(QStringLiteral("qrc:/qt/qml"));
    // The actions hand results to the views as QCoro tasks.
    QCoro::Qml::registerTypes();
    m_engine.setInitialProperties({
        { QStringLiteral("store"), QVariant::fromValue(m_store.get()) },
        { QStringLiteral("actions"), QVariant::fromValue(m_actions.get()) },
        { QStringLiteral("trayAvailable"), trayAvailable },
    });
    m_engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Kelo/Main.qml")));
    const auto roots = m_engine.rootObjects();
    m_window = roots.isEmpty() ? nullptr : qobject_cast<QQuickWindow *>(roots.first());
    if (!m_window) {
        qCritical("kelo: fereastra aplicației nu a putut fi încărcată.");
        return false;
    }
    m_sizeMemory = std::make_unique<WindowSizeMemory>(m_window);
    m_sizeMemory->restore();
    if (trayAvailable) {
        m_tray = std::make_unique<CompanionTray>(m_liveActivity.get(), m_window);
        // Main.qml decides on close: keep running in the tray or quit.
        QGuiApplication::setQuitOnLastWindowClosed(false);
    }
    m_window->show();
    return true;
}
