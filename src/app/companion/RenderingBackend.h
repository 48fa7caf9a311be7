#pragma once

#include <QString>

// Chooses how Qt Quick draws on this machine. Without a GPU, OpenGL falls back to a CPU rasteriser
// (llvmpipe) that redraws the whole window on every frame of the orb and maps a large driver;
// Qt Quick's own software renderer repaints only what changed and costs a fraction of that.
namespace RenderingBackend {

// Call before the first window. Leaves an explicit QT_QUICK_BACKEND alone. Returns true when the
// software renderer was chosen.
bool chooseForThisMachine();

// A machine has a usable GPU when the kernel offers a DRM render node (checked without loading
// any graphics driver into the process).
bool hasGpuRenderNode(const QString &driDirectory = QStringLiteral("/dev/dri"));

} // namespace RenderingBackend
