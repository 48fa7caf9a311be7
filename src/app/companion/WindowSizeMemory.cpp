#include "WindowSizeMemory.h"

#include "settings/FileSaveError.h"
#include "settings/SettingsFile.h"

#include <QGuiApplication>
#include <QScreen>
#include <QSettings>
#include <QWindow>

namespace {
const QString widthKey = QStringLiteral("window/width");
const QString heightKey = QStringLiteral("window/height");
} // namespace

WindowSizeMemory::WindowSizeMemory(QWindow *window, QObject *parent)
    : QObject(parent)
    , m_window(window)
{
    // A drag-resize sends many sizes; only the last one is written.
    m_saveTimer.setSingleShot(true);
    m_saveTimer.setInterval(500);
    connect(&m_saveTimer, &QTimer::timeout, this, &WindowSizeMemory::save);
    connect(window, &QWindow::widthChanged, &m_saveTimer, qOverload<>(&QTimer::start));
    connect(window, &QWindow::heightChanged, &m_saveTimer, qOverload<>(&QTimer::start));
    connect(qApp, &QCoreApplication::aboutToQuit, this, &WindowSizeMemory::save);
    connect(window, &QWindow::visibleChanged, this, [this](bool visible) {
        if (!visible)
            save();
    });
}

void WindowSizeMemory::restore()
{
    QSettings settings;
    bool widthOK = false;
    bool heightOK = false;
    const int width = settings.value(widthKey).toString().toInt(&widthOK);
    const int height = settings.value(heightKey).toString().toInt(&heightOK);
    if (!widthOK || !heightOK)
        return;
    // A size saved on a larger screen is clamped so the window stays reachable.
    QSize size(qMax(width, m_window->minimumWidth()), qMax(height, m_window->minimumHeight()));
    if (const QScreen *screen = m_window->screen())
        size = size.boundedTo(screen->availableSize());
    m_window->resize(size);
}

void WindowSizeMemory::save() const
{
    if (!m_window || m_window->width() <= 0 || m_window->height() <= 0)
        return;
    // Unchanged sizes are not rewritten; a size that cannot be saved is simply not remembered.
    const QSettings settings;
    try {
        if (settings.value(widthKey).toString() != QString::number(m_window->width()))
            SettingsFile::store(widthKey, m_window->width());
        if (settings.value(heightKey).toString() != QString::number(m_window->height()))
            SettingsFile::store(heightKey, m_window->height());
    } catch (const FileSaveError &) { }
}
