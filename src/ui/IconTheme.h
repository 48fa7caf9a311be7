#pragma once

// The views name their icons after the freedesktop icon naming spec. Where the desktop's theme
// lacks the symbolic set (or there is no desktop theme at all), Adwaita is used.
namespace IconTheme {
void ensureSymbolicIcons();
}
