import QtQuick
import QtQuick.Controls.impl
import "Symbols.js" as Symbols

// An icon named by its phone symbol, drawn from the desktop icon theme and tinted.
IconImage {
    property string symbol
    property real size: 20

    name: Symbols.iconName(symbol)
    sourceSize: Qt.size(size, size)
    width: size
    height: size
    color: Theme.text
}
