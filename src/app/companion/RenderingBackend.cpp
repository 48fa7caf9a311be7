#include "RenderingBackend.h"

#include <QDir>
#include <QQuickWindow>
#include <QSGRendererInterface>

namespace RenderingBackend {

bool hasGpuRenderNode(const QString &driDirectory)
{
    return !QDir(driDirectory).entryList({ QStringLiteral("renderD*") }, QDir::AllEntries | QDir::System).isEmpty();
}

bool chooseForThisMachine()
{
    if (qEnvironmentVariableIsSet("QT_QUICK_BACKEND") || hasGpuRenderNode())
        return false;
    QQuickWindow::setGraphicsApi(QSGRendererInterface::Software);
    return true;
}

} // namespace RenderingBackend
