#include "IconTheme.h"

#include <QIcon>
#include <QStandardPaths>

namespace IconTheme {

void ensureSymbolicIcons()
{
    // Platforms without a desktop theme (offscreen, minimal) search only the resources.
    QStringList paths = QIcon::themeSearchPaths();
    const QStringList systemPaths = QStandardPaths::locateAll(
        QStandardPaths::GenericDataLocation, QStringLiteral("icons"), QStandardPaths::LocateDirectory);
    for (const QString &path : systemPaths) {
        if (!paths.contains(path))
            paths.append(path);
    }
    QIcon::setThemeSearchPaths(paths);
    QIcon::setFallbackThemeName(QStringLiteral("Adwaita"));
    const QString current = QIcon::themeName();
    // Qt Quick's icon lookup does not consult the fallback theme, so a desktop without a real
    // theme (or one without the symbolic set) is switched to Adwaita outright.
    if (current.isEmpty() || current == QLatin1String("hicolor")
        || !QIcon::hasThemeIcon(QStringLiteral("audio-input-microphone-symbolic")))
        QIcon::setThemeName(QStringLiteral("Adwaita"));
}

} // namespace IconTheme
