#include "CompanionActions.h"
#include "CompanionTray.h"
#include "LiveActivityFeed.h"
#include "WindowSizeMemory.h"
#include "conversation/ChatStore.h"
#include "settings/LegacyLocalModelCleaner.h"
#include "skills/OAuthCallbackChannel.h"
#include "system/LiveActivityManager.h"
#include "ui/IconTheme.h"

#include <QApplication>
#include <QIcon>
#include <QQmlApplicationEngine>
#include <QQuickStyle>
#include <QQuickWindow>
#include <QtQml/qqmlextensionplugin.h>

Q_IMPORT_QML_PLUGIN(KeloPlugin)

int main(int argc, char *argv[])
{
    // The tray needs QtWidgets, hence a QApplication here (and only here).
    QApplication app(argc, argv);
    QCoreApplication::setOrganizationName(QStringLiteral("Kelo"));
    QCoreApplication::setApplicationName(QStringLiteral("KeloCompanion"));
    QCoreApplication::setApplicationVersion(QStringLiteral(KELO_VERSION));
    QGuiApplication::setApplicationDisplayName(QStringLiteral("Kelo"));
    QGuiApplication::setDesktopFileName(QStringLiteral("ro.kelo.KeloCompanion"));
    QGuiApplication::setWindowIcon(QIcon(QStringLiteral(":/icons/ro.kelo.KeloCompanion.svg")));

    // Started by the browser with an OAuth redirect: hand it to the waiting flow and leave.
    const int handOff = OAuthCallbackChannel::handOffArguments(QCoreApplication::arguments());
    if (handOff >= 0)
        return handOff;

    QQuickStyle::setStyle(QStringLiteral("Material"));
    qputenv("QT_QUICK_CONTROLS_MATERIAL_THEME", "Dark");
    IconTheme::ensureSymbolicIcons();

    LegacyLocalModelCleaner::runOnce();
    ChatStore store;
    CompanionActions actions(&store);
    LiveActivityManager liveActivity;
    LiveActivityFeed feed(&store, &liveActivity);

    const bool trayAvailable = CompanionTray::isAvailable();
    QQmlApplicationEngine engine;
    engine.addImportPath(QStringLiteral("qrc:/qt/qml"));
    engine.setInitialProperties({
        { QStringLiteral("store"), QVariant::fromValue(&store) },
        { QStringLiteral("actions"), QVariant::fromValue(&actions) },
        { QStringLiteral("trayAvailable"), trayAvailable },
    });
    engine.load(QUrl(QStringLiteral("qrc:/qt/qml/Kelo/Main.qml")));
    auto *window
        = engine.rootObjects().isEmpty() ? nullptr : qobject_cast<QQuickWindow *>(engine.rootObjects().first());
    if (!window) {
        qCritical("kelo: fereastra aplicației nu a putut fi încărcată.");
        return 1;
    }

    WindowSizeMemory sizeMemory(window);
    sizeMemory.restore();
    std::unique_ptr<CompanionTray> tray;
    if (trayAvailable)
        tray = std::make_unique<CompanionTray>(&liveActivity, window);
    window->show();
    return app.exec();
}
