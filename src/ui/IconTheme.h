#pragma once

// The views use freedesktop icon names. Where the desktop's theme
// lacks the symbolic set (or there is no desktop theme at all), Adwaita is used.
namespace IconTheme {
void ensureSymbolicIcons();
}
