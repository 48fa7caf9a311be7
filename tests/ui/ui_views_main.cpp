#include "ui/IconTheme.h"

#include <QDir>
#include <QQmlContext>
#include <QQmlEngine>
#include <QtQml/qqmlextensionplugin.h>
#include <QtQuickTest>

Q_IMPORT_QML_PLUGIN(Kelo_CorePlugin)
Q_IMPORT_QML_PLUGIN(KeloPlugin)

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
// Qt is built without frame pointers, so the fast unwinder stops at the first Qt frame; the
// suppressions for Qt Quick's own image caches (scripts/sanitizer/lsan.supp) need whole stacks.
extern "C" const char *__asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}
#endif
#endif

// Material dark like the app, the app's icon theme, and a place for the screenshots.
class ViewTestSetup : public QObject
{
    Q_OBJECT

public:
    ViewTestSetup()
    {
        qputenv("QT_QUICK_CONTROLS_STYLE", "Material");
        qputenv("QT_QUICK_CONTROLS_MATERIAL_THEME", "Dark");
    }

public Q_SLOTS:
    void applicationAvailable() { IconTheme::ensureSymbolicIcons(); }

    void qmlEngineAvailable(QQmlEngine *engine)
    {
        engine->addImportPath(QStringLiteral("qrc:/qt/qml"));
        const QString dir = QStringLiteral(KELO_SCREENSHOT_DIR);
        QDir().mkpath(dir);
        engine->rootContext()->setContextProperty(QStringLiteral("screenshotDir"), dir);
    }
};

QUICK_TEST_MAIN_WITH_SETUP(ui_views, ViewTestSetup)

#include "ui_views_main.moc"
