#include "CompanionActions.h"
#include "TemporaryHome.h"
#include "conversation/ChatStore.h"
#include "ui/IconTheme.h"

#include <QCoroQml>
#include <QQmlEngine>
#include <QtQml/qqmlextensionplugin.h>
#include <QtQuickTest>

Q_IMPORT_QML_PLUGIN(Kelo_CorePlugin)
Q_IMPORT_QML_PLUGIN(KeloPlugin)

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
// Qt has no frame pointers, and the suppressions of Qt Quick's image caches (lsan.supp) need whole stacks.
extern "C" const char *__asan_default_options()
{
    return "fast_unwind_on_malloc=0";
}
#endif
#endif

// The real store and actions, in a home of their own per test file's engine: no file sees another's.
class RealObjects : public QObject
{
    Q_OBJECT
    Q_PROPERTY(ChatStore *store READ store CONSTANT)
    Q_PROPERTY(CompanionActions *actions READ actions CONSTANT)

    ChatStore *store() { return &m_store; }
    CompanionActions *actions() { return &m_actions; }

    TemporaryHome m_home;
    ChatStore m_store;
    CompanionActions m_actions { &m_store };
};

// Material dark like the app, the app's icon theme and the model service pointed at a closed port.
class ViewTestSetup : public QObject
{
    Q_OBJECT

public:
    ViewTestSetup()
    {
        qputenv("QT_QUICK_CONTROLS_STYLE", "Material");
        qputenv("QT_QUICK_CONTROLS_MATERIAL_THEME", "Dark");
        qputenv("KELO_ZEN_BASE_URL", "http://127.0.0.1:1");
    }

public Q_SLOTS:
    void applicationAvailable()
    {
        IconTheme::ensureSymbolicIcons();
        QCoro::Qml::registerTypes();
        qmlRegisterSingletonType<RealObjects>(
            "Kelo.Testing", 1, 0, "Real", [](QQmlEngine *, QJSEngine *) { return new RealObjects; });
    }

    void qmlEngineAvailable(QQmlEngine *engine) { engine->addImportPath(QStringLiteral("qrc:/qt/qml")); }
};

QUICK_TEST_MAIN_WITH_SETUP(ui_views, ViewTestSetup)

#include "ui_views_main.moc"
